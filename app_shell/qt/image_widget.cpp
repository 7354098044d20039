#include "app_shell/qt/image_widget.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QPainter>
#include <array>

#include "app_shell/qt/resource_files.h"

namespace qm5 {

namespace {

// The sizes that an image is shipped in, the smallest first.
constexpr std::array kVariants = {"", "@2x", "@3x"};

// Left to Qt, it would be a widget of no kind to assistive technology.
QAccessibleInterface* pictureFor(const QString&, QObject* object) {
  auto* image = dynamic_cast<ImageWidget*>(object);
  return image == nullptr ? nullptr : new QAccessibleWidget(image, QAccessible::Graphic);
}

}  // namespace

ImageWidget::ImageWidget(QWidget* parent) : QWidget(parent) {
  QAccessible::installFactory(pictureFor);
  setAccessibleName("QM5");  // which all images show
}

ImageWidget::~ImageWidget() = default;

void ImageWidget::setImageNamed(const QString& name) {
  name_ = name;
  fitted_ = QSize();
  update();
}

QPixmap ImageWidget::drawnFor(QSize pixels) const {
  QPixmap image;
  for (const char* variant : kVariants) {
    const auto path = resourcePath((name_ + QLatin1String(variant)).toStdString(), "png");
    if (path) image.load(QString::fromStdString(*path));
    image.setDevicePixelRatio(1);  // Qt takes a ratio from the name; here pixels count
    if (image.width() >= pixels.width() && image.height() >= pixels.height()) break;
  }
  if (image.isNull() || image.size() == pixels) return image;
  return image.scaled(pixels, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

void ImageWidget::paintEvent(QPaintEvent*) {
  const QSize pixels = (QSizeF(size()) * devicePixelRatioF()).toSize();
  if (fitted_ != pixels) {
    pixmap_ = drawnFor(pixels);
    pixmap_.setDevicePixelRatio(devicePixelRatioF());
    fitted_ = pixels;
  }
  if (pixmap_.isNull()) return;
  const QSizeF left_over = QSizeF(size()) - pixmap_.deviceIndependentSize();
  QPainter(this).drawPixmap(QPointF(left_over.width() / 2, left_over.height() / 2), pixmap_);
}

}  // namespace qm5
