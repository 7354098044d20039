#include "app_shell/qt/qt_controls.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "app_shell/qt/qt_text.h"

namespace qm5 {

namespace {

// The bar moves by whole steps: tenths of a percent are finer than its pixels.
constexpr int kStepsAPercent = 10;

}  // namespace

QtButton::QtButton(QPushButton& widget) : widget_(widget) {
  QObject::connect(&widget, &QPushButton::clicked, &widget, [this] {
    if (action_) action_(this);
  });
}

void QtButton::setAction(Action action) {
  action_ = std::move(action);
}

void QtButton::setEnabled(bool enabled) {
  widget_.setEnabled(enabled);
}

QtTextField::QtTextField(QLabel& widget) : widget_(widget) {}

void QtTextField::setStringValue(std::string_view text) {
  widget_.setText(qtText(text));
}

void QtStatusLine::setStatus(Status status, std::string_view text) {
  widget_.setStatus(status, qtText(text));
}

QtProgressIndicator::QtProgressIndicator(QProgressBar& widget) : widget_(widget) {
  widget.setRange(0, 100 * kStepsAPercent);
  widget.setValue(0);
}

void QtProgressIndicator::setDoubleValue(double value) {
  const double percent = std::clamp(value, 0.0, 100.0);
  widget_.setValue(static_cast<int>(std::lround(percent * kStepsAPercent)));
}

}  // namespace qm5
