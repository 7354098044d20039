#include "app_shell/progress_window.h"

#include <utility>

#include "app_shell/exit_confirmation.h"
#include "platform/clock.h"
#include "platform/fatal.h"
#include "platform/system_log.h"

namespace qm5 {

void ProgressViewController::updateBegan() {
  pace_ = UpdatePace(processClock().now());
  showPace();
}

void ProgressViewController::progressed(double percent) {
  pace_.progressed(percent, processClock().now());
}

void ProgressViewController::showPace() {
  const double now = processClock().now();
  required(txtElapsed.lock(), "no txtElapsed").setStringValue(pace_.elapsed(now));
  required(txtRemaining.lock(), "no txtRemaining").setStringValue(pace_.remaining(now));
  required(txtPhase.lock(), "no txtPhase").setStringValue(pace_.phase(now));
}

void ProgressViewController::viewWillDisappear() {
  toolkit().stopModal();
}

void ProgressViewController::abortClicked(Button*) {
  log("Abort button clicked");
  showExitConfirmation();
}

void ProgressViewController::showExitConfirmation() {
  is_asking_ = true;
  askBeforeExit(viewWindow, [weak = weak_from_this()] {
    if (const auto controller = weak.lock()) controller->goOn();
  });
}

void ProgressViewController::askBeforeTermination(std::function<void()> declined) {
  waiting_.push_back(std::move(declined));
  if (!is_asking_) showExitConfirmation();
}

void ProgressViewController::goOn() {
  is_asking_ = false;
  for (const auto& declined : std::exchange(waiting_, {})) declined();
}

ProgressWindowController::ProgressWindowController(std::shared_ptr<Window> loaded)
    : BaseWindowController(std::move(loaded)) {
  const auto content = std::make_shared<ProgressViewController>();
  content->viewWindow = window;
  content->txtTitle1 = window->textField("txtTitle1");
  content->txtTitle2 = window->textField("txtTitle2");
  content->progressBar = window->progressIndicator("progressBar");
  content->txtElapsed = window->textField("txtElapsed");
  content->txtRemaining = window->textField("txtRemaining");
  content->txtPhase = window->textField("txtPhase");
  contentViewController = content;

  // The window must not keep its own controller alive.
  const std::weak_ptr<ProgressViewController> weak = content;
  window->setAction("btnAbort", [weak](Button* sender) {
    if (const auto controller = weak.lock()) controller->abortClicked(sender);
  });
  window->setViewWillDisappear([weak] {
    if (const auto controller = weak.lock()) controller->viewWillDisappear();
  });
  constexpr double kInterval = 1;  // second: the finest that the texts tell
  window->setTimer(kInterval, [weak] {
    if (const auto controller = weak.lock()) controller->showPace();
  });
  content->viewDidLoad();
}

}  // namespace qm5
