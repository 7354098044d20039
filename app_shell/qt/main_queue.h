// The main queue: steps from any thread, run on the main thread one by one in the order
// of submission, in whatever event loop is innermost. However fast they come, what else the
// loop serves has its turn in between.
#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace qm5 {

class MainQueue : public QObject {
 public:
  using Step = std::function<void()>;

  /// Made on the main thread, which is the one that runs the steps.
  MainQueue() = default;

  /// Submits `step` and returns at once. Any thread.
  void async(Step step);
  /// Runs `step` now on the main thread; from any other thread submits it. Any thread.
  void perform(Step step);

  bool event(QEvent* event) override;

 private:
  void wake();
  Step takeStep();

  const std::thread::id main_thread_ = std::this_thread::get_id();
  // A lock of our own orders the steps for every observer; Qt is only woken by it.
  std::mutex mutex_;
  std::deque<Step> steps_;
  bool woken_ = false;  // an event is on its way that will see to the steps
};

}  // namespace qm5
