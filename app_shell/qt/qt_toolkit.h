// The windowing toolkit on Qt 6 Widgets.
#pragma once

#include <memory>
#include <vector>

#include "app_shell/toolkit.h"

class QEventLoop;
class QSessionManager;

namespace qm5 {

class MainQueue;
class NativeWindow;
class QtWindow;

/// One a process, made on the main thread before any other that uses it.
class QtToolkit : public Toolkit {
 public:
  QtToolkit();
  ~QtToolkit() override;

  int applicationMain(int argc, char** argv, const MainStoryboard& storyboard) override;

  std::shared_ptr<Window> mainWindow() override;
  void runModalForWindow(const std::shared_ptr<Window>& window) override;
  void stopModal() override;
  void terminate() override;
  void requestTermination(std::function<void()> declined) override;
  void activate(const std::string& activation_token) override;
  std::shared_ptr<void> beginActivity(std::string_view reason) override;
  void mainQueueAsync(std::function<void()> step) override;

  /// Knows the storyboard "Main" with its window "ProgressWindow".
  std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                            std::string_view identifier) override;
  std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) override;

  std::optional<std::string> pathForResource(std::string_view name,
                                             std::string_view extension) override;
  FileContents readFile(const std::string& path) override;

 private:
  void lastWindowClosed();
  void sessionEnds(QSessionManager& session);

  std::unique_ptr<MainQueue> main_queue_;
  std::shared_ptr<ApplicationDelegate> delegate_;
  std::shared_ptr<QtWindow> main_window_;
  std::shared_ptr<void> main_controller_;
  std::vector<QEventLoop*> modal_runs_;  // the innermost one last; each on its caller's stack
};

}  // namespace qm5
