#include "app_shell/app_delegate.h"

namespace qm5 {

void AppDelegate::applicationDidFinishLaunching() {}

void AppDelegate::applicationWillTerminate() {}

bool AppDelegate::applicationSupportsSecureRestorableState() {
  return true;
}

// Closing the main window ends the application.
bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed() {
  return true;
}

}  // namespace qm5
