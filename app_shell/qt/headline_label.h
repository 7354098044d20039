// A line of text that is larger and bolder than those around it, also after their font has changed.
// Rich text would do the same, but costs a start more than the line is worth.
#pragma once

#include <QLabel>

namespace qm5 {

class HeadlineLabel : public QLabel {
  Q_OBJECT

 public:
  explicit HeadlineLabel(QWidget* parent);

  /// How many times as large as its parent's text.
  void setScale(double scale);

 protected:
  bool eventFilter(QObject* parent, QEvent* event) override;

 private:
  void enlarge();

  double scale_ = 1;
};

}  // namespace qm5
