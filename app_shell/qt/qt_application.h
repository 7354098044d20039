// The application on Qt 6 Widgets.
#pragma once

#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

#include "app_shell/ports/application.h"

class QApplication;
class QEventLoop;
class QSessionManager;
class QWidget;

namespace qm5 {

class MainQueue;
class NativeWindow;
class QtWindow;

/// One per process, made on the main thread before any other thread that uses it.
class QtApplication : public Application {
 public:
  /// `display_lost` is called on the main thread when the display has gone, before the delegate
  /// is asked what is to become of the process.
  explicit QtApplication(std::function<void()> display_lost = [] {});
  ~QtApplication() override;

  int applicationMain(int argc, char** argv, const MainStoryboard& storyboard) override;
  void showNotice(int argc, char** argv, const Alert& alert) override;

  std::shared_ptr<Window> mainWindow() override;
  void runModalForWindow(const std::shared_ptr<Window>& window) override;
  void stopModal() override;
  void terminate() override;
  void requestTermination(std::function<void()> declined) override;
  void activate(const std::string& activation_token) override;
  void mainQueueAsync(std::function<void()> step) override;

  /// Knows the storyboard "Main" with its window "ProgressWindow".
  std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                            std::string_view identifier) override;
  std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) override;

  /// For whoever ends the process because the display has gone: ends it with the delegate's status
  /// once the delegate agrees. Returns at once where no application serves events. Any thread.
  static void endWithoutDisplay();

 private:
  void connectDelegateTo(QApplication& application);
  void lastWindowClosed();
  void sessionEnds(QSessionManager& session);
  QWidget* mainWidget() const;

  const std::function<void()> display_lost_;
  const pid_t process_ = ::getpid();
  std::unique_ptr<MainQueue> main_queue_;
  std::shared_ptr<ApplicationDelegate> delegate_;
  std::shared_ptr<QtWindow> main_window_;
  std::shared_ptr<void> main_controller_;
  std::vector<QEventLoop*> modal_runs_;  // the innermost one last; each on its caller's stack
};

}  // namespace qm5
