// The clock port's fake: records the sleeps and returns from them at once.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace qm5::test {

class VirtualClock final : public Clock {
 public:
  VirtualClock() { setProcessClock(this); }
  ~VirtualClock() override { setProcessClock(nullptr); }

  /// Called on the sleeping thread: at the beginning of each sleep, and when its time has passed.
  std::function<void()> before_sleep;
  std::function<void(double)> during_sleep;

  /// Returns the sleeps since the last call, in seconds.
  std::vector<double> newSleeps() {
    const std::lock_guard lock(mutex_);
    return std::exchange(sleeps_, {});
  }

  /// Lets time pass while nobody sleeps.
  void pass(double seconds) {
    const std::lock_guard lock(mutex_);
    now_ += seconds;
  }

  // The port.
  double now() override {
    const std::lock_guard lock(mutex_);
    return now_;
  }
  void sleep(double seconds) override {
    if (before_sleep) before_sleep();
    {
      const std::lock_guard lock(mutex_);
      sleeps_.push_back(seconds);
      now_ += seconds;
    }
    if (during_sleep) during_sleep(seconds);
  }

 private:
  std::mutex mutex_;
  std::vector<double> sleeps_;
  double now_ = 0;
};

}  // namespace qm5::test
