#include "app_shell/qt/status_box.h"

#include <QAccessible>
#include <QEvent>
#include <QHBoxLayout>
#include <QPainter>

namespace qm5 {

namespace {

constexpr QColor kBlue(0x2A, 0x7A, 0xD1);
constexpr QColor kGreen(0x2B, 0x8A, 0x3E);
constexpr QColor kAmber(0xF2, 0xA9, 0x1E);
constexpr QColor kDark(0x33, 0x26, 0x00);

QPen stroke(QColor colour, double width) {
  return {colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin};
}

// On a square of 24 by 24. Drawn here, as looking through the desktop's icon theme for a sign was a
// fifth of all that the main thread did for a start.
void draw(Status status, QPainter& painter) {
  if (status == Status::caution) {
    painter.setPen(stroke(kAmber, 3));
    painter.setBrush(kAmber);
    painter.drawPolygon(QPolygonF({{12, 4}, {21.5, 20}, {2.5, 20}}));
    painter.setPen(stroke(kDark, 2.4));
    painter.drawLine(QPointF(12, 9), QPointF(12, 14));
    painter.drawPoint(QPointF(12, 18));
    return;
  }
  painter.setPen(Qt::NoPen);
  painter.setBrush(status == Status::good ? kGreen : kBlue);
  painter.drawEllipse(QPointF(12, 12), 11, 11);
  painter.setPen(stroke(Qt::white, 2.4));
  painter.setBrush(Qt::NoBrush);
  if (status == Status::good) {
    painter.drawPolyline(QPolygonF({{7, 12.5}, {10.5, 16}, {17, 8.5}}));
  } else {
    painter.drawPoint(QPointF(12, 7));
    painter.drawLine(QPointF(12, 11), QPointF(12, 17));
  }
}

const char* nameOf(Status status) {
  switch (status) {
    case Status::good:
      return "Good";
    case Status::caution:
      return "Caution";
    case Status::information:
      break;
  }
  return "Information";
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
  if (event->type() == QEvent::FontChange) drawSign();
}

// Two lines of text high, so that it grows with the font.
void StatusBox::drawSign() {
  const int size = 2 * fontMetrics().height();
  QPixmap picture((QSizeF(size, size) * devicePixelRatioF()).toSize());
  picture.setDevicePixelRatio(devicePixelRatioF());
  picture.fill(Qt::transparent);
  QPainter painter(&picture);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.scale(size / 24.0, size / 24.0);
  draw(status_, painter);
  painter.end();
  sign_->setFixedSize(size, size);
  sign_->setPixmap(picture);
  sign_->setAccessibleName(nameOf(status_));
}

}  // namespace qm5
