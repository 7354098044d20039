#include "app_shell/main_storyboard.h"

#include "app_shell/app_delegate.h"
#include "app_shell/view_controller.h"

namespace qm5 {

MainStoryboard mainStoryboard() {
  return {
      .makeDelegate = [] { return std::make_shared<AppDelegate>(); },
      .makeMainController =
          [](const std::shared_ptr<Window>& main_window) {
            auto controller = std::make_shared<ViewController>();
            controller->connectOutlets(main_window);
            controller->viewDidLoad();
            return controller;
          },
  };
}

}  // namespace qm5
