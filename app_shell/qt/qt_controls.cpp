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

QtTextField::QtTextField(QLabel& widget)
    : text_(widget.text()), frames_(widget, [this, &widget] { widget.setText(text_); }) {}

void QtTextField::setStringValue(std::string_view text) {
  text_ = qtText(text);
  frames_.changed();
}

void QtStatusLine::setStatus(Status status, std::string_view text) {
  widget_.setStatus(status, qtText(text));
}

QtProgressIndicator::QtProgressIndicator(QProgressBar& widget)
    : frames_(widget, [this, &widget] { widget.setValue(steps_); }) {
  widget.setRange(0, 100 * kStepsAPercent);
  widget.setValue(0);
}

void QtProgressIndicator::setDoubleValue(double value) {
  const double percent = std::clamp(value, 0.0, 100.0);
  steps_ = static_cast<int>(std::lround(percent * kStepsAPercent));
  frames_.changed();
}

}  // namespace qm5
