// The libusb adapter with the monitor and the Driver on it, on the emulated bus.
#include <gtest/gtest.h>
#include <pthread.h>

#include <any>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <set>

#include "device_link/driver.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "simulator/emulated_bus.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

constexpr std::chrono::seconds kPatience{20};

class Bus : public testing::Test {
 protected:
  Bus()
      : connected_(NotificationCenter::defaultCenter().addObserver(
            USBDeviceConnected, [this](const Notification& posted) { connected(posted); })),
        disconnected_(NotificationCenter::defaultCenter().addObserver(
            USBDeviceDisconnected, [this](const Notification& posted) { removed(posted); })) {}

  // The registry and its threads live to the end of the process, as in the application.
  void start() {
    setUSBRegistry(new LibusbRegistry);
    global_driver = std::make_shared<Driver>(std::uint16_t{0x0451}, std::uint16_t{0xACE1});
  }
  void connected(const Notification& posted) {
    const auto& device = std::any_cast<const USBDevice&>(
        std::any_cast<const Dictionary&>(posted.object).at("device"));
    EXPECT_EQ(device.vendorId, 0x0451);
    EXPECT_EQ(device.productId, 0xACE1);
    record_ = device;
    announce("connected " + std::to_string(device.id) + " " + device.name);
  }
  void removed(const Notification& posted) {
    announce("disconnected " + std::to_string(std::any_cast<std::uint64_t>(
                                   std::any_cast<const Dictionary&>(posted.object).at("id"))));
  }
  void announce(const std::string& line) {
    const std::lock_guard lock(mutex_);
    std::array<char, 16> thread{};
    pthread_getname_np(pthread_self(), thread.data(), thread.size());
    announced_.push_back(line + " [" + thread.data() + "]");
    changed_.notify_all();
  }
  // What has been announced once there are `count`, and a moment in which more could come.
  Lines announced(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return announced_.size() >= count; });
    changed_.wait_for(lock, std::chrono::milliseconds(50),
                      [&] { return announced_.size() > count; });
    return std::exchange(announced_, {});
  }

  Transcript transcript;
  FaultyQm5 qm5;
  USBDevice record_;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Lines announced_;
  NotificationCenter::Registration connected_;
  NotificationCenter::Registration disconnected_;
};

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

TEST_F(Bus, AnnouncesADeviceThatIsThereAlreadyAndReadsItsVersion) {
  EmulatedBus bus(qm5);
  bus.plug();
  start();
  const Lines lines = announced(1);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0], "connected " + std::to_string(record_.id) + " QM5 [USBMonitor]");
  EXPECT_EQ(qm5.requestCount(), 0U) << "discovery sends nothing";
  EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9), (Bytes{0x01, 0x42, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1E, 4, Bytes{'S', 'F', 'W', 'i'}), 4U);
  EXPECT_EQ(qm5.requestCount(), 2U);
}

TEST_F(Bus, GivesEachArrivalItsOwnIdAndClosesWhatHasLeft) {
  EmulatedBus bus(qm5);
  start();
  std::set<std::uint64_t> ids;
  std::size_t descriptors = 0;
  for (int round = 0; round < 140; ++round) {  // the bus has 126 addresses: some come again
    bus.plug();
    const Lines arrival = announced(1);
    ASSERT_EQ(arrival.size(), 1U) << "round " << round;
    const std::string id = std::to_string(record_.id);
    EXPECT_EQ(arrival[0], "connected " + id + " QM5 [IODetector]");
    EXPECT_TRUE(ids.insert(record_.id).second);
    ASSERT_TRUE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
    bus.unplug();
    ASSERT_EQ(announced(1), Lines{"disconnected " + id + " [IODetector]"});
    EXPECT_FALSE(global_driver->deviceInfo());
    IOUSBDevRequest request{};
    EXPECT_EQ((*record_.deviceInterfacePtrPtr)->DeviceRequest(request), -4) << "no device";
    if (round == 10) descriptors = openDescriptors();
    EXPECT_LE(openDescriptors(), round < 10 ? SIZE_MAX : descriptors);
  }
}

TEST_F(Bus, SaysThatADeviceCanNotBeOpenedAndFindsItOnceItCan) {
  EmulatedBus bus(qm5, {.permitted = false});
  start();
  bus.plug();
  Lines lines;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (lines.empty() && std::chrono::steady_clock::now() < end) lines = transcript.take();
  EXPECT_EQ(lines, Lines{"out: Could not open device (error: -3)"});
  bus.unplug();
  const Lines left = announced(1);
  ASSERT_EQ(left.size(), 1U);
  EXPECT_TRUE(left[0].starts_with("disconnected "));
  bus.setPermitted(true);
  bus.plug();
  EXPECT_EQ(announced(1).size(), 1U);
  EXPECT_TRUE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
}

TEST_F(Bus, AnnouncesADeviceWithoutANameAllTheSame) {
  EmulatedBus bus(qm5, {.product = std::nullopt});
  start();
  bus.plug();
  EXPECT_EQ(announced(1).size(), 1U);
  EXPECT_EQ(record_.name, "");
  EXPECT_EQ(transcript.take(), Lines{"out: Error getting device name"});
}

TEST_F(Bus, CutsANameThatIsTooLongForTheRegistry) {
  EmulatedBus bus(qm5, {.product = std::string(300, 'x')});
  start();
  bus.plug();
  EXPECT_EQ(announced(1).size(), 1U);
  EXPECT_EQ(record_.name, std::string(127, 'x'));
}

TEST_F(Bus, EndsARequestThatTheDeviceNeverAnswersWhenTheDeviceLeaves) {
  qm5.addFault({.kind = FaultKind::silent, .number = 1});
  EmulatedBus bus(qm5);
  bus.plug();
  start();
  ASSERT_EQ(announced(1).size(), 1U);
  auto reply =
      std::async(std::launch::async, [] { return global_driver->usb_read(0xC0, 0xFE, 6, 0, 9); });
  EXPECT_EQ(reply.wait_for(std::chrono::milliseconds(1200)), std::future_status::timeout);
  bus.unplug();
  ASSERT_EQ(reply.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(reply.get(), std::nullopt);
  EXPECT_EQ(announced(1).size(), 1U);
  bus.plug();
  EXPECT_EQ(announced(1).size(), 1U);
  EXPECT_TRUE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
}

}  // namespace
}  // namespace qm5::test
