// The sign of a status, as status boxes and alerts show it.
#pragma once

#include <QWidget>

#include "app_shell/ports/window.h"

namespace qm5 {

/// A square picture whose side is a number of lines of text: it grows with the font.
class StatusSign : public QWidget {
  Q_OBJECT

 public:
  StatusSign(StatusKind kind, double lines, QWidget* parent);

  void setKind(StatusKind kind);

  QSize sizeHint() const override;

 protected:
  void changeEvent(QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  StatusKind kind_;
  double lines_;
};

}  // namespace qm5
