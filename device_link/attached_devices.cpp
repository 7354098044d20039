#include "device_link/attached_devices.h"

#include "device_link/customer_version.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

AttachedDevice::Access accessOf(IOReturn result) {
  if (result == kIOReturnSuccess) return AttachedDevice::Access::permitted;
  return result == kIOReturnNotPermitted ? AttachedDevice::Access::notPermitted
                                         : AttachedDevice::Access::failed;
}

// The link uses the device that was announced last: announced once more, it is that one.
void announce(const USBDevice& device) {
  required(global_driver, "no device link")
      .usbConnected({USBDeviceConnected, Dictionary{{"device", device}}});
}

}  // namespace

AttachedDevices::AttachedDevices()
    : connected_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceConnected, [this](const Notification& posted) { connected(posted); })),
      examined_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceExamined, [this](const Notification& posted) { examined(posted); })),
      disconnected_(NotificationCenter::defaultCenter().addObserver(
          USBDeviceDisconnected, [this](const Notification& posted) { disconnected(posted); })) {}

// With the mutex held to the end: a removal reaches the Driver after that.
void AttachedDevices::announceMissed() {
  const std::lock_guard lock(mutex_);
  driver_ = global_driver;
  for (auto each = known_.rbegin(); each != known_.rend(); ++each) {
    if (each->second.announced && !global_driver->deviceInfo()) announce(*each->second.announced);
  }
}

std::vector<AttachedDevice> AttachedDevices::list() const {
  const std::lock_guard lock(mutex_);
  std::vector<AttachedDevice> devices;
  for (const auto& [id, each] : known_)
    devices.push_back({each.location, accessOf(each.result), std::nullopt, each.announced});
  return devices;
}

void readVersion(AttachedDevice& device) {
  if (!device.device) return;
  announce(*device.device);
  device.version = read_customer_version();
}

void AttachedDevices::connected(const Notification& posted) {
  const auto* device = objectValue<USBDevice>(posted, "device");
  if (device == nullptr) return;
  const std::lock_guard lock(mutex_);
  known_[device->id].announced = *device;
  // This notification may have begun before the Driver listened.
  if (const auto driver = driver_.lock(); driver && !driver->deviceInfo())
    driver->usbConnected(posted);
}

void AttachedDevices::examined(const Notification& posted) {
  const auto* id = objectValue<std::uint64_t>(posted, "id");
  const auto* result = objectValue<IOReturn>(posted, "result");
  const auto* location = objectValue<std::string>(posted, "location");
  if (id == nullptr || result == nullptr || location == nullptr) return;
  if (*result == kIOReturnNoDevice) return;  // it has left already
  const std::lock_guard lock(mutex_);
  Known& known = known_[*id];
  known.result = *result;
  known.location = *location;
}

void AttachedDevices::disconnected(const Notification& posted) {
  const auto* id = objectValue<std::uint64_t>(posted, "id");
  if (id == nullptr) return;
  const std::lock_guard lock(mutex_);
  known_.erase(*id);
  if (const auto driver = driver_.lock()) driver->usbDisconnected(posted);  // as above
}

}  // namespace qm5
