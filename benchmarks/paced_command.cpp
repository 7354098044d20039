// paced_command IMAGE MICROSECONDS: qm5-update and a software QM5 in one process, right behind the
// USB port, which takes that long for each request and as much longer as its own work takes. Ends
// with 0 when the QM5 has accepted the image.
#include <sys/prctl.h>
#include <time.h>

#include <QCoreApplication>
#include <cstdlib>
#include <optional>

#include "app_command/command.h"
#include "app_command/json_report.h"
#include "computer/package/file_package.h"
#include "computer/wakefulness/sleep_inhibitor.h"
#include "simulator/device/faulty_qm5.h"
#include "simulator/direct_bus/direct_bus.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const timespec latency{0, 1000 * std::atol(argv[2])};
  QCoreApplication application(argc, argv);
  // What jobs use is not taken apart.
  auto& qm5 = *new qm5::FaultyQm5;
  auto& bus = *new qm5::DirectBus;
  // The thread sleeps, as it does in the kernel.
  qm5.setObserver([latency](const qm5::RequestRecord&) {
    // By default the kernel lets a thread sleep up to 50 us longer. Set by the thread itself.
    thread_local const int precise = prctl(PR_SET_TIMERSLACK, 1UL);
    (void)precise;
    nanosleep(&latency, nullptr);
  });
  bus.plug(qm5);
  qm5::setUSBRegistry(&bus);
  qm5::setApplicationPackage(new qm5::FilePackage);
  qm5::setWakefulness(new qm5::SleepInhibitor);
  qm5::CommandOptions options;
  options.image = argv[1];
  options.wait = 60;
  (new qm5::Command(options, *new qm5::JsonReport(true)))->start();
  const int status = QCoreApplication::exec();
  std::_Exit(status == 0 && qm5.signatureHolds() ? 0 : 1);
}
