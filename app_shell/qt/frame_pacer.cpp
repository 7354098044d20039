#include "app_shell/qt/frame_pacer.h"

#include <QEvent>
#include <utility>

namespace qm5 {

namespace {

constexpr int kFrame = 16;  // milliseconds

}  // namespace

FramePacer::FramePacer(QWidget& widget, std::function<void()> draw)
    : widget_(widget), draw_(std::move(draw)) {
  widget.installEventFilter(this);
}

void FramePacer::changed() {
  undrawn_ = true;
  if (!frame_.isActive() || !widget_.isVisible()) drawChange();
}

bool FramePacer::eventFilter(QObject*, QEvent* event) {
  if (event->type() == QEvent::Hide) drawChange();
  return false;
}

void FramePacer::timerEvent(QTimerEvent*) {
  frame_.stop();
  drawChange();
}

void FramePacer::drawChange() {
  if (!std::exchange(undrawn_, false)) return;
  draw_();
  frame_.start(kFrame, this);
}

}  // namespace qm5
