#include "app_shell/qt/alert.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <algorithm>
#include <utility>

namespace qm5 {

namespace {

QPushButton* addButton(QMessageBox& box, const std::string& title) {
  // The first button does what the alert asks about, the others leave it: the platform
  // orders them by that.
  const auto role = box.buttons().isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole;
  return box.addButton(QString::fromStdString(title), role);
}

// Left alone, the box wraps the text into the width of its buttons.
void keepLinesWhole(QMessageBox& box) {
  auto* label = box.findChild<QLabel*>("qt_msgbox_informativelabel");
  if (label) label->setMinimumWidth(label->fontMetrics().size(0, label->text()).width());
}

// To assistive technology, a picture without a text is nothing.
void nameIcon(QMessageBox& box) {
  auto* icon = box.findChild<QLabel*>("qt_msgboxex_icon_label");
  if (icon) icon->setAccessibleName("Warning");
}

}  // namespace

void openAlert(QWidget& window, const Alert& alert, AlertCompletion completion) {
  auto* box = new QMessageBox(&window);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setWindowTitle(window.windowTitle());
  box->setIcon(QMessageBox::Warning);
  box->setText("<b>" + QString::fromStdString(alert.messageText).toHtmlEscaped() + "</b>");
  box->setInformativeText(QString::fromStdString(alert.informativeText));
  keepLinesWhole(*box);
  nameIcon(*box);

  std::vector<QAbstractButton*> buttons;
  for (const std::string& title : alert.buttons) buttons.push_back(addButton(*box, title));
  box->setDefaultButton(qobject_cast<QPushButton*>(buttons.front()));
  box->setEscapeButton(buttons.back());

  const auto finish = [box, buttons, completion = std::move(completion)] {
    const auto pressed = std::find(buttons.begin(), buttons.end(), box->clickedButton());
    const auto index = static_cast<int>(pressed - buttons.begin());
    completion(pressed == buttons.end() ? kModalResponseAbort : kAlertFirstButtonReturn + index);
  };
  QObject::connect(box, &QMessageBox::finished, box, finish);
  box->open();
}

void showNotice(int argc, char** argv, const Alert& alert) {
  QApplication::setApplicationName("QM5 Updater");
  QApplication::setDesktopFileName("qm5-updater");
  QApplication application(argc, argv);
  QWidget unseen;
  unseen.setWindowTitle("QM5 Updater");
  openAlert(unseen, alert, [](int) { QApplication::exit(); });
  QApplication::exec();
}

void abortAlerts(QWidget& window) {
  for (QMessageBox* box : window.findChildren<QMessageBox*>()) box->done(QDialog::Rejected);
}

}  // namespace qm5
