// Keeps what changes fast from being drawn more often than can be seen.
#pragma once

#include <QBasicTimer>
#include <QWidget>
#include <functional>

namespace qm5 {

/// Calls `draw`, which shows the last change in `widget`, at most every other frame: at once after
/// a rest, and otherwise when it is over, however many changes it brought. A hidden widget is
/// never behind. Main thread.
class FramePacer : public QObject {
 public:
  FramePacer(QWidget& widget, std::function<void()> draw);

  /// Something has changed.
  void changed();

 protected:
  bool eventFilter(QObject* widget, QEvent* event) override;
  void timerEvent(QTimerEvent* event) override;

 private:
  void drawChange();

  QWidget& widget_;
  std::function<void()> draw_;
  QBasicTimer rest_;      // since the last drawing
  bool undrawn_ = false;  // changed during it
};

}  // namespace qm5
