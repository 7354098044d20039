// The one way to let time pass, and to tell how much has.
// Production: the operating system's monotonic clock.
// Tests: tests/support/virtual_clock.h, which records the sleeps and costs no time.
#pragma once

namespace qm5 {

class Clock {
 public:
  virtual ~Clock() = default;
  /// Blocks the calling thread for `seconds`.
  virtual void sleep(double seconds) = 0;
  /// Seconds since some fixed moment, never going back. Any thread.
  virtual double now() = 0;
};

/// The clock that the whole process sleeps by. Any thread.
Clock& processClock();

/// Replaces it; nullptr restores the operating system's. `clock` stays the caller's.
void setProcessClock(Clock* clock);

}  // namespace qm5
