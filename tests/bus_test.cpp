// The libusb adapter with the monitor on it, on the emulated bus.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "device_monitor/libusb/libusb_registry.h"
#include "device_monitor/usb_device_monitor.h"
#include "platform/bytes.h"
#include "platform/thread.h"
#include "simulator/usb_bus/emulated_bus.h"
#include "support/allocation_count.h"
#include "support/announcements.h"
#include "support/effort.h"
#include "support/transcript.h"
#include "support/virtual_clock.h"

namespace qm5::test {
namespace {

constexpr std::chrono::seconds kPatience{20};

// How many registrations and turns of events still fail before libusb gets them.
std::atomic<int> failing_registrations = 0;
std::atomic<int> failing_turns = 0;
std::atomic<unsigned> time_limit = 1;  // of the last request
// What the registry has registered. libusb may report a device twice that arrives meanwhile.
libusb_hotplug_callback_fn registered = nullptr;
int LIBUSB_CALL reportTwice(libusb_context* context, libusb_device* device,
                            libusb_hotplug_event event, void* data) {
  registered(context, device, event, data);
  return registered(context, device, event, data);
}

class Bus : public testing::Test {
 protected:
  // The registry, the monitor and their threads live to the end of the process, as in the
  // application.
  void start(std::vector<USBMonitorData> filters = {{0x0451, 0xACE1}}) {
    setUSBRegistry(&LibusbRegistry::create());
    auto* const monitor = new USBDeviceMonitor(std::move(filters));
    ASSERT_TRUE(Thread("USBMonitor", [this, monitor] {
                  monitor_thread_ = pthread_self();
                  monitor->start();
                }).start());
  }
  // One request to the device announced last. By default it reads the version.
  IOReturn request(Bytes& data, std::uint8_t type = 0xC0, std::uint8_t number = 0xFE,
                   std::uint16_t address = 6) const {
    const auto length = static_cast<std::uint16_t>(data.size());
    const std::uint16_t total = type < 0x80 ? length : std::uint16_t{0};  // of what is written
    IOUSBDevRequest sent{type, number, address, total, length, data.data(), 0};
    return (*record_.deviceInterfacePtrPtr)->DeviceRequest(sent);
  }
  IOReturn readVersion() const {
    Bytes version(9);
    return request(version);
  }
  void expectName(const std::optional<std::string>& product, const std::string& name) {
    EmulatedBus bus(qm5, {.product = product});
    start();
    bus.plug();
    EXPECT_EQ(announced(1).size(), 1U);
    EXPECT_EQ(record_.name, name);
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
  std::set<pid_t> queue_threads_;  // those that announced from the queue
  std::atomic<pthread_t> monitor_thread_;

 private:
  void note(const std::string& line) {
    const std::lock_guard lock(mutex_);
    if (line.ends_with("[IODetector]")) queue_threads_.insert(gettid());
    announced_.push_back(line);
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Lines announced_;
  Announcements announcements_{[this](const std::string& line) { note(line); }};

 protected:
  const USBDevice& record_ = announcements_.last;
};

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

long kilobytesInUse() {
  long pages = 0;
  std::ifstream("/proc/self/statm").ignore(64, ' ') >> pages;
  return pages * sysconf(_SC_PAGESIZE) / 1024;
}

bool comes(const std::function<bool()>& is_there) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < end) {
    if (is_there()) return true;
    std::this_thread::yield();
  }
  return false;
}

TEST_F(Bus, AnnouncesADeviceThatIsThereAlreadyAndWaitsForItsAnswersUntilItLeaves) {
  EmulatedBus bus(qm5);
  bus.plug();
  start();
  const Lines lines = announced(1);
  EXPECT_EQ(lines, Lines{"connected " + std::to_string(record_.id) + " QM5 [USBMonitor]"});
  EXPECT_EQ(qm5.requestCount(), 0U) << "discovery sends nothing";
  Bytes version(9);
  Bytes command{'S', 'F', 'W', 'i'};
  Bytes too_long(4097);
  const std::size_t before = allocationCount();
  const std::array results = {request(version), request(command, 0x40, 0xFD, 0x1E),
                              request(too_long, 0x40, 0xFD, 0x1F)};
  EXPECT_EQ(allocationCount() - before, 0U);
  EXPECT_EQ(results, (std::array<IOReturn, 3>{0, 0, -2}));
  EXPECT_EQ(version, (Bytes{0x01, 0x42, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(qm5.requestCount(), 2U);
  qm5.addFault({.kind = FaultKind::silent, .number = 3});
  auto unanswered = std::async(std::launch::async, [this] { return readVersion(); });
  ASSERT_TRUE(comes([&] { return qm5.requestCount() == 3; }));
  EXPECT_EQ(time_limit, 0U) << "none: the QM5 takes the time that it needs";
  bus.unplug();
  ASSERT_EQ(unanswered.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(unanswered.get(), -4) << "the device has left";
}

TEST_F(Bus, GivesEachArrivalItsOwnIdAndClosesWhatHasLeft) {
  EmulatedBus bus(qm5);
  start();
  for (const auto& replug : {&EmulatedBus::plug, &EmulatedBus::unplug}) {
    (bus.*replug)();
    ASSERT_EQ(announced(1).size(), 1U) << "perhaps while the watches are armed";
  }
  std::set<std::uint64_t> ids;
  std::size_t descriptors = 0;
  long kilobytes = 0;
  const int rounds = effort(140, 2000);  // the bus has 125 addresses: some come again
  const auto began = std::chrono::steady_clock::now();
  for (int round = 0; round < rounds; ++round) {
    bus.plug();
    const Lines arrival = announced(1);
    const std::string id = std::to_string(record_.id);
    ASSERT_EQ(arrival, Lines{"connected " + id + " QM5 [IODetector]"}) << "round " << round;
    EXPECT_TRUE(ids.insert(record_.id).second);
    ASSERT_EQ(readVersion(), 0);
    bus.unplug();
    ASSERT_EQ(announced(1), Lines{"disconnected " + id + " [IODetector]"});
    EXPECT_EQ(readVersion(), -4) << "no device";
    qm5.clearRequests();
    ASSERT_LT(std::chrono::steady_clock::now() - began, kPatience * (round + 10) / 10);
    if (round == 20) {
      descriptors = openDescriptors();
      kilobytes = kilobytesInUse();
    }
  }
  EXPECT_EQ(queue_threads_.size(), 1U) << "a new thread may not be had in the middle of an update";
  // The bus closes its end of a device's node some time after the adapter has closed its own.
  EXPECT_TRUE(comes([&] { return openDescriptors() <= descriptors; })) << openDescriptors();
  const long grown = kilobytesInUse() - kilobytes;
  EXPECT_LE(kMeasurable ? grown : 0, 2048) << "kilobytes";
  report(std::to_string(rounds) + " replugs: memory +" + std::to_string(grown) + " KB");
}

TEST_F(Bus, HearsOfARemovalWhileRequestsAreRefusedOneAfterAnother) {
  EmulatedBus bus(qm5);
  bus.plug();
  start();
  ASSERT_EQ(announced(1).size(), 1U);
  std::atomic<bool> ends = false;
  std::thread refused([&] {
    Bytes too_long(4097);
    while (!ends) request(too_long);
  });
  EXPECT_EQ(readVersion(), 0);
  bus.unplug();
  EXPECT_EQ(announced(1).size(), 1U);
  ends = true;
  refused.join();
}

TEST_F(Bus, PausesAfterAnErrorButNotAfterAnInterruptedSystemCall) {
  VirtualClock clock;
  failing_turns = 2;
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  // The device is never open: on this bus, unlike the kernel's, a signal could also interrupt the
  // call that reaps an open device's requests, which libusb reports as an input/output error.
  EmulatedBus bus(qm5, {.permitted = false});
  start();
  ASSERT_TRUE(comes([] { return failing_turns < 0; }));
  for (int i = 0; i < 20; ++i) {
    bus.plug();
    ASSERT_TRUE(comes([&] { return !transcript.newLines().empty(); }));
    pthread_kill(monitor_thread_, SIGUSR1);
    bus.unplug();
    ASSERT_EQ(announced(1).size(), 1U);
  }
  EXPECT_EQ(clock.newSleeps(), (std::vector<double>{1.0, 1.0}));
}

TEST_F(Bus, ServesEventsWithNothingToWatchOnceTheBusCanBeReached) {
  VirtualClock clock;
  failing_registrations = 2;
  EmulatedBus bus(qm5);
  start({});
  EXPECT_TRUE(comes([] { return failing_turns < 0; }));
  EXPECT_EQ(clock.newSleeps(), (std::vector<double>{1.0, 1.0}));
}

TEST_F(Bus, AnnouncesADeviceOnceItMayBeOpenedWithoutAReplug) {
  EmulatedBus bus(qm5, {.permitted = false});
  bus.plug();
  start();
  // It is refused by the thread that serves events, then by the queue while that one waits for
  // them.
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(comes([&] { return !transcript.newLines().empty(); })) << "refused";
    EXPECT_EQ(announced(0), Lines{});
    bus.setPermitted(true);
    const Lines arrival = announced(1);
    const std::string id = std::to_string(record_.id);
    ASSERT_EQ(arrival, Lines{"connected " + id + " QM5 [IODetector]"});
    EXPECT_EQ(readVersion(), 0);
    bus.setPermitted(false);
    bus.unplug();
    ASSERT_EQ(announced(1), Lines{"disconnected " + id + " [IODetector]"});
    if (round == 0) bus.plug();
  }
}

TEST_F(Bus, AnnouncesADeviceWithoutANameAllTheSame) {
  expectName(std::nullopt, "");
  EXPECT_EQ(transcript.newLines(), Lines{"out: Error getting device name"});
}

TEST_F(Bus, CutsANameThatIsTooLongForTheRegistry) {
  expectName(std::string(300, 'x'), std::string(127, 'x'));
}

}  // namespace
}  // namespace qm5::test

// In place of libusb's.
extern "C" int libusb_hotplug_register_callback(libusb_context* context, int events, int flags,
                                                int vendor, int product, int device_class,
                                                libusb_hotplug_callback_fn callback, void* data,
                                                libusb_hotplug_callback_handle* handle) {
  if (qm5::test::failing_registrations-- > 0) return LIBUSB_ERROR_OTHER;
  const auto real = reinterpret_cast<decltype(&libusb_hotplug_register_callback)>(
      dlsym(RTLD_NEXT, "libusb_hotplug_register_callback"));
  qm5::test::registered = callback;
  return real(context, events, flags, vendor, product, device_class, qm5::test::reportTwice, data,
              handle);
}
extern "C" int libusb_control_transfer(libusb_device_handle* device, std::uint8_t type,
                                       std::uint8_t request, std::uint16_t value,
                                       std::uint16_t index, unsigned char* data,
                                       std::uint16_t length, unsigned timeout) {
  qm5::test::time_limit = timeout;
  const auto real = reinterpret_cast<decltype(&libusb_control_transfer)>(
      dlsym(RTLD_NEXT, "libusb_control_transfer"));
  return real(device, type, request, value, index, data, length, timeout);
}
extern "C" int libusb_handle_events_timeout_completed(libusb_context* context, timeval* timeout,
                                                      int* completed) {
  if (completed == nullptr && qm5::test::failing_turns-- > 0) return LIBUSB_ERROR_OTHER;
  const auto real = reinterpret_cast<decltype(&libusb_handle_events_timeout_completed)>(
      dlsym(RTLD_NEXT, "libusb_handle_events_timeout_completed"));
  return real(context, timeout, completed);
}
