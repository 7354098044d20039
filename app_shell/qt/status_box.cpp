#include "app_shell/qt/status_box.h"

#include <QAccessible>
#include <QEvent>
#include <QHBoxLayout>
#include <QStyle>

namespace qm5 {

namespace {

struct Sign {
  QStyle::StandardPixmap picture;
  const char* name;
};

Sign signFor(Status status) {
  switch (status) {
    case Status::good:
      return {QStyle::SP_DialogApplyButton, "Good"};
    case Status::caution:
      return {QStyle::SP_MessageBoxWarning, "Caution"};
    case Status::information:
      break;
  }
  return {QStyle::SP_MessageBoxInformation, "Information"};
}

}  // namespace

StatusBox::StatusBox(QWidget* parent)
    : QFrame(parent), sign_(new QLabel(this)), text_(new SteadyLabel(this)) {
  setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
  auto* layout = new QHBoxLayout(this);
  layout->setSpacing(12);
  layout->addWidget(sign_);
  sign_->setAlignment(Qt::AlignCenter);
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

// Two lines of text high, so that it grows with the font. Its room is the same for all signs,
// those that the desktop has smaller too: the text does not move, and the window does not grow.
void StatusBox::drawSign() {
  const int line = fontMetrics().height();
  const QSize size(2 * line, 2 * line);
  const auto [picture, name] = signFor(status_);
  sign_->setFixedSize(size);
  sign_->setPixmap(style()->standardIcon(picture, nullptr, this).pixmap(size, devicePixelRatioF()));
  sign_->setAccessibleName(name);
}

}  // namespace qm5
