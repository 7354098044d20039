// What the monitor announces, with the thread that it does so on: "connected 7 QM5 [IODetector]".
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <any>
#include <array>
#include <functional>
#include <string>
#include <utility>

#include "device_monitor/usb_device_monitor.h"
#include "platform/notification_center.h"

namespace qm5::test {

/// Calls `handle` with what is posted under that name.
inline NotificationCenter::Registration observe(std::string_view name,
                                                std::function<void(const Dictionary&)> handle) {
  return NotificationCenter::defaultCenter().addObserver(
      name, [handle = std::move(handle)](const Notification& posted) {
        handle(std::any_cast<const Dictionary&>(posted.object));
      });
}

class Announcements {
 public:
  /// Calls `note` with each line, on the thread that it names.
  explicit Announcements(std::function<void(const std::string&)> note) : note_(std::move(note)) {}

  USBDevice last;  // written before its line is noted

 private:
  void note(const std::string& line) {
    std::array<char, 16> thread{};
    pthread_getname_np(pthread_self(), thread.data(), thread.size());
    note_(line + " [" + thread.data() + "]");
  }
  std::function<void(const std::string&)> note_;
  NotificationCenter::Registration connected_ =
      observe(USBDeviceConnected, [this](const Dictionary& posted) {
        last = std::any_cast<const USBDevice&>(posted.at("device"));
        EXPECT_EQ(last.vendorId, 0x0451);
        EXPECT_EQ(last.productId, 0xACE1);
        note("connected " + std::to_string(last.id) + " " + last.name);
      });
  NotificationCenter::Registration disconnected_ =
      observe(USBDeviceDisconnected, [this](const Dictionary& posted) {
        note("disconnected " + std::to_string(std::any_cast<std::uint64_t>(posted.at("id"))));
      });
};

}  // namespace qm5::test
