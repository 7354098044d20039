// The controller of the main window: turns one press of Next into one update run, and ends
// every run in a dialog.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "app_shell/controllers.h"
#include "app_shell/device_status_presenter.h"
#include "app_shell/progress_window.h"
#include "app_shell/run_report.h"
#include "device_link/driver.h"
#include "platform/bytes.h"
#include "platform/dispatch_queue.h"
#include "update_run/power_cycle_check.h"
#include "update_run/update_run.h"

namespace qm5 {

/// Held by a std::shared_ptr: an update job keeps its controller alive.
/// All on the main thread unless a function says otherwise.
class ViewController final : public BaseViewController,
                             public std::enable_shared_from_this<ViewController> {
 public:
  /// Makes the process's Driver when there is none yet, which starts to follow the QM5.
  ViewController();

  /// Connects the outlets and actions to the controls of the main window.
  void connectOutlets(const std::shared_ptr<Window>& main_window);
  /// Reads the packaged image into memory and loads the progress window.
  void viewDidLoad() override;

  /// Starts an update job and shows its progress; returns when an outcome has ended that.
  /// Fatal without both buttons.
  void btnNextClick(Button* sender);
  void btnExitClick(Button* sender);

  /// Shows how far the update is, while the progress window is up. The title is ignored.
  /// `progress` is a percentage, 0.0 to 100.0. Any thread.
  void callbackUpdateProgress(std::string_view title, double progress);

  /// Puts the progress window up, in the middle of the main window, and runs it modally.
  void showProgressDialog();
  /// Takes the progress window down, if it is up, and shows an error; its "OK" enables the
  /// buttons again. Any thread.
  void dialogErrorStop(const std::string& title, const std::string& message);
  /// Shows that the update succeeded, modally, until the application ends. Fatal without a
  /// main window.
  void showCustomDialog();
  void showExitConfirmation();
  /// Whether a wish from outside may end the application now. While an update runs it may
  /// not: the progress window asks, and `declined` is called when that has not ended it.
  bool shouldTerminate(std::function<void()> declined);
  /// Whether one of the application's windows has the keyboard. While none has, the end of an
  /// update is shown as a notification of the desktop too, which goes once one has.
  void applicationIsActive(bool active);
  /// The display has gone: waits until the update that runs has ended, writes how as a line on the
  /// console and in the system log, and returns the process's status: EXIT_SUCCESS when the QM5
  /// is up to date. The same for an update whose end is shown and has not been answered.
  /// EXIT_FAILURE at once otherwise.
  int endWithoutDisplay();
  /// Closes the finish dialog, if there is one. Its button ends the application instead.
  void confirmButtonClicked(Button* sender);

 private:
  void runUpdateJob();
  void preventSleep();
  void finishRun(RunRecord record);
  void report(Outcome outcome);
  void reportSuccess();
  void notifyOfEnd(Outcome outcome);
  void showProgress(const ProgressStep& step);
  void showPackagedVersion();
  void takeProgressWindowDown();
  void checkAfterPowerCycle();

  // Made first: they listen before the Driver has the bus watched.
  const std::shared_ptr<DeviceStatusPresenter> deviceStatus = DeviceStatusPresenter::follow();
  const std::shared_ptr<PowerCycleCheck> powerCycleCheck;
  const std::shared_ptr<RunReport> runReport = std::make_shared<RunReport>();
  std::weak_ptr<Button> btnExit;
  std::weak_ptr<Button> btnNext;
  std::weak_ptr<TextField> txtPackagedVersion;
  std::shared_ptr<BaseWindowController> progressWindowController;
  std::shared_ptr<Window> customerFinisheDialog;
  std::shared_ptr<void> activity;      ///< held from Next to the outcome: the computer stays awake
  std::shared_ptr<void> notification;  ///< of an end that nobody has seen yet
  std::atomic<bool> isActive = true;   ///< one of the windows has the keyboard
  std::size_t runs = 0;                ///< that were started
  std::optional<Bytes> binData;        ///< the whole image; empty when it could not be loaded
  DispatchQueue queue;
  std::shared_ptr<Driver> USB_Handle;  ///< the same object as global_driver
  /// As last read from the device, four hexadecimal digits. Written by the job before its
  /// first step for the main queue, which orders it before the reads there.
  std::string strVersion;
  /// From the moment the progress window is put up until an outcome takes it down.
  std::atomic<bool> isProgressDisplay = false;
  bool isRunUnanswered = false;  ///< from Next until the person has answered the alert of its end
  std::size_t stepsOfRun = 0;    ///< reported by the update so far; the job's alone

  std::mutex mutex;  // guards what follows
  std::condition_variable runHasEnded;
  std::optional<Outcome> endOfRun;  ///< empty from Next until the job has ended
};

}  // namespace qm5
