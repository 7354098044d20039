#include "app_shell/qt/main_queue.h"

#include <QCoreApplication>
#include <QEvent>
#include <utility>

namespace qm5 {

namespace {

QEvent::Type stepSubmitted() {
  static const int type = QEvent::registerEventType();
  return static_cast<QEvent::Type>(type);
}

}  // namespace

void MainQueue::async(Step step) {
  {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
  }
  // One event a step: a step may enter an event loop of its own, and the steps behind it
  // are then served there.
  QCoreApplication::postEvent(this, new QEvent(stepSubmitted()));
}

void MainQueue::perform(Step step) {
  if (std::this_thread::get_id() == main_thread_) return step();
  async(std::move(step));
}

bool MainQueue::event(QEvent* event) {
  if (event->type() != stepSubmitted()) return QObject::event(event);
  Step step;
  {
    const std::lock_guard lock(mutex_);
    step = std::move(steps_.front());
    steps_.pop_front();
  }
  step();
  return true;
}

}  // namespace qm5
