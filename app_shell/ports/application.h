// The application as the toolkit runs it: its start and end, its windows, modal runs, and the
// main queue.
// Production: app_shell/qt/. Tests: tests/support/scripted_application.h.
//
// Unless a function says otherwise it is called on the main thread only. "Any thread" means
// that the adapter hands over to the main thread by itself and returns at once, and that calls
// from one thread keep their order.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "app_shell/ports/window.h"
#include "platform/port.h"

namespace qm5 {

/// What the toolkit asks and tells the application's delegate. All on the main thread.
class ApplicationDelegate : public PortObject {
 public:
  virtual ~ApplicationDelegate() = default;

  /// The main window is on the screen and events are about to be served.
  virtual void applicationDidFinishLaunching() = 0;
  /// The process is about to end.
  virtual void applicationWillTerminate() = 0;
  /// Called at each change: whether one of the application's windows has the keyboard, or none.
  virtual void applicationIsActive(bool active) = 0;
  /// True: a toolkit that keeps the state of windows from one start to the next may do so only in
  /// a form whose types it checks when it reads that back. One that keeps none never asks.
  virtual bool applicationSupportsSecureRestorableState() = 0;
  /// True: closing the main window ends the application.
  virtual bool applicationShouldTerminateAfterLastWindowClosed() = 0;
  /// The session's end or a signal wants the application to end. True: it may, now. False:
  /// the person is being asked; `declined` is called when that has not ended it.
  virtual bool applicationShouldTerminate(std::function<void()> declined) = 0;
  /// The display has gone and no event will be served any more: returns when what must not be cut
  /// off has ended, with the status that the process is to end with. Called at most once, in place
  /// of everything else, on the main thread.
  virtual int applicationLostDisplay() = 0;
};

/// The application's classes that the main layout is made of.
struct MainStoryboard {
  std::function<std::shared_ptr<ApplicationDelegate>()> makeDelegate;
  /// Makes the controller of the main window, which it is handed, and returns what keeps
  /// the controller alive.
  std::function<std::shared_ptr<void>(const std::shared_ptr<Window>& main_window)>
      makeMainController;
};

class Application : public PortObject {
 public:
  virtual ~Application() = default;

  /// Starts the toolkit, loads the main storyboard, shows the main window and serves its
  /// events until they end, which terminates the application. Returns the exit status where
  /// terminate() returns, which it does in tests alone.
  virtual int applicationMain(int argc, char** argv, const MainStoryboard& storyboard) = 0;
  /// Stands in for applicationMain(): shows `alert` as all that the program shows, and returns
  /// once it has been answered.
  virtual void showNotice(int argc, char** argv, const Alert& alert) = 0;

  /// The application's main window; nullptr while it has none.
  virtual std::shared_ptr<Window> mainWindow() = 0;
  /// A new window made of the layout of that name, not on the screen yet; nullptr when there
  /// is no such layout.
  virtual std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                                    std::string_view identifier) = 0;
  /// A new, empty window that is not on the screen yet. `content` is the frame of its content
  /// view. Never nullptr.
  virtual std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) = 0;

  /// Serves events, and the main queue, for this window only, until stopModal(). The caller
  /// keeps the window, which has been shown, for as long as that takes.
  virtual void runModalForWindow(const std::shared_ptr<Window>& window) = 0;
  /// Ends the innermost modal run; nothing happens when there is none. Any thread.
  virtual void stopModal() = 0;
  /// Submits a step to the main queue and returns at once. Steps run on the main thread, one
  /// by one in the order of submission, in modal runs too. Any thread.
  virtual void mainQueueAsync(std::function<void()> step) = 0;

  /// Ends the process at once with status 0, whatever other threads are doing. Returns in
  /// tests alone.
  virtual void terminate() = 0;
  /// Terminates as soon as the delegate or the person agrees; `declined` is called on the main
  /// thread when the application is to go on instead. Any thread.
  virtual void requestTermination(std::function<void()> declined) = 0;
  /// Brings the application's windows to the front. `activation_token` is what the desktop gave to
  /// the start or the press that this answers; it may be empty. Where the desktop brings nothing to
  /// the front without one, the window that the person can use asks for attention instead.
  virtual void activate(const std::string& activation_token) = 0;
};

/// The application of this process; fatal when none has been set. Any thread.
Application& application();
/// Sets it, before the first controller is made. `application` stays the caller's.
void setApplication(Application* application);

}  // namespace qm5
