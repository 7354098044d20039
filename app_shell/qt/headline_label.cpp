#include "app_shell/qt/headline_label.h"

#include <QEvent>

namespace qm5 {

HeadlineLabel::HeadlineLabel(QWidget* parent) : TextLabel(parent) {
  parent->installEventFilter(this);
}

void HeadlineLabel::setScale(double scale) {
  scale_ = scale;
  enlarge();
}

// The parent's change does not reach a child whose size is its own.
bool HeadlineLabel::eventFilter(QObject*, QEvent* event) {
  if (event->type() == QEvent::FontChange) enlarge();
  return false;
}

void HeadlineLabel::enlarge() {
  QFont font = parentWidget()->font();
  font.setPointSizeF(QFontInfo(font).pointSizeF() * scale_);
  if (scale_ > 1) font.setWeight(QFont::DemiBold);
  setFont(font);
}

}  // namespace qm5
