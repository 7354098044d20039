// Alerts attached to a window.
#pragma once

#include "app_shell/ports/window.h"
#include "app_shell/qt/fitting_dialog.h"

class QDialogButtonBox;

namespace qm5 {

/// An alert that blocks its parent only. However it goes away, it has been answered once: by the
/// button that was pressed, and otherwise by the last one, the safe one. It deletes itself then.
class AlertDialog : public FittingDialog {
  Q_OBJECT

 public:
  AlertDialog(const Alert& alert, AlertCompletion completion, QWidget* parent);
  ~AlertDialog() override;

  /// Shows an alert, on its own where `parent` is nullptr, and returns at once. Main thread.
  static void show(const Alert& alert, AlertCompletion completion, QWidget* parent);

  /// The program takes the alert away: its response is kModalResponseAbort.
  void abort();
  /// Closing it by whatever means answers with the last button.
  void reject() override;

 private:
  QLayout& addTexts(const Alert& alert);
  void addButtons(const Alert& alert);
  void answer(int response);

  AlertCompletion completion_;
  int last_response_;
  QDialogButtonBox* const buttons_;
};

}  // namespace qm5
