// Fixture for tests of the device link and the update engine: a scripted device, a virtual clock
// and the process's Driver.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "device_link/driver.h"
#include "scripted_usb_device.h"
#include "simulator/direct_bus/direct_bus.h"
#include "transcript.h"
#include "virtual_clock.h"

namespace qm5::test {

inline void postConnected(const std::any& object) {
  NotificationCenter::defaultCenter().post({USBDeviceConnected, object});
}

inline void postDisconnected(const std::any& object) {
  NotificationCenter::defaultCenter().post({USBDeviceDisconnected, object});
}

class LinkedDevice : public testing::Test {
 protected:
  LinkedDevice() {
    setUSBRegistry(&bus_);
    global_driver = std::make_shared<Driver>(std::uint16_t{0x0451}, std::uint16_t{0xACE1});
    bus_.waitUntilWatched();
  }
  ~LinkedDevice() override { global_driver.reset(); }

  void attach() { postConnected(Dictionary{{"device", device.record()}}); }

  Transcript transcript;
  VirtualClock clock;
  ScriptedUsbDevice device;

 private:
  DirectBus bus_;  // empty: attach() announces the device
};

}  // namespace qm5::test
