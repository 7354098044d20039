#include "main_queue/main_queue.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <chrono>
#include <utility>

namespace qm5 {

namespace {

// About two frames of a usual screen: nobody can read a text that changes more often, and each
// drawing takes time from the update where cores are few. A window costs two wake-ups, one for its
// end and one for a step or the drawing; 36 ms keeps them below 60 per second.
constexpr int kCoalesceWindow = 36;  // milliseconds

// How long steps run before keys and drawing have their turn: well within a frame.
constexpr std::chrono::milliseconds kLongestRun{4};

QEvent::Type stepsWaiting() {
  static const int type = QEvent::registerEventType();
  return static_cast<QEvent::Type>(type);
}

}  // namespace

void MainQueue::async(Step step) {
  bool was_idle = false;
  {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
    was_idle = std::exchange(is_idle_, false);
  }
  if (was_idle) QCoreApplication::postEvent(this, new QEvent(stepsWaiting()));
}

void MainQueue::perform(Step step) {
  if (std::this_thread::get_id() == main_thread_) return step();
  async(std::move(step));
}

bool MainQueue::event(QEvent* event) {
  if (event->type() != stepsWaiting()) return QObject::event(event);
  continues_ = false;
  if (!isTurnOpen()) {
    beginTurn();
  } else {
    is_drawing_due_ = true;
    runSteps();
  }
  return true;
}

void MainQueue::timerEvent(QTimerEvent*) {
  if (is_drawing_due_ || !becomeIdleIfEmpty()) return beginTurn();
  window_.stop();
}

// The timer is a new one each time, started before the steps: Qt fires no timer again while its
// event is being handled, and a step may enter an event loop of its own, in which this timer sees
// to the steps behind it.
void MainQueue::beginTurn() {
  window_.start(kCoalesceWindow, this);
  runSteps();
  is_drawing_due_ = false;
  emit turnEnded();
}

void MainQueue::runSteps() {
  const QDeadlineTimer end(kLongestRun);
  while (!end.hasExpired()) {
    const Step step = popStep();
    if (!step) return;
    step();
  }
  if (std::exchange(continues_, true)) return;
  QCoreApplication::postEvent(this, new QEvent(stepsWaiting()));
}

// The first step; empty when there is none.
MainQueue::Step MainQueue::popStep() {
  const std::lock_guard lock(mutex_);
  if (steps_.empty()) return nullptr;
  Step step = std::move(steps_.front());
  steps_.pop_front();
  return step;
}

bool MainQueue::becomeIdleIfEmpty() {
  const std::lock_guard lock(mutex_);
  is_idle_ = steps_.empty();
  return is_idle_;
}

}  // namespace qm5
