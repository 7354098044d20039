// Qt's event dispatcher of the main thread in virtual time: timers go by the process's clock, and
// short ones, which only put work off, end once there is nothing else to do. Its locks are its own,
// where ThreadSanitizer can see them.
#pragma once

#include <qpa/qwindowsysteminterface.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QTimerEvent>
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

#include "platform/clock.h"

namespace qm5::test {

class VirtualEventLoop final : public QAbstractEventDispatcher {
 public:
  using QAbstractEventDispatcher::QAbstractEventDispatcher;
  using Step = std::function<void()>;

  /// Has `step` run on the main thread, in whatever loop is innermost there, once events and timers
  /// leave nothing else to do. Any thread.
  void post(Step step) {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
    changed_.notify_all();
  }

  bool processEvents(QEventLoop::ProcessEventsFlags flags) override {
    QCoreApplication::sendPostedEvents();
    QWindowSystemInterface::sendWindowSystemEvents(flags);
    const Step step = next(flags.testFlag(QEventLoop::WaitForMoreEvents));
    if (step) step();
    return step != nullptr;
  }
  void wakeUp() override {
    const std::lock_guard lock(mutex_);
    woken_ = true;
    changed_.notify_all();
  }
  void interrupt() override { wakeUp(); }
  void registerTimer(int id, qint64 interval, Qt::TimerType, QObject* object) override {
    timers_[id] = {object, interval, dueAfter(interval)};
  }
  bool unregisterTimer(int id) override { return timers_.erase(id) > 0; }
  bool unregisterTimers(QObject* object) override {
    return std::erase_if(timers_, [&](const auto& timer) { return timer.second.object == object; });
  }
  QList<TimerInfo> registeredTimers(QObject*) const override { return {}; }
  int remainingTime(int) override { return 0; }
  void registerSocketNotifier(QSocketNotifier*) override {}
  void unregisterSocketNotifier(QSocketNotifier*) override {}

 private:
  struct Timer {
    QObject* object;
    qint64 interval;  // milliseconds
    double due;
  };

  static double dueAfter(qint64 interval) {
    return processClock().now() + (interval < 200 ? 0 : static_cast<double>(interval) / 1000);
  }
  Step next(bool waits) {
    auto due = timers_.end();
    const auto is_ready = [&] {
      due = std::find_if(timers_.begin(), timers_.end(), [now = processClock().now()](auto& timer) {
        return timer.second.due <= now;
      });
      return !waits || woken_ || due != timers_.end() || !steps_.empty();
    };
    std::unique_lock lock(mutex_);
    changed_.wait(lock, is_ready);
    if (std::exchange(woken_, false)) return nullptr;
    if (due != timers_.end()) {
      due->second.due = dueAfter(due->second.interval);
      return [id = due->first, object = due->second.object] {
        QTimerEvent event(id);
        QCoreApplication::sendEvent(object, &event);
      };
    }
    if (!waits || steps_.empty()) return nullptr;
    Step step = std::move(steps_.front());
    steps_.pop_front();
    return step;
  }

  std::map<int, Timer> timers_;  // by id; main thread
  std::mutex mutex_;             // guards what follows
  std::condition_variable changed_;
  bool woken_ = false;
  std::deque<Step> steps_;
};

}  // namespace qm5::test
