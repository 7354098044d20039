#include "app_shell/qt/alert_dialog.h"

#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>
#include <utility>

#include "app_shell/qt/accessible_role.h"
#include "app_shell/qt/press_guard.h"
#include "app_shell/qt/qt_text.h"
#include "app_shell/qt/status_sign.h"
#include "app_shell/qt/text_label.h"

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

TextLabel* labelOf(const std::string& text) {
  auto* label = new TextLabel;
  label->setText(qtText(text));
  return label;
}

}  // namespace

AlertDialog::AlertDialog(const Alert& alert, AlertCompletion completion, QWidget* parent)
    : FittingDialog(parent),
      completion_(std::move(completion)),
      last_response_(kAlertFirstButtonReturn + static_cast<int>(alert.otherButtons.size())),
      buttons_(new QDialogButtonBox) {
  PressGuard::start();
  if (alert.comesUnasked) setComesUnasked();
  setAccessibleRole<AlertDialog, QAccessible::AlertMessage>();
  setAttribute(Qt::WA_DeleteOnClose);
  setWindowTitle(parent ? parent->windowTitle() : QCoreApplication::applicationName());
  QLayout& texts = addTexts(alert);
  addButtons(alert);
  completeLayout(texts);
}

AlertDialog::~AlertDialog() {
  if (completion_) completion_(kModalResponseAbort);
}

void AlertDialog::show(const Alert& alert, AlertCompletion completion, QWidget* parent) {
  (new AlertDialog(alert, std::move(completion), parent))->open();
}

QLayout& AlertDialog::addTexts(const Alert& alert) {
  TextLabel* message = labelOf(alert.messageText);
  QFont bold = message->font();
  bold.setBold(true);
  message->setFont(bold);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(10);
  texts->addWidget(message);
  texts->addWidget(labelOf(alert.informativeText));
  texts->addStretch(1);
  auto* scrollable = new QHBoxLayout;
  scrollable->setSpacing(20);
  scrollable->addWidget(new StatusSign(StatusKind::caution, 2.5, this), 0, Qt::AlignTop);
  scrollable->addLayout(texts, 1);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(24, 24, 24, 20);
  layout->setSpacing(24);
  layout->addLayout(scrollable);
  layout->addWidget(buttons_);
  return *scrollable;
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

// The alert has left the screen when its answer arrives.
void AlertDialog::answer(int response) {
  const AlertCompletion completion = std::exchange(completion_, nullptr);
  if (!completion) return;
  done(response);
  completion(response);
}

}  // namespace qm5
