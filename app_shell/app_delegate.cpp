#include "app_shell/app_delegate.h"

#include <cstdlib>
#include <utility>

#include "app_shell/view_controller.h"

namespace qm5 {

void AppDelegate::applicationDidFinishLaunching() {}

void AppDelegate::applicationWillTerminate() {}

void AppDelegate::applicationIsActive(bool active) {
  if (const auto controller = mainController.lock()) controller->applicationIsActive(active);
}

bool AppDelegate::applicationSupportsSecureRestorableState() {
  return true;
}

// Closing the main window ends the application.
bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed() {
  return true;
}

int AppDelegate::applicationLostDisplay() {
  const auto controller = mainController.lock();
  return controller ? controller->endWithoutDisplay() : EXIT_FAILURE;
}

bool AppDelegate::applicationShouldTerminate(std::function<void()> declined) {
  const auto controller = mainController.lock();
  return !controller || controller->shouldTerminate(std::move(declined));
}

}  // namespace qm5
