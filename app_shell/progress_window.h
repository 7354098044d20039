// The progress window: what it shows while an update runs, and its abort button.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app_shell/controllers.h"
#include "app_shell/device_status_presenter.h"
#include "update_run/update_pace.h"

namespace qm5 {

/// A step of an update as the job reports it.
struct ProgressStep {
  std::size_t number;  ///< among the steps of its update, from 1
  double percent;      ///< 0.0 to 100.0
};

/// All on the main thread.
class ProgressViewController final : public BaseViewController,
                                     public std::enable_shared_from_this<ProgressViewController> {
 public:
  // Outlets; empty when the layout has no such control.
  std::weak_ptr<TextField> txtTitle1;  ///< fixed by the layout
  std::weak_ptr<TextField> txtTitle2;
  std::weak_ptr<ProgressIndicator> progressBar;
  std::weak_ptr<TextField> txtElapsed;
  std::weak_ptr<TextField> txtRemaining;
  std::weak_ptr<TextField> txtPhase;
  std::weak_ptr<StatusIndicator> deviceStatus;
  std::weak_ptr<StatusIndicator> sleepStatus;

  explicit ProgressViewController(std::shared_ptr<DeviceStatusPresenter> bus);

  /// An update of so many chunks begins now: from here on its time is counted.
  void updateBegan(std::size_t chunks);
  /// Notes a step for the texts, which change at once where they would not be true any more.
  void progressed(const ProgressStep& step);
  /// The computer may go to sleep during this update.
  void sleepIsNotPrevented();
  /// The bus has changed.
  void busChanged();

  /// Whatever takes the view off the screen ends the window's modal run.
  void viewWillDisappear() override;
  /// Asks whether to quit. Does not cancel the update: that goes on unless the answer is "Quit".
  void abortClicked(Button* sender);
  void showExitConfirmation();
  /// The person used a close control that the desktop drew: asks the same, unless that question
  /// is open already.
  void closeRequested();
  /// Asks the same for somebody else, unless that question is open already; `declined` is
  /// called when it has not ended the application.
  void askBeforeTermination(std::function<void()> declined);
  /// Shows the texts of UpdatePace; called every second while the window is up. Fatal without
  /// the controls for that.
  void showPace();

 private:
  void ask(bool unasked);
  void goOn();

  const std::shared_ptr<DeviceStatusPresenter> bus_;
  bool is_up_ = false;
  UpdatePace pace_{0, 0};
  DeviceOfUpdate device_{0};
  std::string_view phase_;  // as shown
  bool is_asking_ = false;
  std::vector<std::function<void()>> waiting_;  // for the answer
};

class ProgressWindowController final : public BaseWindowController {
 public:
  static constexpr std::string_view windowNibName = "ProgressWindow";

  /// Makes the controller of the content and connects both to the window's controls.
  /// It tells what becomes of the QM5 by `bus`, and is told of each change there.
  ProgressWindowController(std::shared_ptr<Window> loaded,
                           const std::shared_ptr<DeviceStatusPresenter>& bus);
};

}  // namespace qm5
