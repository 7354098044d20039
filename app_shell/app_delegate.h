// What the application answers to the toolkit about its own life.
#pragma once

#include "app_shell/toolkit.h"

namespace qm5 {

class AppDelegate final : public ApplicationDelegate {
 public:
  void applicationDidFinishLaunching() override;
  void applicationWillTerminate() override;
  bool applicationSupportsSecureRestorableState() override;
  bool applicationShouldTerminateAfterLastWindowClosed() override;
};

}  // namespace qm5
