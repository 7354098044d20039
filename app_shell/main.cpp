// The entry point: puts the adapters behind the ports and hands over to the toolkit.

#include <cstdio>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "app_shell/main_storyboard.h"
#include "app_shell/notifications/notification_service.h"
#include "app_shell/process/already_running.h"
#include "app_shell/process/arguments.h"
#include "app_shell/qt/qt_application.h"
#include "computer/package/file_package.h"
#include "computer/process/single_instance.h"
#include "computer/process/start_conditions.h"
#include "computer/process/termination_signals.h"
#include "computer/wakefulness/sleep_inhibitor.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

// Never destroyed: threads use the adapters until the process ends.
void setAdapters(std::function<void()> display_lost) {
  setUSBRegistry(&LibusbRegistry::create());
  setApplicationPackage(new FilePackage);
  setWakefulness(new SleepInhibitor);
  setDesktopNotifications(new NotificationService);
  setApplication(new QtApplication(std::move(display_lost)));
}

int run(int argc, char** argv) {
  const std::string token = activationToken();
  setEnvironment();
  requireStartResources();
  auto claimed = claimBus(token);
  if (const auto* in_use = std::get_if<BusInUse>(&claimed)) {
    setApplication(new QtApplication);
    showAlreadyRunning(argc, argv, *in_use);
    return 0;
  }
  BusClaim& claim = *std::get_if<BusClaim>(&claimed);
  blockTerminationSignals();
  setAdapters([&claim] {
    holdTermination();
    claim.displayIsLost();
  });
  followTerminationSignals([] { application().requestTermination(terminationDeclined); });
  claim.followLaterStarts([](const std::string& later_token) {
    application().mainQueueAsync([later_token] { application().activate(later_token); });
  });
  return application().applicationMain(argc, argv, mainStoryboard());
}

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) try {
  qm5::openStandardStreams();
  qm5::ignoreWriteSignals();
  if (const auto reply = qm5::replyToArguments(argc, argv, QM5_VERSION)) {
    std::fputs(reply->text.c_str(), reply->exit_status == 0 ? stdout : stderr);
    return reply->exit_status;
  }
  qm5::endProcess(qm5::run(argc, argv));
} catch (const std::bad_alloc&) {
  qm5::cannotStart("there is not enough memory");
}
