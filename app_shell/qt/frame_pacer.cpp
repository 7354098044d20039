#include "app_shell/qt/frame_pacer.h"

#include <QEvent>
#include <utility>

namespace qm5 {

namespace {

// In milliseconds: two frames of a usual screen. Nobody can read a text that changes more often,
// and each drawing takes time from the update where cores are few.
constexpr int kRest = 33;

}  // namespace

FramePacer::FramePacer(QWidget& widget, std::function<void()> draw)
    : widget_(widget), draw_(std::move(draw)) {
  widget.installEventFilter(this);
}

void FramePacer::changed() {
  undrawn_ = true;
  if (!rest_.isActive() || !widget_.isVisible()) drawChange();
}

bool FramePacer::eventFilter(QObject*, QEvent* event) {
  if (event->type() == QEvent::Hide) drawChange();
  return false;
}

void FramePacer::timerEvent(QTimerEvent*) {
  rest_.stop();
  drawChange();
}

void FramePacer::drawChange() {
  if (!std::exchange(undrawn_, false)) return;
  draw_();
  rest_.start(kRest, this);
}

}  // namespace qm5
