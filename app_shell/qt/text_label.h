// A plain text that is as wide as its own lines, but no wider than what is read well, and wraps at
// words there and where its window is narrower.
#pragma once

#include <QLabel>

namespace qm5 {

class TextLabel : public QLabel {
  Q_OBJECT

 public:
  explicit TextLabel(QWidget* parent = nullptr);

  /// The widest text that a label which changes often will show. The label has room for it from the
  /// start, so that its window doesn't change size; the room follows the font.
  void setWidestText(const QString& text);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;
  int heightForWidth(int width) const override;

 private:
  QString widest_text_;
};

}  // namespace qm5
