// A framed text with a sign in front of it, which tell what is so.
#pragma once

#include <QWidget>

#include "app_shell/ports/window.h"

namespace qm5 {

class AnnouncedLabel;
class StatusSign;

/// Hidden as long as its text is empty. As wide as its place, into which its text wraps at words,
/// and as high as its text: one line for one line.
class StatusBox : public QWidget {
  Q_OBJECT

 public:
  explicit StatusBox(QWidget* parent = nullptr);

  /// Has the box keep that width and the room for that many lines of text, shown or hidden.
  void fixRoom(int width, int lines);
  /// Shows the sign of `kind`, and announces a change to assistive technology.
  void setStatus(StatusKind kind, const QString& text);

 protected:
  void changeEvent(QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  void followFont();

  StatusKind kind_ = StatusKind::information;
  StatusSign* const sign_;
  AnnouncedLabel* const text_;
};

}  // namespace qm5
