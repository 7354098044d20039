// Has a success confirmed by the QM5 itself: once it has been away while the finish dialog
// stands, asks it which version it reports, and shows what came of that.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "app_shell/ports/window.h"
#include "device_link/device_presence.h"

namespace qm5 {

/// All on the main thread. Sends nothing before begin(), and then one version read in all.
class PowerCycleCheck : public std::enable_shared_from_this<PowerCycleCheck> {
 public:
  /// Submits a job to the queue of the update jobs; false when it will not run.
  using Submit = std::function<bool(std::function<void()> job)>;

  /// Follows the bus from now on. Call it before the Driver is made, so that no arrival is
  /// missed.
  static std::shared_ptr<PowerCycleCheck> follow();

  /// What the check works with.
  struct Finish {
    std::shared_ptr<Window> dialog;           ///< grows by an indicator once the QM5 has gone
    std::weak_ptr<StatusIndicator> fallback;  ///< used where the screen has no room for that
    DeviceState device;                       ///< what is on the bus now
    std::string_view expected_version;        ///< what the QM5 reports after a good update
    Submit submit;
  };
  /// From now on shows what becomes of the QM5 that the Driver has. Call it for each finish dialog
  /// once, when that is shown.
  void begin(Finish finish);

 private:
  struct Arrival {
    std::uint64_t id = 0;
    std::string location;
    bool was_announced = false;
  };
  enum class Phase {
    idle,      ///< no finish dialog
    present,   ///< the QM5 has not been away yet
    away,      ///< it has gone
    back,      ///< it is there again, and is about to be asked
    answered,  ///< what came of asking it is shown, and stays
  };

  PowerCycleCheck() = default;
  void noteArrival(const Arrival& arrival);
  void noteRemoval(std::uint64_t id);
  void waitForReturn();
  void ask(std::uint64_t id);
  void showVersion(const std::optional<std::string>& version);
  void showWhyNotAsked(std::string_view reason);
  void show(StatusKind kind, std::string_view text);

  Finish finish_;
  Phase phase_ = Phase::idle;
  std::string newest_location_;  // of the last one that the Driver was told of
  std::string location_;         // where the updated QM5 was; empty: not known
  std::uint64_t id_ = 0;         // of the QM5 that is present or back
  std::set<std::uint64_t> gone_;
  std::weak_ptr<StatusIndicator> indicator_;
  std::atomic<bool> asked_ = false;  // set by the job that asks
  std::optional<NotificationCenter::Registration> arrivals_;
  std::optional<NotificationCenter::Registration> removals_;
};

}  // namespace qm5
