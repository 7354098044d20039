// The entry point: puts the adapters behind the ports and hands over to the toolkit.

#include <csignal>
#include <cstdlib>

#include "app_shell/main_storyboard.h"
#include "app_shell/qt/qt_toolkit.h"
#include "app_shell/toolkit.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "platform/termination_signals.h"

int main(int argc, char** argv) {
  // Whoever reads the lines may leave early; an update goes on without him.
  std::signal(SIGPIPE, SIG_IGN);
  qm5::blockTerminationSignals();
  // Never destroyed: threads use both until the process ends.
  qm5::setUSBRegistry(new qm5::LibusbRegistry);
  qm5::setToolkit(new qm5::QtToolkit);
  qm5::followTerminationSignals(
      [] { qm5::toolkit().requestTermination(qm5::terminationDeclined); });
  std::exit(qm5::toolkit().applicationMain(argc, argv, qm5::mainStoryboard()));
}
