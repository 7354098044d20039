// A window as large as its content, and no larger than its screen.
#pragma once

#include <QDialog>
#include <optional>

class QLayout;

namespace qm5 {

/// What the screen of `window` has room for, beside the title bar.
QSize roomOnScreen(const QWidget& window);
/// Gives the buttons of `window` the size that goes with its font. Not all styles do that.
void sizeButtons(QWidget& window);

/// The person can't resize it; it follows its content and the font by itself. Its layout direction
/// is that of its texts, which are English.
class FittingDialog : public QDialog {
  Q_OBJECT

 public:
  explicit FittingDialog(QWidget* parent, Qt::WindowFlags flags = {});

  /// To be called once the layout is whole: margins and spacings are taken as drawn for the usual
  /// font, and follow the window's font from here on. `scrollable` is the part, within the window's
  /// layout, that scrolls where the screen has no room for all: buttons don't belong in it.
  void completeLayout(QLayout& scrollable);
  /// It comes up while the person may be busy with another window: presses in its first half second
  /// count for nothing, and where another program has the keyboard, it asks for attention instead
  /// of taking it away.
  void setComesUnasked() { comes_unasked_ = true; }
  /// Takes the size that its content needs now.
  void fit();

  QSize sizeHint() const override;
  void setVisible(bool visible) override;

 protected:
  /// It has left the keyboard to another program, and becomes modal later.
  bool leavesKeyboard() const { return modality_later_.has_value(); }
  bool event(QEvent* event) override;

 private:
  QSize wantedSize() const;
  void followFont();
  void makeScroll();
  void comeUnasked();
  void becomeModal();

  QLayout* scrollable_ = nullptr;  // until it scrolls
  QWidget* scrolled_ = nullptr;    // from then on
  double spacing_scale_ = 1;
  bool comes_unasked_ = false;
  std::optional<Qt::WindowModality> modality_later_;  // while it leaves the keyboard to others
};

}  // namespace qm5
