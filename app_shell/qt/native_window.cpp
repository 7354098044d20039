#include "app_shell/qt/native_window.h"

#include <QCloseEvent>
#include <utility>

#include "app_shell/qt/alert.h"

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

NativeWindow::NativeWindow(Closing closing)
    : QDialog(nullptr, controls(closing)), closing_(closing) {
  // A window that the person can't close is there to be run modally. Qt takes modality
  // with the showing, which is before the run.
  if (closing == Closing::byProgramOnly) setWindowModality(Qt::ApplicationModal);
}

NativeWindow::~NativeWindow() = default;

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

void NativeWindow::setVisible(bool visible) {
  if (visible && timer_.interval() > 0) timer_.start();
  if (!visible && isVisible()) {
    timer_.stop();
    abortAlerts(*this);
    if (will_disappear_) will_disappear_();
  }
  QDialog::setVisible(visible);
}

void NativeWindow::closeEvent(QCloseEvent* event) {
  event->setAccepted(closing_ == Closing::byPerson);
}

// What is painted reaches the screen only at the end of the turn.
void NativeWindow::paintEvent(QPaintEvent* event) {
  QDialog::paintEvent(event);
  if (std::exchange(awaits_paint_, false)) after_paint_.start(0);
}

}  // namespace qm5
