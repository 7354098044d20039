// Has a success confirmed by the QM5 itself: once it has been away after the update, asks it which
// version it reports, and says what came of that.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "device_link/device_presence.h"
#include "platform/notification_center.h"

namespace qm5 {

/// What the check says last.
enum class PowerCycle {
  awaited,      ///< the QM5 has gone, or is being asked
  confirmed,    ///< it came back with the expected version
  unconfirmed,  ///< it came back, but that is not known, or not so
};

/// All on the main thread. Sends nothing before begin(), and after it one version read for
/// each return of the QM5, until one has been answered or refused while the QM5 stayed.
class PowerCycleCheck : public std::enable_shared_from_this<PowerCycleCheck> {
 public:
  /// Submits a job to the queue of the update jobs; false when it will not run.
  using Submit = std::function<bool(std::function<void()> job)>;
  /// Has a step run on the main thread, later.
  using OnMain = std::function<void(std::function<void()> step)>;
  /// Shows a text that stays true until the next one.
  using Show = std::function<void(PowerCycle state, std::string_view text)>;

  /// Follows the bus from now on. Call it before the Driver is made, so that no arrival is
  /// missed.
  static std::shared_ptr<PowerCycleCheck> follow(OnMain on_main);

  /// What the check works with.
  struct Finish {
    DeviceState device;                 ///< what is on the bus now
    std::string_view expected_version;  ///< what the QM5 reports after a good update
    Submit submit;
    Show show;  ///< called once the QM5 has gone, and with each change after that
  };
  /// From now on says what becomes of the QM5 that the Driver has. Call it after each success once.
  void begin(Finish finish);

 private:
  struct Arrival {
    std::uint64_t id = 0;
    std::string location;
    bool was_announced = false;
  };
  enum class Phase {
    idle,      ///< no success yet
    present,   ///< the QM5 has not been away yet
    away,      ///< it has gone
    back,      ///< it is there again, and is about to be asked
    answered,  ///< what came of asking it has been said, and stays
  };

  explicit PowerCycleCheck(OnMain on_main) : on_main_(std::move(on_main)) {}
  void noteArrival(const Arrival& arrival);
  void noteRemoval(std::uint64_t id);
  void waitForReturn();
  void ask(std::uint64_t id);
  void showVersion(const std::optional<std::string>& version);
  void showWhyNotAsked(std::string_view reason);

  const OnMain on_main_;
  Finish finish_;
  Phase phase_ = Phase::idle;
  std::string newest_location_;  // of the last one that the Driver was told of
  std::string location_;         // where the updated QM5 was; empty: not known
  std::uint64_t id_ = 0;         // of the QM5 that is present or back
  std::set<std::uint64_t> gone_;
  std::optional<NotificationCenter::Registration> arrivals_;
  std::optional<NotificationCenter::Registration> removals_;
};

}  // namespace qm5
