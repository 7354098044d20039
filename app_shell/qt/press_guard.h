// Keeps keys that were not meant for a window from pressing its buttons.
#pragma once

#include <QObject>
#include <QPointer>
#include <map>
#include <optional>
#include <vector>

class QKeyEvent;
class QWidget;
class QWindow;

namespace qm5 {

/// Filters the events of all windows. Of Return, Enter, Space and mnemonics it drops what the
/// keyboard repeats by itself while the key is held, and a press of a key that has been held since
/// before, in another window. Main thread.
class PressGuard : public QObject {
  Q_OBJECT

 public:
  /// Starts it, once there is an application; nothing happens when it has been started.
  static void start();
  /// Drops all presses of keys and mouse buttons in the first half second of `window`, which came
  /// up by itself: the person was busy with another one. Call it before the window is shown; the
  /// time counts from when it is on the screen.
  static void ignoreFirstPresses(QWidget& window);

 protected:
  bool eventFilter(QObject* receiver, QEvent* event) override;

 private:
  struct FirstPresses {
    QPointer<QWidget> window;
    std::optional<double> end;  // by the process's clock; empty until it is on the screen
  };

  struct Held {
    QPointer<QWindow> window;  // that the key was pressed in
    double last_press;         // by the process's clock, repetitions included
  };

  using QObject::QObject;
  void countFromNow(const QObject& window);
  bool isTooEarly(const QObject& receiver);
  bool isRepetition(QObject& receiver, const QKeyEvent& key);

  std::vector<FirstPresses> first_presses_;
  std::map<int, Held> held_;  // by key
};

}  // namespace qm5
