#include "app_shell/qt/picture.h"

#include <QPainter>
#include <algorithm>
#include <cmath>
#include <utility>

#include "app_shell/qt/accessible_role.h"
#include "computer/package.h"

namespace qm5 {

namespace {

QPixmap load(std::string name, int ratio) {
  if (ratio > 1) name.append("@").append(std::to_string(ratio)).append("x");
  const auto path = applicationPackage().pathForResource(name, "png");
  return path ? QPixmap(QString::fromStdString(*path)) : QPixmap();
}

}  // namespace

Picture::Picture(QWidget* parent) : QWidget(parent) {
  setAccessibleRole<Picture, QAccessible::Graphic>();
  setAccessibleName("QM5");  // which all of them show
}

void Picture::setName(std::string_view name) {
  name_ = name;
}

void Picture::paintEvent(QPaintEvent*) {
  constexpr int kLargest = 3;  // that there are files for
  const int ratio = std::clamp(static_cast<int>(std::ceil(devicePixelRatioF())), 1, kLargest);
  if (std::exchange(ratio_, ratio) != ratio) pixmap_ = load(name_, ratio);
  QPainter painter(this);
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.drawPixmap(rect(), pixmap_);
}

}  // namespace qm5
