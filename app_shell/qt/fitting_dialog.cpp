#include "app_shell/qt/fitting_dialog.h"

#include <QApplication>
#include <QBoxLayout>
#include <QEvent>
#include <QFontInfo>
#include <QPushButton>
#include <QScreen>
#include <QStyle>
#include <QWindow>
#include <algorithm>
#include <cmath>
#include <utility>

#include "app_shell/qt/colours.h"
#include "app_shell/qt/press_guard.h"
#include "app_shell/qt/scrolling_part.h"

namespace qm5 {

namespace {

// Of the font, in pixels, that margins and spacings are drawn for.
constexpr double kUsualFontSize = 13;

}  // namespace

QSize roomOnScreen(const QWidget& window) {
  const int title_bar = window.style()->pixelMetric(QStyle::PM_TitleBarHeight, nullptr, &window);
  return window.screen()->availableSize() - QSize(0, title_bar);
}

void sizeButtons(QWidget& window) {
  const int line = window.fontMetrics().height();
  for (QPushButton* button : window.findChildren<QPushButton*>()) {
    button->setMinimumSize(5 * line, line * 7 / 4);
  }
}

FittingDialog::FittingDialog(QWidget* parent, Qt::WindowFlags flags) : QDialog(parent, flags) {
  setLayoutDirection(Qt::LeftToRight);
}

void FittingDialog::completeLayout(QLayout& scrollable) {
  scrollable_ = &scrollable;
  layout()->setSizeConstraint(QLayout::SetNoConstraint);
  followFont();
  keepPartsVisible(*this);
}

void FittingDialog::followFont() {
  const double scale = QFontInfo(font()).pixelSize() / kUsualFontSize;
  const double growth = scale / std::exchange(spacing_scale_, scale);
  const auto grown = [&](int length) { return static_cast<int>(std::lround(length * growth)); };
  for (QLayout* part : findChildren<QLayout*>()) {
    // Widgets with layouts of their own see to those by themselves.
    if (part->parentWidget() != this && part->parentWidget() != scrolled_) continue;
    const QMargins margins = part->contentsMargins();
    part->setContentsMargins(grown(margins.left()), grown(margins.top()), grown(margins.right()),
                             grown(margins.bottom()));
    if (part->spacing() > 0) part->setSpacing(grown(part->spacing()));
  }
  sizeButtons(*this);
}

QSize FittingDialog::wantedSize() const {
  const QSize hint = layout()->totalSizeHint();
  const int width = std::min(hint.width(), roomOnScreen(*this).width());
  if (!layout()->hasHeightForWidth()) return {width, hint.height()};
  return {width, layout()->totalHeightForWidth(width)};
}

QSize FittingDialog::sizeHint() const {
  return wantedSize().boundedTo(roomOnScreen(*this));
}

void FittingDialog::fit() {
  if (scrollable_ && wantedSize().height() > roomOnScreen(*this).height()) makeScroll();
  setFixedSize(sizeHint());
}

// Only where it is needed: most windows have the room, and a start needn't pay for it.
void FittingDialog::makeScroll() {
  auto* window = qobject_cast<QBoxLayout*>(layout());
  QLayout* const part = std::exchange(scrollable_, nullptr);
  const int place = window->indexOf(part);
  window->removeItem(part);
  part->setParent(nullptr);
  auto* scrolling = new ScrollingPart(*part);
  scrolled_ = scrolling->widget();
  window->insertWidget(place, scrolling);
  scrolling->show();  // what is hidden has no size yet
}

void FittingDialog::setVisible(bool visible) {
  const bool comes = visible && !isVisible();
  if (comes) fit();
  if (comes && comes_unasked_) return comeUnasked();
  QDialog::setVisible(visible);
}

void FittingDialog::comeUnasked() {
  PressGuard::ignoreFirstPresses(*this);
  if (QGuiApplication::applicationState() == Qt::ApplicationActive)
    return QDialog::setVisible(true);
  // On X, Qt asks for the keyboard for each modal window that it shows, even for such a one. So
  // this one becomes modal when the person comes to another window of the program, which it is to
  // block.
  modality_later_ = windowModality();
  setWindowModality(Qt::NonModal);
  setAttribute(Qt::WA_ShowWithoutActivating);
  QDialog::setVisible(true);
  QApplication::alert(this);
  connect(
      qApp, &QGuiApplication::focusWindowChanged, this,
      [this](const QWindow* focused) {
        if (focused && focused != windowHandle()) becomeModal();
      },
      Qt::QueuedConnection);
}

// Qt takes a modality with the showing.
void FittingDialog::becomeModal() {
  if (!modality_later_ || !isVisible()) return;
  QDialog::setVisible(false);
  setWindowModality(*std::exchange(modality_later_, std::nullopt));
  setAttribute(Qt::WA_ShowWithoutActivating, false);
  QDialog::setVisible(true);
}

bool FittingDialog::event(QEvent* event) {
  if (event->type() == QEvent::FontChange) followFont();
  if (event->type() == QEvent::ApplicationPaletteChange) {
    keepPartsVisible(*this);
  }
  const bool handled = QDialog::event(event);
  if (event->type() == QEvent::LayoutRequest && isVisible()) fit();
  return handled;
}

}  // namespace qm5
