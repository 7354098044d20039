#include "device_link/bus_presence.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "device_link/driver.h"

namespace qm5 {

BusPresence::BusPresence(std::function<void()> changed)
    : changed_(std::move(changed)),
      examined_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceExamined, [this](const Notification& posted) { examined(posted); })),
      disconnected_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceDisconnected, [this](const Notification& posted) { disconnected(posted); })) {}

BusState BusPresence::state() const {
  const std::lock_guard lock(mutex_);
  if (present_.empty()) return BusState::absent;
  // Asked for by itself: the Driver misses what is announced before it listens.
  // Of a removal it may hear a moment later than this.
  const auto held = global_driver ? global_driver->deviceInfo() : std::nullopt;
  if (held && present_.contains(held->id)) return BusState::connected;
  const bool refused = std::any_of(present_.begin(), present_.end(), [](const auto& device) {
    return device.second == kIOReturnNotPermitted;
  });
  return refused ? BusState::notPermitted : BusState::unusable;
}

// Comes after the announcement, when the Driver has the device if it ever will.
void BusPresence::examined(const Notification& notification) {
  const auto* id = objectValue<std::uint64_t>(notification, "id");
  const auto* result = objectValue<IOReturn>(notification, "result");
  if (id == nullptr || result == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    present_[*id] = *result;
  }
  changed_();
}

void BusPresence::disconnected(const Notification& notification) {
  const auto* id = objectValue<std::uint64_t>(notification, "id");
  if (id == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    present_.erase(*id);
  }
  changed_();
}

}  // namespace qm5
