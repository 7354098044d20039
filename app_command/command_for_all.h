// One call of qm5-update --all: a process for each QM5 that is connected, as the link knows one QM5
// alone. This one has the bus for them all, gathers what they say, and ends when the last has
// ended.
#pragma once

#include <QDeadlineTimer>
#include <QTimer>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "app_command/device_process.h"
#include "app_command/exit_prompt.h"
#include "app_command/options.h"
#include "app_command/report.h"
#include "device_link/connected_ports.h"
#include "main_queue/main_queue.h"

namespace qm5 {

/// Lives until the process ends. Main thread unless a function says otherwise.
class CommandForAll {
 public:
  /// As Command. `bus_claim` is the descriptor of the lock on the bus.
  CommandForAll(CommandOptions options, Report& report, int bus_claim);
  CommandForAll(const CommandForAll&) = delete;
  CommandForAll& operator=(const CommandForAll&) = delete;

  /// Begins once events are served. At its end, the command ends Qt's event loop with the exit
  /// status. Call it once.
  void start();

  /// A signal wants the process to end. While updates run, the person on the terminal is asked once
  /// for all, and `declined` is called when they are to go on; with nobody to ask, the process ends
  /// after them. Any thread.
  void requestEnd(std::function<void()> declined);

  /// Ends all processes at once, reports that, and returns the exit status. This process is about
  /// to end. Any thread.
  int endAtOnce();

 private:
  void wait();
  void deviceArrived();
  void startProcesses();
  void processChanged();
  void handleEndRequest(const std::function<void()>& declined);
  bool isUpdating() const;
  int concludeLocked(const Verdict& verdict);

  const CommandOptions options_;
  Report& report_;
  MainQueue main_queue_;
  QTimer timer_;  // until the processes are started
  QDeadlineTimer end_of_wait_{QDeadlineTimer::Forever};
  ExitPrompt prompt_;

  DeviceProcess::Shared shared_;
  std::mutex mutex_;  // guards what follows; changed by the main thread alone
  std::vector<std::unique_ptr<DeviceProcess>> processes_;
  std::optional<ExitStatus> status_;  // without any process

  const ConnectedPorts ports_;  // made last: its thread uses what stands above
};

}  // namespace qm5
