// The controls of a window, as the port has them. Each lasts as long as its window. What
// changes all the time in an update, the texts and the bar, is shown every other frame.
#pragma once

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "app_shell/qt/frame_pacer.h"
#include "app_shell/qt/status_box.h"
#include "app_shell/toolkit.h"

namespace qm5 {

class QtButton : public Button {
 public:
  explicit QtButton(QPushButton& widget);
  void setAction(Action action);
  void setEnabled(bool enabled) override;

 private:
  QPushButton& widget_;
  Action action_;
};

class QtTextField : public TextField {
 public:
  explicit QtTextField(QLabel& widget);
  void setStringValue(std::string_view text) override;

 private:
  QString text_;
  FramePacer frames_;
};

class QtStatusLine : public StatusLine {
 public:
  explicit QtStatusLine(StatusBox& widget) : widget_(widget) {}
  void setStatus(Status status, std::string_view text) override;

 private:
  StatusBox& widget_;
};

/// Shows a percentage, 0 to 100; values beyond are shown as the nearest end.
class QtProgressIndicator : public ProgressIndicator {
 public:
  explicit QtProgressIndicator(QProgressBar& widget);
  void setDoubleValue(double value) override;

 private:
  int steps_ = 0;
  FramePacer frames_;
};

}  // namespace qm5
