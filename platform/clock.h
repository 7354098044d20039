// The clock port: the only way for the program to sleep and to measure time.
// Production: the operating system's monotonic clock, in clock.cpp.
// Tests: tests/support/virtual_clock.h, which records the sleeps and returns at once.
#pragma once

#include "platform/port.h"

namespace qm5 {

class Clock : public PortObject {
 public:
  virtual ~Clock() = default;
  /// Blocks the calling thread for `seconds`. Never fails. Any thread.
  virtual void sleep(double seconds) = 0;
  /// Seconds since a fixed moment; never decreases. Any thread.
  virtual double now() = 0;
};

/// The clock of the whole process. Any thread.
Clock& processClock();

/// Replaces the process's clock; nullptr restores the operating system's. The caller owns `clock`
/// and keeps it for as long as it is set. Any thread.
void setProcessClock(Clock* clock);

}  // namespace qm5
