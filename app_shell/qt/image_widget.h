// An image of the application's resources, drawn as large as the widget and sharp at
// every screen scale.
#pragma once

#include <QPixmap>
#include <QWidget>
#include <memory>

namespace qm5 {

class ImageWidget : public QWidget {
 public:
  explicit ImageWidget(QWidget* parent = nullptr);
  ~ImageWidget() override;

  /// Shows the resource NAME.png, or NAME@2x.png or NAME@3x.png where the screen has the
  /// pixels for it. Nothing is drawn when there is no such resource.
  void setImageNamed(const QString& name);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QPixmap drawnFor(QSize pixels) const;

  QString name_;
  QPixmap pixmap_;  // as drawn last, fitted into fitted_
  QSize fitted_;    // device pixels
};

}  // namespace qm5
