// A framed line of text with a sign in front of it, which tell what is so.
#pragma once

#include <QFrame>

#include "app_shell/qt/steady_label.h"
#include "app_shell/toolkit.h"

namespace qm5 {

class StatusBox : public QFrame {
 public:
  explicit StatusBox(QWidget* parent = nullptr);

  /// The longest text that the box will show: it has room for it from the start.
  void setLongestText(const QString& text) { text_->setWidestText(text); }
  /// Shows the sign for `status`, and tells assistive technology of the change.
  void setStatus(Status status, const QString& text);

 protected:
  void changeEvent(QEvent* event) override;

 private:
  void drawSign();

  Status status_ = Status::information;
  QLabel* const sign_;
  SteadyLabel* const text_;
};

}  // namespace qm5
