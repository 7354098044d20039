#include "app_shell/qt/native_window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QPushButton>
#include <utility>

#include "app_shell/qt/alert_dialog.h"
#include "app_shell/qt/press_guard.h"

namespace qm5 {

namespace {

Qt::WindowFlags controls(NativeWindow::Closing closing) {
  if (closing == NativeWindow::Closing::byProgramOnly) {
    return Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint;
  }
  return Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
         Qt::WindowMinimizeButtonHint | Qt::WindowCloseButtonHint;
}

}  // namespace

NativeWindow::NativeWindow(Closing closing, QWidget* parent)
    : FittingDialog(parent, controls(closing)), closing_(closing) {
  PressGuard::start();
  // A window that the person can't close is there to be run modally, and is shown before the run.
  if (closing == Closing::byProgramOnly) makeModal();
}

NativeWindow::~NativeWindow() {
  closeAttached();
}

void NativeWindow::setCloseRequested(std::function<void()> callback) {
  close_requested_ = std::move(callback);
}

void NativeWindow::setWillDisappear(std::function<void()> callback) {
  will_disappear_ = std::move(callback);
}

void NativeWindow::setTimer(double interval, std::function<void()> tick) {
  timer_.setInterval(static_cast<int>(interval * 1000));
  timer_.callOnTimeout(this, std::move(tick));
}

void NativeWindow::setPainted(std::function<void()> callback) {
  after_paint_.setSingleShot(true);
  after_paint_.callOnTimeout(this, std::move(callback));
  awaits_paint_ = true;
}

void NativeWindow::setFocusOnNothing() {
  focus_on_nothing_ = true;
  setFocusPolicy(Qt::StrongFocus);
}

// Qt takes a modality with the showing: a window that is on the screen without one is shown anew.
void NativeWindow::makeModal() {
  if (isModal() || leavesKeyboard()) return;
  const bool is_on_screen = isVisible();
  if (is_on_screen) FittingDialog::setVisible(false);
  setWindowModality(Qt::ApplicationModal);
  if (is_on_screen) FittingDialog::setVisible(true);
}

void NativeWindow::restore() {
  setWindowState(windowState() & ~Qt::WindowMinimized);
}

void NativeWindow::bringToFront() {
  if (leavesKeyboard()) return;
  restore();
  raise();
  activateWindow();
}

void NativeWindow::setVisible(bool visible) {
  const bool changes = visible != isVisible();
  if (changes && visible) {
    if (timer_.interval() > 0) timer_.start();
    if (focus_on_nothing_) setFocus();
  }
  if (changes && !visible) {
    timer_.stop();
    closeAttached();
    if (will_disappear_) will_disappear_();
  }
  FittingDialog::setVisible(visible);
}

// Windows of the program's own that stand on this one are left to those who show them.
void NativeWindow::closeAttached() {
  for (QDialog* dialog : findChildren<QDialog*>(QString(), Qt::FindDirectChildrenOnly)) {
    if (auto* alert = qobject_cast<AlertDialog*>(dialog)) {
      alert->abort();
    } else if (!qobject_cast<NativeWindow*>(dialog)) {
      dialog->close();
    }
  }
}

void NativeWindow::askForAttention() {
  for (QPushButton* button : findChildren<QPushButton*>()) {
    if (button->isDefault()) button->setFocus();
  }
  bringToFront();
  QApplication::alert(this);
}

void NativeWindow::closeEvent(QCloseEvent* event) {
  event->setAccepted(closing_ == Closing::byPerson);
  if (event->isAccepted()) return;
  if (close_requested_) {
    close_requested_();
  } else {
    askForAttention();
  }
}

// What is painted reaches the screen only at the end of the turn.
void NativeWindow::paintEvent(QPaintEvent* event) {
  FittingDialog::paintEvent(event);
  if (std::exchange(awaits_paint_, false)) after_paint_.start(0);
}

}  // namespace qm5
