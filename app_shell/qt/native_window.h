// A window as the desktop sees it, and who may take it off the screen.
#pragma once

#include <QDialog>
#include <QTimer>
#include <functional>

namespace qm5 {

class NativeWindow : public QDialog {
 public:
  enum class Closing {
    byPerson,       ///< it has a close control, and closing the last one ends the program
    byProgramOnly,  ///< no close control; the window manager's request is ignored
  };

  explicit NativeWindow(Closing closing);
  ~NativeWindow() override;

  /// Has `callback` called just before the window leaves the screen, whatever takes it.
  void setWillDisappear(std::function<void()> callback);

  /// Has `tick` called every `interval` seconds while the window is on the screen.
  void setTimer(double interval, std::function<void()> tick);

  /// Has `callback` called once, when the window's first picture is on the screen.
  void setPainted(std::function<void()> callback);

  // Qt calls it for every way on and off the screen. On the way off, alerts go first.
  void setVisible(bool visible) override;
  /// Escape takes no window of this program away.
  void reject() override {}

 protected:
  void closeEvent(QCloseEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  Closing closing_;
  std::function<void()> will_disappear_;
  QTimer timer_;
  bool awaits_paint_ = false;
  QTimer after_paint_;
};

}  // namespace qm5
