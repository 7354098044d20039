#include "app_shell/qt/status_sign.h"

#include <QEvent>
#include <QPainter>
#include <QPen>
#include <algorithm>
#include <cmath>

#include "app_shell/qt/accessible_role.h"

namespace qm5 {

namespace {

constexpr QColor kBlue(0x2A, 0x7A, 0xD1);
constexpr QColor kGreen(0x2B, 0x8A, 0x3E);
constexpr QColor kAmber(0xF2, 0xA9, 0x1E);
constexpr QColor kDark(0x33, 0x26, 0x00);

// Each sign is drawn on a square of that size.
constexpr double kGrid = 24;

QPen stroke(QColor colour, double width) {
  return {colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin};
}

void drawCaution(QPainter& painter) {
  painter.setPen(stroke(kAmber, 3));
  painter.setBrush(kAmber);
  painter.drawPolygon(QPolygonF({{12, 3.5}, {22, 20.5}, {2, 20.5}}));
  painter.setPen(stroke(kDark, 2.4));
  painter.drawLine(QPointF(12, 9), QPointF(12, 14));
  painter.drawPoint(QPointF(12, 18));
}

void drawDisc(QPainter& painter, QColor colour) {
  painter.setPen(Qt::NoPen);
  painter.setBrush(colour);
  painter.drawEllipse(QPointF(12, 12), 11, 11);
  painter.setPen(stroke(Qt::white, 2.4));
  painter.setBrush(Qt::NoBrush);
}

// Drawn here: looking through the desktop's icon theme for a sign was a fifth of all that the main
// thread did for a start, and some themes have signs that can't be made out.
void draw(StatusKind kind, QPainter& painter) {
  if (kind == StatusKind::caution) return drawCaution(painter);
  drawDisc(painter, kind == StatusKind::good ? kGreen : kBlue);
  if (kind == StatusKind::good) {
    painter.drawPolyline(QPolygonF({{7, 12.5}, {10.5, 16}, {17, 8.5}}));
  } else {
    painter.drawPoint(QPointF(12, 7));
    painter.drawLine(QPointF(12, 11), QPointF(12, 17));
  }
}

const char* nameOf(StatusKind kind) {
  switch (kind) {
    case StatusKind::good:
      return "Good";
    case StatusKind::caution:
      return "Caution";
    case StatusKind::information:
      break;
  }
  return "Information";
}

}  // namespace

StatusSign::StatusSign(StatusKind kind, double lines, QWidget* parent)
    : QWidget(parent), kind_(kind), lines_(lines) {
  setAccessibleRole<StatusSign, QAccessible::Graphic>();
  setAccessibleName(nameOf(kind));
  setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void StatusSign::setKind(StatusKind kind) {
  kind_ = kind;
  setAccessibleName(nameOf(kind));
  update();
}

QSize StatusSign::sizeHint() const {
  const auto side = static_cast<int>(std::lround(lines_ * fontMetrics().height()));
  return {side, side};
}

void StatusSign::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  if (event->type() == QEvent::FontChange) updateGeometry();
}

void StatusSign::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const double side = std::min(width(), height());
  painter.scale(side / kGrid, side / kGrid);
  draw(kind_, painter);
}

}  // namespace qm5
