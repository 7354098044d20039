// A test's world below the update engine: a scripted bus, a virtual clock, and the one
// Driver on top of both.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "device_link/driver.h"
#include "scripted_usb_device.h"
#include "scripted_usb_registry.h"
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
    global_driver = std::make_shared<Driver>(std::uint16_t{0x0451}, std::uint16_t{0xACE1});
    registry.waitForRunLoop();
  }
  ~LinkedDevice() override { global_driver.reset(); }

  void attach() { postConnected(Dictionary{{"device", device.record()}}); }

  Transcript transcript;
  VirtualClock clock;
  ScriptedUSBRegistry registry;
  ScriptedUsbDevice device;
};

}  // namespace qm5::test
