// Lines for a person to read, copy and save.
#pragma once

#include <QDialog>

#include "app_shell/ports/window.h"

class QPlainTextEdit;

namespace qm5 {

/// Blocks its parent only; deletes itself when it is closed.
class ReportDialog : public QDialog {
  Q_OBJECT

 public:
  ReportDialog(const TextReport& report, QWidget* parent);

 private:
  void setFirstSize();
  void addButtons();
  void copy();
  void askWhereToSave();
  void save(const QString& path);

  const QString file_name_;
  QPlainTextEdit* const text_;
};

}  // namespace qm5
