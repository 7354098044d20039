// The entry point: puts the adapters behind the ports and hands over to the toolkit.

#include <csignal>
#include <cstdlib>

#include "app_shell/main_storyboard.h"
#include "app_shell/qt/alert.h"
#include "app_shell/qt/qt_toolkit.h"
#include "app_shell/toolkit.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "platform/single_instance.h"
#include "platform/system_log.h"
#include "platform/termination_signals.h"

namespace qm5 {
namespace {

// What the desktop gave to this start, so that the window it leads to may come to the front.
std::string activationToken() {
  for (const char* name : {"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* const token = std::getenv(name)) return token;
  }
  return {};
}

void tellOfTheOther(int argc, char** argv) {
  const Alert alert = {.messageText = "QM5 Updater is running already",
                       .informativeText =
                           "Another person has started it on this computer.\n"
                           "Only one at a time can talk to the QM5.",
                       .buttons = {"OK"},
                       .style = AlertStyle::warning};
  log(alert.messageText + ": another person has started it.");
  showNotice(argc, argv, alert);
}

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  // Whoever reads the lines may leave early; an update goes on without him.
  std::signal(SIGPIPE, SIG_IGN);
  const qm5::Start start = qm5::claimBus(qm5::activationToken());
  if (start == qm5::Start::refused) qm5::tellOfTheOther(argc, argv);
  if (start != qm5::Start::onlyOne) return 0;
  qm5::blockTerminationSignals();
  // Never destroyed: threads use both until the process ends.
  qm5::setUSBRegistry(new qm5::LibusbRegistry);
  qm5::setToolkit(new qm5::QtToolkit);
  qm5::followTerminationSignals(
      [] { qm5::toolkit().requestTermination(qm5::terminationDeclined); });
  qm5::followLaterStarts([](const std::string& token) {
    qm5::toolkit().mainQueueAsync([token] { qm5::toolkit().activate(token); });
  });
  std::exit(qm5::toolkit().applicationMain(argc, argv, qm5::mainStoryboard()));
}
