// One call of qm5-update: waits for a QM5, runs the update, has it confirmed. Decides nothing about
// the update itself: update_run/ does.
#pragma once

#include <QTimer>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "app_command/exit_prompt.h"
#include "app_command/options.h"
#include "app_command/report.h"
#include "app_command/verdict.h"
#include "device_link/attached_devices.h"
#include "device_link/device_presence.h"
#include "main_queue/main_queue.h"
#include "platform/bytes.h"
#include "platform/dispatch_queue.h"
#include "update_run/power_cycle_check.h"
#include "update_run/update_pace.h"

namespace qm5 {

/// Lives until the process ends. Main thread unless a function says otherwise.
class Command {
 public:
  /// Makes the process's Driver, which starts to follow the QM5. Needs the adapters of USB, package
  /// and wakefulness, and Qt's application object. `report` is the caller's.
  Command(CommandOptions options, Report& report);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  /// Begins once events are served. At its end, the command ends Qt's event loop with the exit
  /// status. Call it once.
  void start();

  /// A signal wants the process to end. While an update runs, the person on the terminal is asked,
  /// and `declined` is called when it is to go on; with nobody to ask, the process ends after it.
  /// Any thread.
  void requestEnd(std::function<void()> declined);

  /// Reports that the person has ended the command, unless it has ended already, and returns the
  /// exit status. The process is about to end. Any thread.
  int endAtOnce();

 private:
  enum class Stage { waiting, running, confirming, over };

  /// Has `late` called after that time, which may be infinite, in place of what was to be so
  /// before.
  void after(double seconds, std::function<void()> late);
  void busChanged();
  void noteUnusable();
  void list();
  void awaitVersion(const std::string& place);
  void begin();
  void loadImage();
  void run();
  void progressed(std::size_t step, double percent);
  void noteOpening(const DeviceState& bus);
  void showProgress();
  void runEnded(const RunRecord& record);
  void confirm(const Verdict& update, const DeviceState& bus);
  void handleEndRequest(const std::function<void()>& declined);
  void end(const Verdict& verdict);
  Verdict ended() const;
  int conclude(const Verdict& verdict);

  const CommandOptions options_;
  const std::string target_version_;
  Report& report_;
  MainQueue main_queue_;
  // Made first: they listen before the Driver has the bus watched.
  const DevicePresence presence_;
  AttachedDevices attached_;
  const std::shared_ptr<PowerCycleCheck> power_cycle_;
  DispatchQueue jobs_;
  QTimer tick_;  // while an update runs
  QTimer timer_;
  std::function<void()> late_;  // what is due when it runs out
  QTimer permission_timer_;     // since the bus changed while a QM5 was awaited
  ExitPrompt prompt_;

  std::atomic<Stage> stage_ = Stage::waiting;
  std::optional<Bytes> image_;
  std::string image_error_;  // the line that says why there is none
  std::string version_;      // written by the job before its first step for the main queue
  std::optional<UpdatePace> pace_;
  std::size_t steps_ = 0;          // reported by the update so far; the job's alone
  double began_ = 0;               // the run, in seconds of the clock
  std::optional<double> percent_;  // once the QM5 has opened the update
  std::optional<DeviceOfUpdate> device_;
  std::string_view noted_warning_;
  std::string noted_bus_;  // why a QM5 that is there is not used
  bool is_end_requested_ = false;
  bool may_sleep_ = false;          // the system refuses to stay awake
  std::shared_ptr<void> activity_;  // held during a run: the computer stays awake

  std::mutex mutex_;  // guards what follows
  Subject subject_;
  std::optional<ExitStatus> status_;  // once the outcome has been reported
};

}  // namespace qm5
