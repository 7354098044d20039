// A line of text whose size is a multiple of those around it, also after their font has changed.
// Rich text would do the same, but costs a start more than the line is worth.
#pragma once

#include "app_shell/qt/text_label.h"

namespace qm5 {

class HeadlineLabel : public TextLabel {
  Q_OBJECT

 public:
  explicit HeadlineLabel(QWidget* parent);

  /// How many times as large as its parent's text. A larger one is bolder as well.
  void setScale(double scale);

 protected:
  bool eventFilter(QObject* parent, QEvent* event) override;

 private:
  void enlarge();

  double scale_ = 1;
};

}  // namespace qm5
