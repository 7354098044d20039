#include "app_shell/qt/scrolling_part.h"

#include <QEvent>
#include <QLayout>

namespace qm5 {

ScrollingPart::ScrollingPart(QLayout& content) {
  setFrameShape(QFrame::NoFrame);
  setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  setWidgetResizable(true);
  auto* widget = new QWidget;
  widget->setLayout(&content);
  setWidget(widget);
  // It looks like the window that it is a part of.
  widget->setAutoFillBackground(false);
  viewport()->setAutoFillBackground(false);
}

QSize ScrollingPart::sizeHint() const {
  return widget()->layout()->totalSizeHint();
}

int ScrollingPart::heightForWidth(int width) const {
  return widget()->layout()->totalHeightForWidth(width);
}

// The content has changed its size: the window is to follow.
bool ScrollingPart::viewportEvent(QEvent* event) {
  if (event->type() == QEvent::LayoutRequest) updateGeometry();
  return QScrollArea::viewportEvent(event);
}

}  // namespace qm5
