// The controls of a window, as the port has them. Each lasts as long as its window.
//
// Texts and the bar change with every step of an update. What the steps of one turn of the main
// queue change is shown once, at its end; a change at any other time is shown at once.
#pragma once

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include "app_shell/ports/window.h"
#include "app_shell/qt/status_box.h"
#include "main_queue/main_queue.h"

namespace qm5 {

class QtButton : public Button {
 public:
  explicit QtButton(QPushButton& widget);
  void setAction(Action action);
  /// The window's default button gets the focus when it becomes enabled.
  void setEnabled(bool enabled) override;
  void setHidden(bool hidden) override;

 private:
  QPushButton& widget_;
  // As laid out: on the screen, Qt counts the button that has the focus as the default one.
  const bool is_default_;
  Action action_;
};

class QtTextField : public TextField {
 public:
  QtTextField(QLabel& widget, MainQueue& main_queue);
  void setStringValue(std::string_view text) override;

 private:
  void show();

  QLabel& widget_;
  MainQueue& main_queue_;
  QString text_;
  bool is_shown_ = true;
};

class QtStatusIndicator : public StatusIndicator {
 public:
  explicit QtStatusIndicator(StatusBox& widget) : widget_(widget) {}
  void setStatus(StatusKind kind, std::string_view text) override;

 private:
  StatusBox& widget_;
};

/// Shows a percentage, 0 to 100; values beyond are shown as the nearest end.
class QtProgressIndicator : public ProgressIndicator {
 public:
  QtProgressIndicator(QProgressBar& widget, MainQueue& main_queue);
  void setDoubleValue(double value) override;

 private:
  void show();

  QProgressBar& widget_;
  MainQueue& main_queue_;
  int value_ = 0;
};

}  // namespace qm5
