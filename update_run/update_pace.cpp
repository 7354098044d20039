#include "update_run/update_pace.h"

#include <algorithm>
#include <cmath>

namespace qm5 {
namespace {

// Signature and key, six blocks each.
constexpr std::size_t kCheckedBlocks = 12;

// What must have been written before its pace says something about the rest.
constexpr std::size_t kLeastWritten = 5;  // percent
constexpr double kLeastTime = 3;          // seconds

// A chunk takes milliseconds, and a device that hangs lets the host wait for minutes.
constexpr double kLongPause = 5;  // seconds

// When the job looks for the QM5. Until then, one that has left may come back.
constexpr double kLookingTime = 1;  // seconds

// One that comes back in time may still be told to have been updated.
constexpr std::string_view kAway =
    "The QM5 has been disconnected: without it, the update will end "
    "in an error message. Connect it after that and press Next.";
constexpr std::string_view kAwayWhileChecking =
    "The QM5 has been disconnected: without it, the update will end "
    "in an error message, which can take up to five minutes. "
    "Connect it after that and press Next.";
// Requests have no time-out: one that stays unanswered ends when the QM5 leaves.
constexpr std::string_view kSilentWhileChecking =
    "The QM5 does not answer. Unless it does again, the update can only "
    "end in an error message. If that takes more than five minutes, "
    "unplug the QM5.";
constexpr std::string_view kCameBack =
    "The QM5 was disconnected and is back. This update can't be "
    "relied on: when it has ended, start it again.";
constexpr std::string_view kReplaced =
    "Another QM5 was connected, and the update now goes to that "
    "one. It can't be relied on: when it has ended, connect one "
    "QM5 alone and start it again.";

}  // namespace

UpdatePace::Stage UpdatePace::stage() const {
  if (last_.number == 0) return Stage::opening;
  if (last_.number <= 1 + chunks_) return Stage::writing;
  return last_.number <= 1 + chunks_ + kCheckedBlocks ? Stage::checking : Stage::sent;
}

bool UpdatePace::isLost(double now) const {
  if (device_ <= UpdatedDevice::there || stage() == Stage::sent) return false;
  return stage() != Stage::opening || now - start_ >= kLookingTime;
}

bool UpdatePace::pauses(double now) const {
  const double last = last_.number == 0 ? start_ : last_.time;
  // While it checks, the QM5 takes nothing, but answers each time that it is asked.
  return now - (stage() == Stage::checking ? std::max(last, answered_) : last) > kLongPause;
}

void UpdatePace::progressed(std::size_t number, double now) {
  last_ = {number, now};
  if (first_.number == 0 && number > 1) first_ = last_;
}

std::string UpdatePace::elapsed(double now) const {
  const long seconds = std::lround(std::floor(now - start_));
  std::string text = "Elapsed: ";
  text.append(std::to_string(seconds / 60)).append(":");
  return text.append(std::to_string(100 + seconds % 60).substr(1));  // two digits
}

std::string UpdatePace::remaining(double now) const {
  if (stage() != Stage::writing || first_.number == 0 || isLost(now) || pauses(now)) return "";
  // As of the last chunk: it must not grow while nothing moves.
  const std::size_t written = last_.number - first_.number;
  const double time = last_.time - first_.time;
  if (written * 100 < kLeastWritten * chunks_ || time < kLeastTime) return "";
  const auto left = static_cast<double>(1 + chunks_ - last_.number + 1);
  const double seconds = left * time / static_cast<double>(written);
  const long minutes = std::lround(std::ceil(seconds / 60));
  if (minutes <= 1) return "Less than a minute left to write";
  return std::string("About ").append(std::to_string(minutes)).append(" minutes left to write");
}

std::string_view UpdatePace::phase(double now) const {
  if (isLost(now)) return "Waiting for the update to end.";
  const Stage now_at = stage();
  if (now_at == Stage::sent) return "All has been sent.";
  if (now_at == Stage::opening && device_ != UpdatedDevice::there) return "Looking for the QM5.";
  if (pauses(now)) return "Waiting for the QM5 to respond.";
  if (now_at == Stage::opening) return "Preparing the update.";
  return now_at == Stage::writing ? "Writing the new firmware."
                                  : "The QM5 is checking the new firmware. This can take minutes.";
}

std::string_view UpdatePace::warning(double now) const {
  const bool is_checking = stage() == Stage::checking;
  if (!isLost(now)) return is_checking && pauses(now) ? kSilentWhileChecking : "";
  if (device_ == UpdatedDevice::cameBack) return kCameBack;
  if (device_ == UpdatedDevice::replaced) return kReplaced;
  return is_checking ? kAwayWhileChecking : kAway;
}

}  // namespace qm5
