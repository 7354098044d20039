#include "app_shell/qt/alert_dialog.h"

#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QPushButton>
#include <utility>

#include "app_shell/qt/accessible_role.h"
#include "app_shell/qt/press_guard.h"
#include "app_shell/qt/qt_text.h"
#include "app_shell/qt/status_sign.h"

namespace qm5 {

namespace {

// `title` with a mnemonic that no other button has: `taken` holds those of the others.
QString withMnemonic(const QString& title, QString& taken) {
  QString marked = title;
  marked.replace('&', "&&");  // a single one announces a mnemonic
  for (qsizetype i = 0; i < marked.size(); ++i) {
    const QChar letter = marked[i].toLower();
    if (!letter.isLetter() || taken.contains(letter)) continue;
    taken.append(letter);
    return marked.insert(i, '&');
  }
  return marked;
}

QLabel* plainLabel(const std::string& text) {
  auto* label = new QLabel;
  label->setTextFormat(Qt::PlainText);
  label->setText(qtText(text));
  return label;
}

}  // namespace

AlertDialog::AlertDialog(const Alert& alert, AlertCompletion completion, QWidget* parent)
    : QDialog(parent),
      completion_(std::move(completion)),
      last_response_(kAlertFirstButtonReturn + static_cast<int>(alert.otherButtons.size())),
      comes_unasked_(alert.comesUnasked),
      buttons_(new QDialogButtonBox) {
  PressGuard::start();
  setAccessibleRole<AlertDialog, QAccessible::AlertMessage>();
  setAttribute(Qt::WA_DeleteOnClose);
  if (parent) setWindowTitle(parent->windowTitle());
  addTexts(alert);
  addButtons(alert);
}

AlertDialog::~AlertDialog() {
  if (completion_) completion_(kModalResponseAbort);
}

void AlertDialog::show(const Alert& alert, AlertCompletion completion, QWidget& parent) {
  (new AlertDialog(alert, std::move(completion), &parent))->open();
}

void AlertDialog::addTexts(const Alert& alert) {
  auto* layout = new QGridLayout(this);
  layout->setSizeConstraint(QLayout::SetFixedSize);
  layout->setContentsMargins(24, 24, 24, 20);
  layout->setHorizontalSpacing(20);
  layout->setVerticalSpacing(10);
  QLabel* message = plainLabel(alert.messageText);
  QFont bold = message->font();
  bold.setBold(true);
  message->setFont(bold);
  layout->addWidget(new StatusSign(StatusKind::caution, 2.5, this), 0, 0, 2, 1, Qt::AlignTop);
  layout->addWidget(message, 0, 1);
  layout->addWidget(plainLabel(alert.informativeText), 1, 1, Qt::AlignTop);
  layout->setColumnStretch(1, 1);
  layout->setRowMinimumHeight(2, 6);
  layout->addWidget(buttons_, 3, 0, 1, 2);
}

// The first button does what the alert asks about, the others leave it: the platform orders them
// by that.
void AlertDialog::addButtons(const Alert& alert) {
  QString mnemonics;
  QPushButton* last = nullptr;
  int response = kAlertFirstButtonReturn;
  const auto add = [&](const std::string& title, QDialogButtonBox::ButtonRole role) {
    last = buttons_->addButton(withMnemonic(qtText(title), mnemonics), role);
    connect(last, &QPushButton::clicked, this, [this, pressed = response++] { answer(pressed); });
  };
  add(alert.firstButton, QDialogButtonBox::AcceptRole);
  for (const std::string& title : alert.otherButtons) add(title, QDialogButtonBox::RejectRole);
  last->setDefault(true);
  last->setFocus();
}

void AlertDialog::abort() {
  answer(kModalResponseAbort);
}

void AlertDialog::reject() {
  answer(last_response_);
}

void AlertDialog::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  if (comes_unasked_) PressGuard::ignoreFirstPresses(*this);
}

// The alert has left the screen when its answer arrives.
void AlertDialog::answer(int response) {
  const AlertCompletion completion = std::exchange(completion_, nullptr);
  if (!completion) return;
  done(response);
  completion(response);
}

}  // namespace qm5
