// The main queue: steps from any thread, run on the main thread one by one in the order of
// submission, in whatever event loop is innermost.
//
// A step that comes to an idle queue wakes the main thread and runs at once. From then on the main
// thread looks for further steps once per coalescing window, until it finds none. So however fast
// steps come, a submitter pays for no wake-up, and the main thread wakes at most 60 times per
// second: once per window by the timer and, at worst, once by a step that comes to the idle queue.
#pragma once

#include <QBasicTimer>
#include <QObject>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace qm5 {

class MainQueue : public QObject {
  Q_OBJECT

 public:
  using Step = std::function<void()>;

  /// Made on the main thread, which is the one that runs the steps.
  MainQueue() = default;

  /// Submits `step` and returns at once. Any thread.
  void async(Step step);
  /// Runs `step` now on the main thread; from any other thread submits it. Any thread.
  void perform(Step step);

  /// Whether a turnEnded() is going to come. Main thread.
  bool isTurnOpen() const { return window_.isActive(); }

  bool event(QEvent* event) override;

 signals:
  /// The steps of a turn have run: what they have changed is to be drawn now, once for all of
  /// them. At most once per coalescing window; after the last step it comes for certain.
  void turnEnded();

 protected:
  void timerEvent(QTimerEvent* event) override;

 private:
  void beginTurn();
  void runSteps();
  Step popStep();
  bool becomeIdleIfEmpty();

  const std::thread::id main_thread_ = std::this_thread::get_id();
  QBasicTimer window_;           // runs unless the queue is idle; main thread
  bool continues_ = false;       // an event is on its way that goes on with the steps; main thread
  bool is_drawing_due_ = false;  // for steps that have run since turnEnded(); main thread

  // A lock of our own orders the steps for every observer, ThreadSanitizer included, which can't
  // see into Qt's; Qt only wakes the main thread.
  std::mutex mutex_;
  std::deque<Step> steps_;
  bool is_idle_ = true;  // the next step has to wake the main thread
};

}  // namespace qm5
