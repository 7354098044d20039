#include "app_shell/qt/steady_label.h"

namespace qm5 {

SteadyLabel::SteadyLabel(QWidget* parent) : QLabel(parent) {}

void SteadyLabel::setWidestText(const QString& text) {
  widest_text_ = text;
  updateGeometry();
}

QSize SteadyLabel::sizeHint() const {
  return QLabel::sizeHint().expandedTo(fontMetrics().size(0, widest_text_));
}

QSize SteadyLabel::minimumSizeHint() const {
  return sizeHint();
}

}  // namespace qm5
