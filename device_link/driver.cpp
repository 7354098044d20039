#include "device_link/driver.h"

#include <algorithm>
#include <array>
#include <vector>

#include "device_link/vendor_requests.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

// The preset of wLenDone. The count of bytes moved is never read back.
constexpr std::uint32_t kPresetLengthDone = 0xFF;

}  // namespace

std::shared_ptr<Driver> global_driver;

Driver::Driver(std::uint16_t vendor, std::uint16_t product)
    : vendorID(vendor),
      productID(product),
      deviceMonitor(
          std::make_shared<USBDeviceMonitor>(std::vector<USBMonitorData>{{vendor, product}})),
      deviceMonitorDaemon("USBMonitor", [monitor = deviceMonitor] { monitor->start(); }) {
  // The thread starts before the observers are registered. This order is intended, though what the
  // monitor announces in between is missed.
  if (!deviceMonitorDaemon.start()) cannotStart("there is no thread left to watch the USB bus");
  NotificationCenter& center = NotificationCenter::defaultCenter();
  connected_.emplace(center.addObserver(
      USBDeviceConnected, [this](const Notification& posted) { usbConnected(posted); }));
  disconnected_.emplace(center.addObserver(
      USBDeviceDisconnected, [this](const Notification& posted) { usbDisconnected(posted); }));
}

std::optional<USBDevice> Driver::deviceInfo() const {
  const std::lock_guard lock(mutex_);
  return device_info_;
}

void Driver::usbConnected(const Notification& notification) {
  const auto* device = objectValue<USBDevice>(notification, "device");
  if (device == nullptr) return;
  const std::lock_guard lock(mutex_);
  device_info_ = *device;
}

void Driver::usbDisconnected(const Notification& notification) {
  const auto* id = objectValue<std::uint64_t>(notification, "id");
  if (id == nullptr) return;
  const std::lock_guard lock(mutex_);
  // The removal of some other matching device leaves the attached one in place.
  if (device_info_ && device_info_->id == *id) device_info_.reset();
}

bool Driver::usb_find() {
  print("Checking for TI SOC on USB via IOKit driver");
  if (!deviceInfo()) return false;
  print("Found TI SOC on IOKit");
  return true;
}

std::optional<Bytes> Driver::usb_read(std::uint8_t requestType, std::uint8_t request,
                                      std::uint16_t addr, std::uint16_t index,
                                      std::uint16_t length) {
  IOUSBDeviceStruct942* const interface = deviceInterface();
  if (interface == nullptr) return std::nullopt;
  Bytes reply(length);
  IOUSBDevRequest record{requestType,  request,          addr, index, length,
                         reply.data(), kPresetLengthDone};
  if (interface->DeviceRequest(record) != kIOReturnSuccess) return std::nullopt;
  last_answer_ = processClock().now();
  return reply;
}

std::size_t Driver::usb_write(std::uint32_t requestType, std::uint32_t request, std::uint32_t addr,
                              std::uint32_t index, ByteView data) {
  IOUSBDeviceStruct942* const interface = deviceInterface();
  if (interface == nullptr) return 0;
  IOUSBDevRequest record{};
  record.bmRequestType = narrow<std::uint8_t>(requestType, "requestType over 8 bits");
  record.bRequest = narrow<std::uint8_t>(request, "request over 8 bits");
  record.wValue = narrow<std::uint16_t>(addr, "addr over 16 bits");
  record.wIndex = narrow<std::uint16_t>(index, "index over 16 bits");
  record.wLength = narrow<std::uint16_t>(data.size(), "data longer than a control request");
  record.wLenDone = kPresetLengthDone;
  // The port may write to the buffer, so it gets a copy. Register writes come by the thousand:
  // theirs needs no memory from the heap.
  std::array<std::uint8_t, kBytesPerRegisterWrite> chunk;
  Bytes larger;
  if (data.size() > chunk.size()) larger.resize(data.size());
  record.pData = larger.empty() ? chunk.data() : larger.data();
  std::copy(data.begin(), data.end(), record.pData);
  return interface->DeviceRequest(record) == kIOReturnSuccess ? data.size() : 0;
}

// The interface for one request; nullptr when no device is attached or the device has none. It
// stays valid after the device has left: requests then fail.
IOUSBDeviceStruct942* Driver::deviceInterface() const {
  const std::lock_guard lock(mutex_);
  if (!device_info_ || device_info_->deviceInterfacePtrPtr == nullptr) return nullptr;
  return *device_info_->deviceInterfacePtrPtr;
}

}  // namespace qm5
