// What a person wants to know while an update runs, beside its percentage: for how long it
// has been running, how much longer the writing takes, what is going on, and what has become of
// the QM5.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "update_run/device_of_update.h"

namespace qm5 {

/// That the system may put the computer to sleep during the update.
inline constexpr std::string_view kMaySleepText =
    "The updater can't keep the computer from going to sleep. "
    "See to it that it stays awake until the update is done.";

/// Times are seconds of one monotonic clock. All texts of the progress window that change with
/// time stand here:
///
/// | field        | text                              | while                                     |
/// |--------------|-----------------------------------|-------------------------------------------|
/// | txtElapsed   | Elapsed: <m:ss>                   | always                                    |
/// | txtRemaining | About <n> minutes left to write,  | chunks are being taken, and enough have   |
/// |              | Less than a minute left to write  | been to judge by; it changes with a chunk |
/// | txtPhase     | Looking for the QM5.              | the job has not looked for a QM5 yet or   |
/// |              |                                   | found none: none is there                 |
/// |              | Preparing the update.             | nothing reported yet, a QM5 is there      |
/// |              | Writing the new firmware.         | the opening task or a chunk was reported  |
/// |              | The QM5 is checking …             | a signature or key block was reported     |
/// |              | Waiting for the QM5 to respond.   | the same three, but no report for 5 s,    |
/// |              |                                   | and no answer either while it checks      |
/// |              | All has been sent.                | the last step was reported                |
/// |              | Waiting for the update to end.    | the QM5 is away, came back or is replaced |
/// | deviceStatus | …disconnected…, …is back…,        | the same, a text for each; of the first,  |
/// |              | Another QM5 was connected…        | one for the checking too                  |
/// |              | The QM5 does not answer. …        | the QM5 is to check, and pauses as above  |
/// | sleepStatus  | …can't keep the computer from…    | the system refused to stay awake          |
///
/// Once all has been sent, nothing is said of the QM5 any more.
class UpdatePace {
 public:
  /// An update of so many chunks begins.
  UpdatePace(double now, std::size_t chunks) : start_(now), chunks_(chunks) {}

  /// Notes that step `number` of the update was reported. They count from 1: the opening task,
  /// the chunks, the signature and key blocks, the end.
  void progressed(std::size_t number, double now);
  /// When the QM5 last answered a request.
  void answered(double time) { answered_ = time; }
  void deviceIs(UpdatedDevice device) { device_ = device; }

  std::string elapsed(double now) const;
  /// Empty while that can't be told honestly.
  std::string remaining(double now) const;
  std::string_view phase(double now) const;
  /// What has become of the QM5; empty while all is well.
  std::string_view warning(double now) const;

 private:
  enum class Stage { opening, writing, checking, sent };
  struct Step {
    std::size_t number;
    double time;
  };

  Stage stage() const;
  bool isLost(double now) const;
  bool pauses(double now) const;

  double start_;
  std::size_t chunks_;
  Step first_ = {0, 0};  // of the chunks
  Step last_ = {0, 0};
  double answered_ = 0;
  UpdatedDevice device_ = UpdatedDevice::there;
};

}  // namespace qm5
