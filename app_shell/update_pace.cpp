#include "app_shell/update_pace.h"

#include <cmath>

namespace qm5 {
namespace {

// Where the bar stands while the device checks the image.
constexpr double kWritten = 99;  // percent

// What must have been written before its pace says something about the rest.
constexpr double kLeastWritten = 5;  // percent
constexpr double kLeastTime = 3;     // seconds

// A block takes milliseconds, and a device that has gone lets the host wait for minutes.
constexpr double kLongPause = 5;  // seconds

}  // namespace

bool UpdatePace::isChecking() const {
  return last_.percent >= kWritten;
}

void UpdatePace::progressed(double percent, double now) {
  // The writing reports from 0 on, after the device was told of the update at 1.
  if (!hasStarted() || percent < last_.percent) first_ = {percent, now};
  last_ = {percent, now};
}

std::string UpdatePace::elapsed(double now) const {
  const long seconds = std::lround(std::floor(now - start_));
  const std::string two_digits = std::to_string(100 + seconds % 60).substr(1);
  return std::string("Time: ").append(std::to_string(seconds / 60)).append(":").append(two_digits);
}

std::string UpdatePace::remaining(double now) const {
  const double written = last_.percent - first_.percent;
  const double time = now - first_.time;
  if (isChecking() || written < kLeastWritten || time < kLeastTime) return "";
  // The time that has passed since the last step counts: a pace that drops shows at once.
  const long minutes = std::lround(std::ceil((kWritten - last_.percent) * time / written / 60));
  if (minutes <= 1) return "Less than a minute left to write";
  return std::string("About ").append(std::to_string(minutes)).append(" minutes left to write");
}

std::string UpdatePace::phase(double now) const {
  const bool pauses = now - (hasStarted() ? last_.time : start_) > kLongPause;
  if (isChecking()) return "The QM5 is checking the new firmware. This can take minutes.";
  if (pauses) return "Waiting for the QM5 to respond.";
  return hasStarted() ? "Writing the new firmware." : "Looking for the QM5.";
}

}  // namespace qm5
