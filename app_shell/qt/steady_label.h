// A line of text that changes often without its window changing size: it has room for its
// widest text from the start.
#pragma once

#include <QLabel>

namespace qm5 {

class SteadyLabel : public QLabel {
  Q_OBJECT

 public:
  explicit SteadyLabel(QWidget* parent = nullptr);

  /// The widest text that the label will show; the room for it follows the font.
  void setWidestText(const QString& text);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 private:
  QString widest_text_;
};

}  // namespace qm5
