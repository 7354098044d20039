// A QM5 that is ready at every poll and takes everything at once, right behind the link: no
// bus, no thread, no memory. For looking at what the host's own code costs, where a model of
// the device would cost more.
#pragma once

#include <algorithm>
#include <any>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "device_link/driver.h"
#include "simulator/direct_bus/direct_bus.h"

namespace qm5 {

class ReadyQm5 final : public IOUSBDeviceStruct942 {
 public:
  /// Announces it to the links of the process. It must outlive their last request.
  void attach() {
    NotificationCenter::defaultCenter().post(
        {USBDeviceConnected,
         Dictionary{{"device", USBDevice{1, 0x0451, 0xACE1, "QM5", &device_, nullptr}}}});
  }

  std::size_t requestCount() const { return request_count_; }

  IOReturn USBDeviceOpen() override { return kIOReturnSuccess; }
  IOReturn GetDeviceVendor(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn GetDeviceProduct(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override {
    const bool is_read = (request.bmRequestType & 0x80) != 0;
    ++request_count_;
    request.wLenDone = request.wLength;
    if (!is_read) return kIOReturnSuccess;
    // Every register but the version leads with its length and holds zeros: no command under
    // way, result 0.
    std::fill_n(request.pData, request.wLength, std::uint8_t{0});
    const bool is_version = request.wValue == 0x06;
    request.pData[0] = is_version ? 0x01 : 0x40;
    if (is_version) request.pData[1] = 0x42;
    return kIOReturnSuccess;
  }

 private:
  std::size_t request_count_ = 0;
  IOUSBDeviceStruct942* device_ = this;
};

/// The process's link, with that device attached. One a process; it is never taken apart.
struct ReadyLink {
  ReadyLink() {
    setUSBRegistry(&bus);
    global_driver = std::make_shared<Driver>(std::uint16_t{0x0451}, std::uint16_t{0xACE1});
    bus.waitUntilWatched();
    device.attach();
  }

  DirectBus bus;  // empty: it only gives the link's monitor something to watch
  ReadyQm5 device;
};

}  // namespace qm5
