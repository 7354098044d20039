// What is on the bus as a person needs to know it: whether a QM5 is there, and whether this
// program can use it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

#include "device_monitor/usb_registry.h"
#include "platform/notification_center.h"

namespace qm5 {

enum class BusState {
  absent,        ///< no matching device is there
  connected,     ///< the Driver has one
  notPermitted,  ///< one is there, but this user may not open it
  unusable,      ///< one is there, but the Driver has none, for whatever other reason
};

/// Follows the notifications of the process's monitor. Made before the Driver, so that it
/// hears of every device, of those that are announced before the Driver listens too.
class BusPresence {
 public:
  /// Has `changed` called after each arrival and removal, on the thread that reported it.
  explicit BusPresence(std::function<void()> changed);

  /// What is so now, for the Driver in `global_driver`. Sends nothing. Main thread.
  BusState state() const;

 private:
  void examined(const Notification& notification);
  void disconnected(const Notification& notification);

  const std::function<void()> changed_;
  mutable std::mutex mutex_;
  std::map<std::uint64_t, IOReturn> present_;  // by id: how its opening ended
  const NotificationCenter::Registration examined_;
  const NotificationCenter::Registration disconnected_;
};

}  // namespace qm5
