#include "app_shell/qt/main_queue.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <chrono>
#include <utility>

namespace qm5 {

namespace {

// How long steps run before keys and drawing have their turn: well within a frame.
constexpr std::chrono::milliseconds kTurn{4};

QEvent::Type stepsWaiting() {
  static const int type = QEvent::registerEventType();
  return static_cast<QEvent::Type>(type);
}

}  // namespace

void MainQueue::async(Step step) {
  const std::lock_guard lock(mutex_);
  steps_.push_back(std::move(step));
  wake();
}

// Called with the mutex held.
void MainQueue::wake() {
  if (std::exchange(woken_, true)) return;
  QCoreApplication::postEvent(this, new QEvent(stepsWaiting()));
}

void MainQueue::perform(Step step) {
  if (std::this_thread::get_id() == main_thread_) return step();
  async(std::move(step));
}

bool MainQueue::event(QEvent* event) {
  if (event->type() != stepsWaiting()) return QObject::event(event);
  {
    const std::lock_guard lock(mutex_);
    woken_ = false;
  }
  const QDeadlineTimer turn(kTurn);
  do {
    const Step step = takeStep();
    if (!step) break;
    step();
  } while (!turn.hasExpired());
  return true;
}

// The first step; empty when there is none.
MainQueue::Step MainQueue::takeStep() {
  const std::lock_guard lock(mutex_);
  if (steps_.empty()) return nullptr;
  Step step = std::move(steps_.front());
  steps_.pop_front();
  // This step may enter an event loop of its own, and those behind it are then served there.
  if (!steps_.empty()) wake();
  return step;
}

}  // namespace qm5
