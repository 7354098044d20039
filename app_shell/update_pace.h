// What a person wants to know while an update runs, beside its percentage: for how long it
// has been running, how much longer the writing takes, and what is going on.
#pragma once

#include <string>

namespace qm5 {

/// Times are seconds of one monotonic clock.
class UpdatePace {
 public:
  explicit UpdatePace(double now) : start_(now) {}

  /// Notes a progress value, a percentage. The writing ends at 99; what comes then can't be
  /// told beforehand.
  void progressed(double percent, double now);

  /// As in "Time: 1:05".
  std::string elapsed(double now) const;
  /// As in "About 2 minutes left to write"; empty while that can't be told honestly: before
  /// enough has been written to judge by, and once all is.
  std::string remaining(double now) const;
  /// What the device is busy with.
  std::string phase(double now) const;

 private:
  struct Step {
    double percent;
    double time;
  };

  bool hasStarted() const { return last_.percent >= 0; }
  bool isChecking() const;

  double start_;
  Step first_ = {-1, 0};  // of the writing
  Step last_ = {-1, 0};
};

}  // namespace qm5
