#include "app_shell/qt/points_view.h"

#include <QFontInfo>
#include <algorithm>
#include <cmath>

#include "app_shell/qt/picture.h"
#include "app_shell/qt/status_box.h"

namespace qm5 {

namespace {

// The size of the default font that the points of a window are drawn for.
constexpr double kDefaultFontSize = 13;

QFont boldFont(QFont font, double points) {
  const double growth = std::max(1.0, QFontInfo(font).pixelSize() / kDefaultFontSize);
  font.setBold(true);
  font.setPixelSize(static_cast<int>(std::lround(points * growth)));
  return font;
}

}  // namespace

PointsView::PointsView(Size points, QWidget* parent) : QWidget(parent), points_(points) {
  arrange();
}

PointsView::~PointsView() = default;

void PointsView::addImage(const ImageView& image) {
  auto* view = new Picture(this);
  view->setName(image.imageNamed);
  place(view, image.frame, QSize());
}

void PointsView::addLabel(const Label& label) {
  auto* view = new QLabel(this);
  view->setTextFormat(Qt::PlainText);
  view->setText(QString::fromStdString(label.text));
  view->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
  if (label.boldSystemFontOfSize) {
    view->setFont(boldFont(view->font(), *label.boldSystemFontOfSize));
  }
  // Measured before it may wrap: the text's own line breaks are to stand.
  QSize needed = view->sizeHint();
  view->setWordWrap(label.wraps);
  // The button stands on the lowest sixth of the frame of several lines.
  if (label.wraps) needed.setHeight(needed.height() * 5 / 4);
  place(view, label.frame, needed);
}

QPushButton* PointsView::addButton(const PushButton& button) {
  auto* view = new QPushButton(this);
  // To Qt a single ampersand announces a shortcut.
  view->setText(QString::fromStdString(button.title).replace('&', "&&"));
  view->setFlat(button.bezelStyle == BezelStyle::none);
  view->setDefault(true);
  view->setFocus();
  place(view, button.frame, view->sizeHint());
  return view;
}

StatusBox* PointsView::makeStatusBox() {
  constexpr int kLines = 4;  // of the longest text
  auto* box = new StatusBox(this);
  const QMargins around = marginsAbove();
  box->fixRoom(width() - around.left() - around.right(), kLines);
  return box;
}

QMargins PointsView::marginsAbove() const {
  constexpr double kSide = 10;  // points, as the button and the labels have it
  const auto margin = static_cast<int>(std::lround(kSide * pixels_per_point_));
  return {margin, margin, margin, 0};
}

void PointsView::place(QWidget* view, const Rect& frame, QSize needed) {
  pixels_per_point_ = std::max(
      {pixels_per_point_, needed.width() / frame.size.width, needed.height() / frame.size.height});
  placed_.push_back({view, frame});
  arrange();
}

void PointsView::arrange() {
  const double scale = pixels_per_point_;
  setFixedSize((QSizeF(points_.width, points_.height) * scale).toSize());
  for (const auto& [view, frame] : placed_) {
    const double top = points_.height - frame.origin.y - frame.size.height;
    view->setGeometry(QRectF(frame.origin.x * scale, top * scale, frame.size.width * scale,
                             frame.size.height * scale)
                          .toAlignedRect());
  }
}

}  // namespace qm5
