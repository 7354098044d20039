// A window as the desktop sees it, and who may take it off the screen.
#pragma once

#include <QTimer>
#include <functional>

#include "app_shell/qt/fitting_dialog.h"

namespace qm5 {

class NativeWindow : public FittingDialog {
  Q_OBJECT

 public:
  enum class Closing {
    byPerson,       ///< it has a close control, and closing the last one ends the program
    byProgramOnly,  ///< no close control; what uses one all the same is told to the callback
  };

  /// `parent` is the window that it stands on, or nullptr.
  NativeWindow(Closing closing, QWidget* parent);
  ~NativeWindow() override;

  /// Has `callback` called when the person asks to close a window that only the program closes.
  /// Without one, the window asks for attention to its default button.
  void setCloseRequested(std::function<void()> callback);
  /// Has `callback` called just before the window leaves the screen, whatever takes it.
  void setWillDisappear(std::function<void()> callback);

  /// Has `tick` called every `interval` seconds while the window is on the screen.
  void setTimer(double interval, std::function<void()> tick);

  /// Has `callback` called once, when the window's first picture is on the screen.
  void setPainted(std::function<void()> callback);

  /// The window itself has the focus when it comes up: keys press nothing until the person has
  /// moved to a button.
  void setFocusOnNothing();

  /// Has the window block all others of the program from now on; one that leaves the keyboard to
  /// another program, once the person comes back.
  void makeModal();

  /// Restores it when it is minimised.
  void restore();
  /// Restores it, brings it to the front and asks for the keyboard. Nothing happens while it leaves
  /// the keyboard to another program.
  void bringToFront();

  // Qt calls it for every way on and off the screen. On the way off, alerts go first.
  void setVisible(bool visible) override;
  /// Escape takes no window of this program away.
  void reject() override {}

 protected:
  void closeEvent(QCloseEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  void closeAttached();
  void askForAttention();

  Closing closing_;
  std::function<void()> close_requested_;
  std::function<void()> will_disappear_;
  QTimer timer_;
  bool focus_on_nothing_ = false;
  bool awaits_paint_ = false;
  QTimer after_paint_;
};

}  // namespace qm5
