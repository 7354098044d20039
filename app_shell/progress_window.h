// The progress window: what it shows while an update runs, and its abort button.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "app_shell/controllers.h"
#include "app_shell/update_pace.h"

namespace qm5 {

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

  /// An update begins now: from here on its time is counted.
  void updateBegan();
  /// Notes a progress value, a percentage, for what is told next.
  void progressed(double percent);

  /// Whatever takes the view off the screen ends the window's modal run.
  void viewWillDisappear() override;
  /// Asks whether to quit. Does not cancel the update: that goes on unless the answer is "Quit".
  void abortClicked(Button* sender);
  void showExitConfirmation();
  /// Asks the same for somebody else, unless that question is open already; `declined` is
  /// called when it has not ended the application.
  void askBeforeTermination(std::function<void()> declined);
  /// Tells for how long the update has been running and what is going on; called every second
  /// while the window is up. Fatal without the fields for that.
  void showPace();

 private:
  void goOn();

  UpdatePace pace_{0};
  bool is_asking_ = false;
  std::vector<std::function<void()>> waiting_;  // for the answer
};

class ProgressWindowController final : public BaseWindowController {
 public:
  static constexpr std::string_view windowNibName = "ProgressWindow";

  /// Makes the controller of the content and connects both to the window's controls.
  explicit ProgressWindowController(std::shared_ptr<Window> loaded);
};

}  // namespace qm5
