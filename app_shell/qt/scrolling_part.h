// The part of a window that the person scrolls where the screen is too small for all of it.
#pragma once

#include <QScrollArea>

namespace qm5 {

/// As wide as its content, which wraps; only its height may be less.
class ScrollingPart : public QScrollArea {
  Q_OBJECT

 public:
  /// `content`, which no widget has, and all that is in it become the part's own.
  explicit ScrollingPart(QLayout& content);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return {}; }
  bool hasHeightForWidth() const override { return true; }
  int heightForWidth(int width) const override;

 protected:
  bool viewportEvent(QEvent* event) override;
};

}  // namespace qm5
