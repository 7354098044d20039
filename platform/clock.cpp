#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace qm5 {
namespace {

class SystemClock final : public Clock {
 public:
  void sleep(double seconds) override {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
  double now() override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
};

SystemClock system_clock;
std::atomic<Clock*> current = &system_clock;

}  // namespace

Clock& processClock() {
  return *current;
}

void setProcessClock(Clock* clock) {
  current = clock != nullptr ? clock : &system_clock;
}

}  // namespace qm5
