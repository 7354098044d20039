#include "app_shell/qt/qt_controls.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "app_shell/qt/announced_label.h"
#include "app_shell/qt/qt_text.h"

namespace qm5 {

namespace {

// The bar counts in tenths of a percent, which are finer than its pixels.
constexpr int kUnitsPerPercent = 10;

}  // namespace

QtButton::QtButton(QPushButton& widget) : widget_(widget), is_default_(widget.isDefault()) {
  QObject::connect(&widget, &QPushButton::clicked, &widget, [this] {
    if (action_) action_(this);
  });
}

void QtButton::setAction(Action action) {
  action_ = std::move(action);
}

void QtButton::setEnabled(bool enabled) {
  const bool was_enabled = widget_.isEnabled();
  widget_.setEnabled(enabled);
  // Qt took the focus to another button when it disabled this one, and doesn't bring it back.
  if (is_default_ && enabled && !was_enabled) widget_.setFocus();
}

void QtButton::setHidden(bool hidden) {
  widget_.setVisible(!hidden);
}

QtTextField::QtTextField(QLabel& widget, MainQueue& main_queue)
    : widget_(widget), main_queue_(main_queue) {
  QObject::connect(&main_queue, &MainQueue::turnEnded, &widget, [this] { show(); });
}

void QtTextField::setStringValue(std::string_view text) {
  text_ = qtText(text);
  is_shown_ = false;
  if (!main_queue_.isTurnOpen()) show();
}

void QtTextField::show() {
  if (std::exchange(is_shown_, true)) return;
  if (auto* announced = qobject_cast<AnnouncedLabel*>(&widget_)) return announced->announce(text_);
  widget_.setText(text_);
}

void QtStatusIndicator::setStatus(StatusKind kind, std::string_view text) {
  widget_.setStatus(kind, qtText(text));
}

QtProgressIndicator::QtProgressIndicator(QProgressBar& widget, MainQueue& main_queue)
    : widget_(widget), main_queue_(main_queue) {
  widget.setRange(0, 100 * kUnitsPerPercent);
  widget.setValue(0);
  QObject::connect(&main_queue, &MainQueue::turnEnded, &widget, [this] { show(); });
}

void QtProgressIndicator::setDoubleValue(double value) {
  const double percent = std::clamp(value, 0.0, 100.0);
  value_ = static_cast<int>(std::lround(percent * kUnitsPerPercent));
  if (!main_queue_.isTurnOpen()) show();
}

void QtProgressIndicator::show() {
  if (value_ == widget_.value()) return;
  // QProgressBar itself only repaints when the bar has grown by the width of one of the style's
  // chunks, 3 % of it. Asked for before the value is set, it never paints twice.
  widget_.update();
  widget_.setValue(value_);
}

}  // namespace qm5
