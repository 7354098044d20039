#include "app_shell/qt/text_label.h"

#include <algorithm>

namespace qm5 {

TextLabel::TextLabel(QWidget* parent) : QLabel(parent) {
  setTextFormat(Qt::PlainText);
  setWordWrap(true);
  // QLabel does this itself only once it shows a text, and the label has room for its widest text
  // before that.
  QSizePolicy policy = sizePolicy();
  policy.setHeightForWidth(true);
  setSizePolicy(policy);
}

void TextLabel::setWidestText(const QString& text) {
  widest_text_ = text;
  updateGeometry();
}

// Of a text that may wrap, QLabel would pick a width by itself.
QSize TextLabel::sizeHint() const {
  const QFontMetrics font = fontMetrics();
  constexpr int kMostColumns = 60;
  const QSize lines = font.size(0, text()).expandedTo(font.size(0, widest_text_));
  const int width = std::min(lines.width(), kMostColumns * font.averageCharWidth());
  return {width, heightForWidth(width)};
}

QSize TextLabel::minimumSizeHint() const {
  return {0, fontMetrics().height()};
}

int TextLabel::heightForWidth(int width) const {
  constexpr int kAnyHeight = 10'000;
  const QRect room(0, 0, width, kAnyHeight);
  const auto heightOf = [&](const QString& text) {
    return fontMetrics().boundingRect(room, Qt::TextWordWrap, text).height();
  };
  return std::max(heightOf(text()), heightOf(widest_text_));
}

}  // namespace qm5
