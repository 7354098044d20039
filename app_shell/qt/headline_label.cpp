#include "app_shell/qt/headline_label.h"

#include <QApplication>
#include <QEvent>

namespace qm5 {

bool HeadlineLabel::event(QEvent* event) {
  if (event->type() == QEvent::Polish || event->type() == QEvent::ApplicationFontChange) {
    QFont font = QApplication::font(this);
    font.setPointSizeF(QFontInfo(font).pointSizeF() * scale_);
    font.setWeight(QFont::DemiBold);
    setFont(font);
  }
  return QLabel::event(event);
}

}  // namespace qm5
