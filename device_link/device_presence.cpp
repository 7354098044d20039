#include "device_link/device_presence.h"

#include <algorithm>
#include <utility>

#include "device_link/driver.h"

namespace qm5 {
namespace {

// A removal may be reported before the arrival of the same device has been examined, but not
// before that of as many others.
constexpr std::size_t kRemembered = 64;

}  // namespace

DevicePresence::DevicePresence(std::function<void()> changed)
    : changed_(std::move(changed)),
      examined_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceExamined, [this](const Notification& posted) { examined(posted); })),
      disconnected_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceDisconnected, [this](const Notification& posted) { disconnected(posted); })) {}

DeviceState DevicePresence::state() const {
  const std::lock_guard lock(mutex_);
  DeviceState state;
  for (const auto& [id, device] : present_) state.present.insert(id);
  // Asked for by itself: the Driver hears of an arrival a moment earlier than this object, of a
  // removal a moment later, and misses what is announced before it listens.
  const auto held = global_driver ? global_driver->deviceInfo() : std::nullopt;
  if (held && isThere(held->id)) {
    state.used = held->id;
    state.present.insert(held->id);
    const auto device = present_.find(held->id);
    if (device != present_.end()) state.location = device->second.location;
  }
  state.availability = state.used ? DeviceAvailability::connected : withoutUsedDevice();
  return state;
}

// Called with the mutex held, for a device that has been announced.
bool DevicePresence::isThere(std::uint64_t id) const {
  if (present_.contains(id)) return true;
  const bool was_examined = id == last_announced_;
  return !was_examined && !gone_.contains(id);
}

// Called with the mutex held.
DeviceAvailability DevicePresence::withoutUsedDevice() const {
  if (present_.empty()) return DeviceAvailability::absent;
  if (present_.contains(last_announced_)) return DeviceAvailability::missed;
  const auto any = [this](IOReturn result) {
    return std::any_of(present_.begin(), present_.end(),
                       [result](const auto& device) { return device.second.result == result; });
  };
  if (any(kIOReturnSuccess)) return DeviceAvailability::notFollowed;
  return any(kIOReturnNotPermitted) ? DeviceAvailability::notPermitted
                                    : DeviceAvailability::unusable;
}

// Comes after the announcement, when the Driver has the device if it ever will.
void DevicePresence::examined(const Notification& notification) {
  const auto* id = objectValue<std::uint64_t>(notification, "id");
  const auto* result = objectValue<IOReturn>(notification, "result");
  const auto* location = objectValue<std::string>(notification, "location");
  if (id == nullptr || result == nullptr || location == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    // Its removal may have been reported already, or never will be: one that left while the
    // monitor was being set up.
    if (!gone_.contains(*id) && *result != kIOReturnNoDevice) present_[*id] = {*result, *location};
    if (*result == kIOReturnSuccess) last_announced_ = *id;
  }
  changed_();
}

void DevicePresence::disconnected(const Notification& notification) {
  const auto* id = objectValue<std::uint64_t>(notification, "id");
  if (id == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    present_.erase(*id);
    gone_.insert(*id);
    if (gone_.size() > kRemembered) gone_.erase(gone_.begin());
  }
  changed_();
}

}  // namespace qm5
