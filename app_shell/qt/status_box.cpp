#include "app_shell/qt/status_box.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QPainter>

#include "app_shell/qt/accessible_role.h"
#include "app_shell/qt/announced_label.h"
#include "app_shell/qt/colours.h"
#include "app_shell/qt/status_sign.h"

namespace qm5 {

namespace {

// Of the frame, in device-independent pixels.
constexpr double kCorner = 4;

}  // namespace

StatusBox::StatusBox(QWidget* parent)
    : QWidget(parent), sign_(new StatusSign(kind_, 1.25, this)), text_(new AnnouncedLabel(this)) {
  setAccessibleRole<StatusBox, QAccessible::StatusBar>();
  auto* layout = new QHBoxLayout(this);
  layout->addWidget(sign_);
  layout->addWidget(text_, 1);
  text_->setObjectName("txtStatus");
  // The window's width is not the text's to change.
  text_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
  followFont();
  hide();
}

void StatusBox::followFont() {
  const int line = fontMetrics().height();
  const int side = line * 4 / 5;
  layout()->setContentsMargins(side, line / 2, side, line / 2);
  layout()->setSpacing(side);
}

void StatusBox::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  if (event->type() == QEvent::FontChange) followFont();
}

void StatusBox::fixRoom(int width, int lines) {
  const QMargins around = layout()->contentsMargins();
  setFixedSize(width, lines * fontMetrics().lineSpacing() + around.top() + around.bottom());
  QSizePolicy policy = sizePolicy();
  policy.setRetainSizeWhenHidden(true);
  setSizePolicy(policy);
}

void StatusBox::setStatus(StatusKind kind, const QString& text) {
  if (kind == kind_ && text == text_->text()) return;
  kind_ = kind;
  sign_->setKind(kind);
  text_->announce(text);
  setHidden(text.isEmpty());
}

// The style's own frames lose a line at fractional scales. A line of one device pixel at least,
// whose middle lies half its width within the edge, is complete at every scale.
void StatusBox::paintEvent(QPaintEvent*) {
  constexpr double kWidth = 1;
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(QPen(frameColour(palette()), kWidth));
  painter.setBrush(palette().base());
  const double inset = kWidth / 2;
  painter.drawRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), kCorner, kCorner);
}

}  // namespace qm5
