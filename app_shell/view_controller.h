// The controller of the main window: turns one press of Next into one update run, and ends
// every run in a dialog.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app_shell/bus_status.h"
#include "app_shell/controllers.h"
#include "device_link/driver.h"
#include "platform/bytes.h"
#include "platform/dispatch_queue.h"

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
  /// Closes the finish dialog, if there is one. Its button ends the application instead.
  void confirmButtonClicked(Button* sender);

 private:
  void runUpdate();
  bool readVersion();
  void report(std::string title, std::string message);
  void reportSuccess();
  void showProgress(double progress);
  void takeProgressWindowDown();

  // Made first: it listens before the Driver has the bus watched.
  const std::shared_ptr<BusStatus> busStatus = BusStatus::follow();
  std::weak_ptr<Button> btnExit;
  std::weak_ptr<Button> btnNext;
  std::shared_ptr<BaseWindowController> progressWindowController;
  std::shared_ptr<Window> customerFinisheDialog;
  std::shared_ptr<void> activity;  ///< held from Next to the outcome: the computer stays awake
  std::optional<Bytes> binData;    ///< the whole image; empty when it could not be loaded
  DispatchQueue queue;
  std::shared_ptr<Driver> USB_Handle;  ///< the same object as global_driver
  /// As last read from the device, four hexadecimal digits. Written by the job before its
  /// first step for the main queue, which orders it before the reads there.
  std::string strVersion;
  /// From the moment the progress window is put up until an outcome takes it down.
  std::atomic<bool> isProgressDisplay = false;
};

}  // namespace qm5
