#include "app_shell/qt/report_dialog.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSaveFile>
#include <QStyle>
#include <QVBoxLayout>
#include <algorithm>

#include "app_shell/qt/alert_dialog.h"
#include "app_shell/qt/colours.h"
#include "app_shell/qt/fitting_dialog.h"
#include "app_shell/qt/press_guard.h"
#include "app_shell/qt/qt_text.h"
#include "app_shell/qt/text_label.h"

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
  setLayoutDirection(Qt::LeftToRight);
  setWindowTitle(qtText(report.title));
  auto* layout = new QVBoxLayout(this);
  const int line = fontMetrics().height();
  layout->setContentsMargins(line * 4 / 3, line * 4 / 3, line * 4 / 3, line);
  layout->setSpacing(line * 4 / 5);
  auto* introduction = new TextLabel;
  introduction->setText(qtText(report.introduction));
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
  sizeButtons(*this);
  keepPartsVisible(*this);
  setFirstSize();
}

// In lines and columns, so that it grows with the font; the person may resize it.
void ReportDialog::setFirstSize() {
  const QFontMetrics text = text_->fontMetrics();
  const QMargins around = layout()->contentsMargins();
  const int frame = 2 * text_->frameWidth() + style()->pixelMetric(QStyle::PM_ScrollBarExtent);
  const QSize room = roomOnScreen(*this);
  const int columns = kColumns * text.averageCharWidth() + frame;
  const int width = std::min(columns + around.left() + around.right(), room.width());
  const int others = layout()->totalHeightForWidth(width) - text_->sizeHint().height();
  resize(width, std::min(others + kLines * text.lineSpacing() + frame, room.height()));
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
      alert, [](int) {}, this);
}

}  // namespace qm5
