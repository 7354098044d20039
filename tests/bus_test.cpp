// The libusb adapter with the monitor and the Driver on it, on the emulated bus.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <any>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "benchmarks/allocation_count.h"
#include "device_link/driver.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "simulator/emulated_bus.h"
#include "support/effort.h"
#include "support/transcript.h"
#include "tools/firmware_image.h"
#include "update_engine/secure_flow.h"

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
  // The announced name of a device that calls itself `product`.
  std::string nameOf(const std::optional<std::string>& product) {
    EmulatedBus bus(qm5, {.product = product});
    start();
    bus.plug();
    EXPECT_EQ(announced(1).size(), 1U);
    return record_.name;
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
    changed_.wait_for(lock, std::chrono::milliseconds(5),
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

std::size_t entries(const char* folder) {
  const std::filesystem::directory_iterator files(folder);
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

// What a process holds that lives for long: it must stay flat.
struct Footprint {
  std::size_t descriptors = entries("/proc/self/fd");
  std::size_t threads = entries("/proc/self/task");
  long kilobytes = [] {
    long pages = 0;
    std::ifstream("/proc/self/statm").ignore(64, ' ') >> pages;
    return pages * sysconf(_SC_PAGESIZE) / 1024;
  }();
};

void expectFlat(const std::string& what, const Footprint& before, const Footprint& after) {
  EXPECT_LE(after.descriptors, before.descriptors);
  // A serial queue's thread may be on its way in or out.
  EXPECT_LE(after.threads, before.threads + 1);
  const long grown = after.kilobytes - before.kilobytes;
  EXPECT_LE(kMeasurable ? grown : 0, 2048) << "kilobytes";
  report(what + ": " + std::to_string(after.descriptors) + " descriptors (" +
         std::to_string(before.descriptors) + " before), memory +" + std::to_string(grown) + " KB");
}

TEST_F(Bus, AnnouncesADeviceThatIsThereAlreadyAndReadsItsVersion) {
  EmulatedBus bus(qm5);
  bus.plug();
  start();
  const Lines lines = announced(1);
  EXPECT_EQ(lines, Lines{"connected " + std::to_string(record_.id) + " QM5 [USBMonitor]"});
  EXPECT_EQ(qm5.requestCount(), 0U) << "discovery sends nothing";
  const Bytes command{'S', 'F', 'W', 'i'};
  std::size_t allocations = allocationCount();
  const auto version = global_driver->usb_read(0xC0, 0xFE, 6, 0, 9);
  EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1E, 4, command), 4U);
  allocations = allocationCount() - allocations;
  EXPECT_EQ(version, (Bytes{0x01, 0x42, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(qm5.requestCount(), 2U);
  EXPECT_EQ(allocations, 1U) << "the reply";
}

TEST_F(Bus, GivesEachArrivalItsOwnIdAndClosesWhatHasLeft) {
  EmulatedBus bus(qm5);
  start();
  std::set<std::uint64_t> ids;
  std::optional<Footprint> before;
  const int rounds = effort(140, 2000);  // the bus has 126 addresses: some come again
  for (int round = 0; round < rounds; ++round) {
    bus.plug();
    const Lines arrival = announced(1);
    ASSERT_EQ(arrival.size(), 1U) << "round " << round;
    const std::string id = std::to_string(record_.id);
    // The first one may come before the watch is armed.
    const bool arming = round == 0 && arrival[0].ends_with("[USBMonitor]");
    EXPECT_EQ(arrival[0],
              "connected " + id + " QM5 [" + (arming ? "USBMonitor" : "IODetector") + "]");
    EXPECT_TRUE(ids.insert(record_.id).second);
    ASSERT_TRUE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
    bus.unplug();
    ASSERT_EQ(announced(1), Lines{"disconnected " + id + " [IODetector]"});
    EXPECT_FALSE(global_driver->deviceInfo());
    IOUSBDevRequest request{};
    EXPECT_EQ((*record_.deviceInterfacePtrPtr)->DeviceRequest(request), -4) << "no device";
    qm5.clearRequests();
    if (round == 20) before.emplace();
  }
  expectFlat(std::to_string(rounds) + " replugs, one attach and one detach each", *before, {});
}

TEST_F(Bus, StaysFlatOverManyUpdates) {
  const Bytes payload = developmentPayload(640);
  const Bytes image = buildImage(payload);
  EmulatedBus bus(qm5);
  start();
  std::optional<Footprint> before;
  const int rounds = effort(5, 100);
  for (int round = 0; round < rounds; ++round) {
    bus.plug();
    ASSERT_EQ(announced(1).size(), 1U);
    EXPECT_TRUE(secure_update_binary(*global_driver, image, {}, "pss", false));
    EXPECT_EQ(qm5.flash(), payload);
    bus.unplug();
    ASSERT_EQ(announced(1).size(), 1U);
    transcript.take();
    qm5.clearRequests();
    if (round == rounds / 10) before.emplace();
  }
  EXPECT_EQ(qm5.breaches(), std::vector<std::string>{});
  expectFlat(std::to_string(rounds) + " updates in one process", *before, {});
}

// The monitor's thread starts before the Driver listens, and that order is meant to be: this
// counts how often the first announcement comes too early, and that nothing worse happens.
TEST_F(Bus, StartsUnderLoad) {
  EmulatedBus bus(qm5);
  bus.plug();
  std::atomic<bool> ended = false;
  std::vector<std::thread> load;
  for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core) {
    load.emplace_back([&] {
      while (!ended) {
      }
    });
  }
  const int starts = effort(10, 500);
  int missed = 0;
  for (int i = 0; i < starts; ++i) {
    const int status = std::system(QM5_START_PROBE);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) <= 1) << status;
    missed += WEXITSTATUS(status);
  }
  ended = true;
  for (auto& thread : load) thread.join();
  report(std::to_string(starts) +
         " starts under load with a QM5 attached: " + std::to_string(missed) + " missed it");
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
  EXPECT_EQ(announced(1).size(), 1U);
  bus.setPermitted(true);
  bus.plug();
  EXPECT_EQ(announced(1).size(), 1U);
  EXPECT_TRUE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
}

TEST_F(Bus, AnnouncesADeviceWithoutANameAllTheSame) {
  EXPECT_EQ(nameOf(std::nullopt), "");
  EXPECT_EQ(transcript.take(), Lines{"out: Error getting device name"});
}

TEST_F(Bus, CutsANameThatIsTooLongForTheRegistry) {
  EXPECT_EQ(nameOf(std::string(300, 'x')), std::string(127, 'x'));
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
