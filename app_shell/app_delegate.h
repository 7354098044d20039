// What the application answers to the toolkit about its own life.
#pragma once

#include <memory>

#include "app_shell/ports/application.h"

namespace qm5 {

class ViewController;

/// All on the main thread.
class AppDelegate final : public ApplicationDelegate {
 public:
  void applicationDidFinishLaunching() override;
  void applicationWillTerminate() override;
  void applicationIsActive(bool active) override;
  bool applicationSupportsSecureRestorableState() override;
  bool applicationShouldTerminateAfterLastWindowClosed() override;
  int applicationLostDisplay() override;
  bool applicationShouldTerminate(std::function<void()> declined) override;

  /// Empty until the main window has been loaded.
  std::weak_ptr<ViewController> mainController;
};

}  // namespace qm5
