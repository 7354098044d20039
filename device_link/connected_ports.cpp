#include "device_link/connected_ports.h"

#include <algorithm>
#include <utility>

#include "device_link/driver.h"
#include "platform/fatal.h"
#include "platform/thread.h"

namespace qm5 {

ConnectedPorts::ConnectedPorts(std::function<void()> arrived)
    : USBDeviceMonitor({{kVendorTexasInstruments, kProductQM5}}), arrived_(std::move(arrived)) {
  if (!Thread("USBMonitor", [this] { start(); }).start())
    cannotStart("there is no thread left to watch the USB bus");
}

std::vector<std::string> ConnectedPorts::locations() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> locations;
  for (const auto& [id, location] : locations_) locations.push_back(location);
  return locations;
}

void ConnectedPorts::rawDeviceAdded(io_iterator_t iterator) {
  USBRegistry& registry = usbRegistry();
  while (const io_service_t service = registry.iteratorNext(iterator)) {
    std::uint64_t id = 0;
    io_name_t location{};
    registry.registryEntryGetRegistryEntryID(service, id);
    const IOReturn result = registry.registryEntryGetLocation(service, location);
    registry.objectRelease(service);
    if (result != kIOReturnSuccess) continue;  // it has left already
    {
      const std::lock_guard lock(mutex_);
      locations_[id].assign(location.begin(), std::find(location.begin(), location.end(), '\0'));
    }
    arrived_();
  }
}

void ConnectedPorts::rawDeviceRemoved(io_iterator_t iterator) {
  USBRegistry& registry = usbRegistry();
  while (const io_service_t service = registry.iteratorNext(iterator)) {
    std::uint64_t id = 0;
    registry.registryEntryGetRegistryEntryID(service, id);
    registry.objectRelease(service);
    const std::lock_guard lock(mutex_);
    locations_.erase(id);
  }
}

}  // namespace qm5
