// The emulated bus as libusb sees it, in this process.
#include <gtest/gtest.h>
#include <libusb.h>

#include <chrono>
#include <thread>
#include <vector>

#include "simulator/emulated_bus.h"
#include "tests/simulator_script.h"

namespace qm5 {
namespace {

using namespace std::chrono_literals;

class Bus : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(libusb_init(&context_), 0);
    ASSERT_EQ(libusb_hotplug_register_callback(
                  context_, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
                  LIBUSB_HOTPLUG_ENUMERATE, 0x0451, 0xACE1, LIBUSB_HOTPLUG_MATCH_ANY, note, this,
                  nullptr),
              0);
  }
  void TearDown() override {
    if (handle_ != nullptr) libusb_close(handle_);
    libusb_exit(context_);
  }

  static int note(libusb_context* /*context*/, libusb_device* device, libusb_hotplug_event event,
                  void* test) {
    const int address = libusb_get_device_address(device);
    static_cast<Bus*>(test)->events_.push_back(
        event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED ? address : -address);
    return 0;
  }

  /// Serves libusb's events until that many have come, or nothing comes any more.
  const std::vector<int>& awaitEvents(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + 3s;
    while (events_.size() < count && std::chrono::steady_clock::now() < deadline) {
      timeval wait{0, 10'000};
      libusb_handle_events_timeout(context_, &wait);
    }
    return events_;
  }

  int open() {
    if (handle_ != nullptr) libusb_close(handle_);
    handle_ = nullptr;
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(context_, &devices);
    int result = LIBUSB_ERROR_NOT_FOUND;
    for (ssize_t i = 0; i < count; ++i) {
      libusb_device_descriptor descriptor{};
      libusb_get_device_descriptor(devices[i], &descriptor);
      if (descriptor.idProduct == 0xACE1) result = libusb_open(devices[i], &handle_);
    }
    libusb_free_device_list(devices, 1);
    return result;
  }

  FaultyQm5 device_;
  EmulatedBus bus_{device_, {.replug_delay = 20ms}};
  libusb_context* context_ = nullptr;
  libusb_device_handle* handle_ = nullptr;
  std::vector<int> events_;  // addresses that arrived, and negative ones that left
};

TEST_F(Bus, CarriesAWholeUpdate) {
  bus_.plug();
  awaitEvents(1);
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(script::update(script::portTo(handle_), script::smallImage()), 0);
  EXPECT_TRUE(device_.signatureHolds());
  EXPECT_EQ(device_.breaches(), std::vector<std::string>());
}

TEST_F(Bus, GivesAddressesLikeTheKernelAndBeginsAgain) {
  std::vector<int> expected;
  for (int replug = 0; replug < 127; ++replug) {
    const int address = 2 + replug % 126;
    bus_.plug();
    expected.push_back(address);
    ASSERT_EQ(awaitEvents(expected.size()), expected);
    bus_.unplug();
    expected.push_back(-address);
    ASSERT_EQ(awaitEvents(expected.size()), expected);
  }
}

TEST_F(Bus, RefusesWhatTheDeviceRefusesAndShortensItsReplies) {
  bus_.plug();
  awaitEvents(1);
  ASSERT_EQ(open(), 0);
  device_.addFault({FaultKind::short_reply, "", 2, 4});
  const auto port = script::portTo(handle_);
  EXPECT_EQ(script::read(port, 0x10, 5).status, ControlStatus::stall);
  EXPECT_EQ(script::read(port, 0x06, 9).data, (Bytes{0x01, 0x42, 0, 0, 0}));
}

TEST_F(Bus, ComesBackAfterAReplugInTheMiddleOfARequest) {
  bus_.plug();
  awaitEvents(1);
  ASSERT_EQ(open(), 0);
  device_.addFault({FaultKind::replug, "", 1});
  EXPECT_EQ(script::read(script::portTo(handle_), 0x06, 9).status, ControlStatus::gone);
  EXPECT_EQ(script::read(script::portTo(handle_), 0x06, 9).status, ControlStatus::gone);
  EXPECT_EQ(awaitEvents(3), (std::vector<int>{2, -2, 3}));
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(script::read(script::portTo(handle_), 0x06, 9).status, ControlStatus::ok);
}

TEST_F(Bus, EndsARequestWithoutAnswerByTimeOutOrUnplug) {
  bus_.plug();
  awaitEvents(1);
  ASSERT_EQ(open(), 0);
  device_.addFault({FaultKind::silent, "", 1});
  device_.addFault({FaultKind::silent, "", 2});
  EXPECT_EQ(script::read(script::portTo(handle_, 50), 0x06, 9).status, ControlStatus::pending);
  std::thread unplugging([&] {
    std::this_thread::sleep_for(50ms);
    bus_.unplug();
  });
  EXPECT_EQ(script::read(script::portTo(handle_, 0), 0x06, 9).status, ControlStatus::gone);
  unplugging.join();
}

TEST_F(Bus, OpensANodeOnlyWithPermission) {
  bus_.setPermitted(false);
  bus_.plug();
  awaitEvents(1);
  EXPECT_EQ(open(), LIBUSB_ERROR_ACCESS);
  bus_.unplug();
  bus_.setPermitted(true);
  bus_.plug();
  awaitEvents(3);
  EXPECT_EQ(open(), 0);
}

}  // namespace
}  // namespace qm5
