// A text of which a screen reader tells each change, wherever the keyboard's focus is.
#pragma once

#include "app_shell/qt/text_label.h"

namespace qm5 {

class AnnouncedLabel : public TextLabel {
  Q_OBJECT

 public:
  explicit AnnouncedLabel(QWidget* parent = nullptr);

  /// Shows `text` and has it told. Main thread.
  void announce(const QString& text);
};

}  // namespace qm5
