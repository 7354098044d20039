#include "app_shell/qt/status_box.h"

#include <QAccessible>
#include <QEvent>
#include <QHBoxLayout>
#include <QStyle>

namespace qm5 {

namespace {

QStyle::StandardPixmap signFor(Status status) {
  switch (status) {
    case Status::good:
      return QStyle::SP_DialogApplyButton;
    case Status::caution:
      return QStyle::SP_MessageBoxWarning;
    case Status::information:
      break;
  }
  return QStyle::SP_MessageBoxInformation;
}

}  // namespace

StatusBox::StatusBox(QWidget* parent)
    : QFrame(parent), sign_(new QLabel(this)), text_(new SteadyLabel(this)) {
  setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
  auto* layout = new QHBoxLayout(this);
  layout->setSpacing(12);
  layout->addWidget(sign_);
  layout->addWidget(text_, 1);
  text_->setObjectName("txtStatus");
  text_->setTextFormat(Qt::PlainText);
  drawSign();
}

void StatusBox::setStatus(Status status, const QString& text) {
  if (status == status_ && text == text_->text()) return;
  status_ = status;
  drawSign();
  text_->setText(text);
  QAccessibleEvent changed(text_, QAccessible::Alert);
  QAccessible::updateAccessibility(&changed);
}

void StatusBox::changeEvent(QEvent* event) {
  QFrame::changeEvent(event);
  if (event->type() == QEvent::StyleChange || event->type() == QEvent::FontChange) drawSign();
}

// Two lines of text high, so that it grows with the font.
void StatusBox::drawSign() {
  const int size = 2 * fontMetrics().height();
  sign_->setPixmap(style()
                       ->standardIcon(signFor(status_), nullptr, this)
                       .pixmap(QSize(size, size), devicePixelRatioF()));
}

}  // namespace qm5
