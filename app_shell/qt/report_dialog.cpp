#include "app_shell/qt/report_dialog.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFontDatabase>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSaveFile>
#include <QScreen>
#include <QVBoxLayout>

#include "app_shell/qt/alert_dialog.h"
#include "app_shell/qt/press_guard.h"
#include "app_shell/qt/qt_text.h"

namespace qm5 {

namespace {

// Of the text that can be seen at once, where the screen is large enough.
constexpr int kColumns = 72;
constexpr int kLines = 18;

}  // namespace

ReportDialog::ReportDialog(const TextReport& report, QWidget* parent)
    : QDialog(parent),
      file_name_(qtText(report.fileName)),
      text_(new QPlainTextEdit(qtText(report.text))) {
  PressGuard::start();
  setAttribute(Qt::WA_DeleteOnClose);
  setWindowTitle(qtText(report.title));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(20, 20, 20, 16);
  layout->setSpacing(12);
  auto* introduction = new QLabel;
  introduction->setTextFormat(Qt::PlainText);
  introduction->setText(qtText(report.introduction));
  introduction->setWordWrap(true);
  layout->addWidget(introduction);
  text_->setReadOnly(true);
  text_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  text_->setTabChangesFocus(true);
  QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
  fixed.setPointSizeF(QFontInfo(font()).pointSizeF());
  text_->setFont(fixed);
  text_->setAccessibleName(windowTitle());
  layout->addWidget(text_, 1);
  addButtons();
}

// In lines and columns, so that it grows with the font; the person may resize it.
QSize ReportDialog::sizeHint() const {
  const QFontMetrics text = text_->fontMetrics();
  const QSize wanted(kColumns * text.averageCharWidth(), kLines * text.lineSpacing());
  constexpr QSize kAround(80, 160);          // margins, introduction and buttons
  constexpr QSize kFramesAndPanels(40, 80);  // of the desktop's
  return (wanted + kAround).boundedTo(screen()->availableSize() - kFramesAndPanels);
}

void ReportDialog::addButtons() {
  auto* buttons = new QDialogButtonBox;
  auto* copy = buttons->addButton("&Copy", QDialogButtonBox::ActionRole);
  auto* save = buttons->addButton("&Save…", QDialogButtonBox::ActionRole);
  auto* close = buttons->addButton("C&lose", QDialogButtonBox::RejectRole);
  connect(copy, &QPushButton::clicked, this, &ReportDialog::copy);
  connect(save, &QPushButton::clicked, this, &ReportDialog::askWhereToSave);
  connect(close, &QPushButton::clicked, this, &QDialog::reject);
  layout()->addWidget(buttons);
  close->setDefault(true);
  close->setFocus();
}

void ReportDialog::copy() {
  QApplication::clipboard()->setText(text_->toPlainText());
}

void ReportDialog::askWhereToSave() {
  auto* dialog = new QFileDialog(this, "Save " + windowTitle());
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setAcceptMode(QFileDialog::AcceptSave);
  dialog->selectFile(file_name_);
  connect(dialog, &QFileDialog::fileSelected, this, &ReportDialog::save);
  dialog->open();
}

void ReportDialog::save(const QString& path) {
  QSaveFile file(path);
  const QByteArray text = text_->toPlainText().toUtf8();
  if (file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.commit()) return;
  const Alert alert = {.messageText = "The lines were not saved",
                       .informativeText = (path + "\n" + file.errorString()).toStdString(),
                       .firstButton = "OK",
                       .otherButtons = {}};
  AlertDialog::show(
      alert, [](int) {}, *this);
}

}  // namespace qm5
