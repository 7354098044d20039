#include "app_shell/main_storyboard.h"

#include "app_shell/app_delegate.h"
#include "app_shell/view_controller.h"

namespace qm5 {

MainStoryboard mainStoryboard() {
  const auto delegate = std::make_shared<AppDelegate>();
  return {
      .makeDelegate = [delegate]() -> std::shared_ptr<ApplicationDelegate> { return delegate; },
      .makeMainController =
          [delegate](const std::shared_ptr<Window>& main_window) {
            auto controller = std::make_shared<ViewController>();
            controller->connectOutlets(main_window);
            controller->viewDidLoad();
            delegate->mainController = controller;
            return controller;
          },
  };
}

}  // namespace qm5
