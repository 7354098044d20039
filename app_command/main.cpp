// The entry point of qm5-update: puts the adapters behind the ports and starts the command.

#include <QCoreApplication>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <new>
#include <variant>

#include "app_command/command.h"
#include "app_command/command_for_all.h"
#include "app_command/hang_up.h"
#include "app_command/json_report.h"
#include "app_command/options.h"
#include "app_command/plain_report.h"
#include "computer/package/file_package.h"
#include "computer/process/single_instance.h"
#include "computer/process/start_conditions.h"
#include "computer/process/termination_signals.h"
#include "computer/wakefulness/sleep_inhibitor.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "platform/console.h"
#include "platform/fatal.h"
#include "platform/program_name.h"
#include "platform/system_log.h"
#include "update_run/target_version.h"

namespace qm5 {
namespace {

// What was made with `new` here is never destroyed: threads use it until the process ends.
void setAdapters(const CommandOptions& options) {
  setUSBRegistry(&LibusbRegistry::create(options.device.value_or("")));
  setApplicationPackage(new FilePackage);
  setWakefulness(new SleepInhibitor);
}

// The lines of the layers below are the report's to show.
void redirectLines(Report& report) {
  setConsole([&report](std::string_view line) { report.engineLine({}, line); });
  setSystemLog([&report](std::string_view line) {
    writeSystemLog(line);
    report.engineLine({}, line);
  });
  qInstallMessageHandler(
      [](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        const std::string line = qFormatLogMessage(type, context, message).toStdString();
        if (type == QtFatalMsg) fatal(line);
        writeSystemLog(line);
      });
}

// A background job that writes to its terminal, or reads from it, would be stopped in the middle of
// an update.
void keepTerminalFromStopping() {
  std::signal(SIGTTIN, SIG_IGN);
  std::signal(SIGTTOU, SIG_IGN);
}

// Jobs may be at work when the process ends, so `command` is never taken apart.
template <typename AnyCommand>
[[noreturn]] void serve(AnyCommand& command) {
  followTerminationSignals([&command] { command.requestEnd(terminationDeclined); },
                           [&command] { return command.endAtOnce(); });
  command.start();
  endProcess(QCoreApplication::exec());
}

int run(int argc, char** argv, const CommandOptions& options) {
  Report& report = options.json ? static_cast<Report&>(*new JsonReport(options.quiet))
                                : *new PlainReport(options.quiet, options.all);
  requireStartResources();
  const auto claimed = claimBusQuietly(options.claim);
  if (const auto* in_use = std::get_if<BusInUse>(&claimed)) {
    const Verdict verdict = busInUseVerdict(in_use->name);
    report.ended({.device = options.device.value_or(""),
                  .target_version = options.target.value_or(std::string(kTargetVersion))},
                 verdict);
    return static_cast<int>(verdict.status);
  }
  blockTerminationSignals({SIGINT, SIGTERM});
  followHangUps();
  redirectLines(report);
  setAdapters(options);
  QCoreApplication application(argc, argv);
  // Qt has taken the person's locale: the system's messages stand in English texts.
  std::setlocale(LC_NUMERIC, "C");
  std::setlocale(LC_MESSAGES, "C");
  if (!options.all) serve(*new Command(options, report));
  const int claim = std::get<BusClaim>(claimed).descriptor();
  serve(*new CommandForAll(options, report, claim));
}

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) try {
  qm5::setProgramName("qm5-update");
  qm5::openStandardStreams();
  qm5::ignoreWriteSignals();
  qm5::keepTerminalFromStopping();
  const auto parsed = qm5::parseCommandOptions(argc, argv, QM5_VERSION);
  if (const auto* reply = std::get_if<qm5::CommandReply>(&parsed)) {
    std::fputs(reply->text.c_str(), reply->exit_status == 0 ? stdout : stderr);
    return reply->exit_status;
  }
  qm5::endProcess(qm5::run(argc, argv, std::get<qm5::CommandOptions>(parsed)));
} catch (const std::bad_alloc&) {
  qm5::cannotStart("there is not enough memory");
}
