// A line of text that is larger and bolder than the others, also after the font has changed.
// Rich text would do the same, but it is laid out at once, in the middle of the start.
#pragma once

#include <QLabel>

namespace qm5 {

class HeadlineLabel : public QLabel {
 public:
  using QLabel::QLabel;

  /// How many times as large it is as the others. Has to be set before it is shown.
  void setScale(double scale) { scale_ = scale; }

 protected:
  bool event(QEvent* event) override;

 private:
  double scale_ = 1;
};

}  // namespace qm5
