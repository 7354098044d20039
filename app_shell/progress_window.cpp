#include "app_shell/progress_window.h"

#include <utility>

#include "app_shell/exit_confirmation.h"
#include "platform/system_log.h"

namespace qm5 {

void ProgressViewController::viewWillDisappear() {
  toolkit().stopModal();
}

void ProgressViewController::abortClicked(Button*) {
  log("Abort button clicked");
  showExitConfirmation();
}

void ProgressViewController::showExitConfirmation() {
  askBeforeExit(viewWindow);
}

ProgressWindowController::ProgressWindowController(std::shared_ptr<Window> loaded)
    : BaseWindowController(std::move(loaded)) {
  const auto content = std::make_shared<ProgressViewController>();
  content->viewWindow = window;
  content->txtTitle1 = window->textField("txtTitle1");
  content->txtTitle2 = window->textField("txtTitle2");
  content->progressBar = window->progressIndicator("progressBar");
  contentViewController = content;

  // The window must not keep its own controller alive.
  const std::weak_ptr<ProgressViewController> weak = content;
  window->setAction("btnAbort", [weak](Button* sender) {
    if (const auto controller = weak.lock()) controller->abortClicked(sender);
  });
  window->setViewWillDisappear([weak] {
    if (const auto controller = weak.lock()) controller->viewWillDisappear();
  });
  content->viewDidLoad();
}

}  // namespace qm5
