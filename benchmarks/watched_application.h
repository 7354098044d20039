// The production application and package, with an image of any size, that presses Next by itself
// and says when the update begins and ends.
#pragma once

#include <QApplication>
#include <QPushButton>
#include <QTimer>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "app_shell/main_storyboard.h"
#include "app_shell/qt/qt_application.h"
#include "benchmarks/unsigned_image.h"
#include "computer/package/file_package.h"
#include "computer/wakefulness/sleep_inhibitor.h"

namespace qm5 {

inline QWidget* findWidget(const QString& name) {
  for (QWidget* widget : QApplication::allWidgets())
    if (widget->objectName() == name) return widget;
  std::abort();
}

class WatchedApplication : public QtApplication, public FilePackage {
 public:
  explicit WatchedApplication(std::size_t blocks) : blocks_(blocks) {}

  /// Runs the program; it ends when updateEnded() does.
  int run(int argc, char** argv) {
    setApplication(this);
    setApplicationPackage(this);
    setWakefulness(new SleepInhibitor);
    MainStoryboard storyboard = mainStoryboard();
    storyboard.makeMainController = [make = storyboard.makeMainController](const auto& window) {
      auto* const presses = new QTimer;
      QObject::connect(presses, &QTimer::timeout, [presses] {
        auto* const next = qobject_cast<QPushButton*>(findWidget("btnNext"));
        if (!next->isEnabled()) return;
        presses->stop();
        presses->deleteLater();
        next->click();
      });
      presses->start(300);
      return make(window);
    };
    return applicationMain(argc, argv, storyboard);
  }

  FileContents readFile(const std::string&) override { return unsignedImage(blocks_); }
  void mainQueueAsync(std::function<void()> step) override {
    if (!std::exchange(started_, true)) QtApplication::mainQueueAsync([this] { updateBegan(); });
    QtApplication::mainQueueAsync(std::move(step));
  }
  std::shared_ptr<Window> makeWindow(Rect, WindowStyle) override {
    updateEnded();
    std::_Exit(0);
  }

 protected:
  /// Both on the main thread: before the job's first step, and in place of the finish dialog.
  virtual void updateBegan() = 0;
  virtual void updateEnded() = 0;

 private:
  const std::size_t blocks_;
  bool started_ = false;  // used by the job alone
};

}  // namespace qm5
