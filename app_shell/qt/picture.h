// The pictures of the application's package.
#pragma once

#include <QPixmap>
#include <QWidget>
#include <string>
#include <string_view>

namespace qm5 {

/// Shows the resource NAME.png as large as the widget. It is as sharp as the screen that it is on:
/// NAME@2x.png and NAME@3x.png are taken for more than one and two pixels a point. Nothing is shown
/// when there is no such resource.
class Picture : public QWidget {
  Q_OBJECT

 public:
  explicit Picture(QWidget* parent);

  void setName(std::string_view name);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  std::string name_;
  QPixmap pixmap_;
  int ratio_ = 0;  // that pixmap_ is for
};

}  // namespace qm5
