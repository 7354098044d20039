// What is on the bus as a person needs to know it: which QM5s are there, and whether this
// program can use one of them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "device_monitor/usb_registry.h"
#include "platform/notification_center.h"

namespace qm5 {

enum class DeviceAvailability {
  absent,        ///< no matching device is there
  connected,     ///< the Driver has one
  missed,        ///< the one announced last is there, but came before the Driver listened
  notFollowed,   ///< one is there, but the Driver followed another one, which has left
  notPermitted,  ///< one is there, but this user may not open it
  unusable,      ///< one is there, but could not be opened for another reason
};

/// What is on the bus at one moment.
struct DeviceState {
  DeviceAvailability availability = DeviceAvailability::absent;
  std::set<std::uint64_t> present;    ///< ids of all matching devices that are there
  std::optional<std::uint64_t> used;  ///< the one of them that the Driver has
  std::string location;               ///< where that one is plugged in; empty when not known
};

/// Follows the notifications of the process's monitor. Made before the Driver, so that it
/// hears of every device, of those that are announced before the Driver listens too.
class DevicePresence {
 public:
  /// Has `changed` called after each arrival and removal, on the thread that reported it.
  explicit DevicePresence(std::function<void()> changed);

  /// What is so now, for the Driver in `global_driver`. Sends nothing. Main thread.
  DeviceState state() const;

 private:
  struct Examined {
    IOReturn result;  ///< how opening it ended
    std::string location;
  };

  void examined(const Notification& notification);
  void disconnected(const Notification& notification);
  bool isThere(std::uint64_t id) const;
  DeviceAvailability withoutUsedDevice() const;

  const std::function<void()> changed_;
  mutable std::mutex mutex_;  // guards what follows
  std::map<std::uint64_t, Examined> present_;
  std::set<std::uint64_t> gone_;      // the newest ids that have left: none comes back
  std::uint64_t last_announced_ = 0;  // the id; 0: none
  const NotificationCenter::Registration examined_;
  const NotificationCenter::Registration disconnected_;
};

}  // namespace qm5
