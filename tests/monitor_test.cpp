// USBDeviceMonitor on a scripted registry: the order of its steps, and what it announces or prints
// after each failure.
#include "device_monitor/usb_device_monitor.h"

#include <thread>

#include "platform/notification_center.h"
#include "support/named_cases.h"
#include "support/scripted_usb_registry.h"

namespace qm5::test {
namespace {

const std::vector<USBMonitorData> kQM5 = {{0x0451, 0xACE1}};

class Monitor : public testing::Test {
 protected:
  // Notes each announcement with its thread: "connected 7 QM5 [arming thread]".
  Monitor()
      : connected_(center_.addObserver(USBDeviceConnected,
                                       [this](const Notification& posted) { connected(posted); })),
        disconnected_(center_.addObserver(
            USBDeviceDisconnected, [this](const Notification& posted) { removed(posted); })) {}

  std::string thread() const {
    return std::this_thread::get_id() == test_thread_ ? " [arming thread]" : " [queue]";
  }
  void connected(const Notification& posted) {
    const auto& object = std::any_cast<const Dictionary&>(posted.object);
    const auto& device = std::any_cast<const USBDevice&>(object.at("device"));
    EXPECT_EQ(device.vendorId, 0x0451);
    EXPECT_EQ(device.productId, 0xACE1);
    EXPECT_EQ(device.deviceInterfacePtrPtr, qm5.interface());
    EXPECT_EQ(device.plugInInterfacePtrPtr, qm5.plugIn());
    transcript.note("connected " + std::to_string(device.id) + " " + device.name + thread());
  }
  void removed(const Notification& posted) {
    const auto& object = std::any_cast<const Dictionary&>(posted.object);
    const auto id = std::any_cast<std::uint64_t>(object.at("id"));
    transcript.note("disconnected " + std::to_string(id) + thread());
  }

  NotificationCenter& center_ = NotificationCenter::defaultCenter();
  const std::thread::id test_thread_ = std::this_thread::get_id();
  NotificationCenter::Registration connected_;
  NotificationCenter::Registration disconnected_;
  Transcript transcript;
  ScriptedUSBRegistry registry;
  ScriptedUsbDevice qm5;
};

TEST_F(Monitor, ArmsBothWatchesOfEachEntryAndThenServesEvents) {
  USBDeviceMonitor({kQM5[0], {1, 2}}).start();
  EXPECT_EQ(registry.takeSteps(),
            (Lines{"port", "queue", "matching IOUSBDevice", "watch 4 for 1105/44257",
                   "watch 5 for 1105/44257", "drained 4", "drained 5",  //
                   "port", "queue", "matching IOUSBDevice", "watch 4 for 1/2", "watch 5 for 1/2",
                   "drained 4", "drained 5", "run loop"}));
  USBDeviceMonitor({}).start();
  EXPECT_EQ(registry.takeSteps(), Lines{"run loop"});
}

TEST_F(Monitor, AnnouncesEachDeviceFromTheArmingThreadAtFirstAndThenFromTheQueue) {
  registry.attach({.device = &qm5});
  USBDeviceMonitor monitor(kQM5);
  monitor.start();
  registry.remove({{.id = {}}, {.release_result = -5}, {}});
  registry.arrive({{.plug_in_result = -1}, {.id = 8, .device = &qm5}, {.id = 9, .device = &qm5}});
  EXPECT_EQ(
      transcript.take(),
      (Lines{"connected 7 QM5 [arming thread]", "out: Error getting device id",
             "disconnected 0 [queue]", "out: Couldn’t release raw device object (error: -5)",
             "disconnected 7 [queue]", "connected 8 QM5 [queue]", "connected 9 QM5 [queue]"}));
}

using MonitorDeathTest = Monitor;

TEST_F(MonitorDeathTest, StopsWithoutAPortOrAMatchingDictionary) {
  registry.has_port = false;
  EXPECT_DEATH(USBDeviceMonitor(kQM5).start(), "can't start: .*no notification port");
  registry.has_port = true;
  registry.has_matching = false;
  EXPECT_DEATH(USBDeviceMonitor(kQM5).start(), "fatal error: no matching dictionary");
}

struct ArrivalFault {
  std::string_view name;
  ScriptedService service;
  ScriptedOpening opening;
  Lines lines;
};
QM5_PRINTS_NAME(ArrivalFault)

class Arrival : public Monitor, public testing::WithParamInterface<ArrivalFault> {};

TEST_P(Arrival, IsAnnouncedOrSkippedWithItsLine) {
  ScriptedService service = GetParam().service;
  service.device = &qm5;
  qm5.opening = GetParam().opening;
  registry.attach(service);
  USBDeviceMonitor(kQM5).start();
  EXPECT_EQ(transcript.take(), GetParam().lines);
}

const std::string kNoPlugIn = "out: Unable to get Plug-In Interface";
const std::string kNoDevice = "out: Unable to get Device Interface";
const std::vector<ArrivalFault> kFaults = {
    {"no id", {.id = {}}, {}, {"out: Error getting device id", "connected 0 QM5 [arming thread]"}},
    {"no name",
     {.name = {}},
     {},
     {"out: Error getting device name", "connected 7  [arming thread]"}},
    {"zero in the name",
     {.name = std::string_view("Q\0M5", 4)},
     {},
     {"connected 7 Q [arming thread]"}},
    {"no plug-in result", {.plug_in_result = -1}, {}, {}},
    {"null plug-in", {.has_plug_in = false}, {}, {kNoPlugIn}},
    {"null plug-in table", {}, {.has_plug_in_table = false}, {kNoPlugIn}},
    {"query refused", {}, {.query_result = -1}, {}},
    {"null device", {}, {.has_device = false}, {kNoDevice}},
    {"null device table", {}, {.has_device_table = false}, {kNoDevice}},
    {"open refused", {}, {.open_result = -3}, {"out: Could not open device (error: -3)"}},
    {"held by someone else",
     {},
     {.open_result = kIOReturnExclusiveAccess},
     {"connected 7 QM5 [arming thread]"}},
    {"no vendor", {}, {.vendor_result = -1}, {}},
    {"no product", {}, {.product_result = -1}, {}}};
INSTANTIATE_TEST_SUITE_P(Faults, Arrival, testing::ValuesIn(kFaults), named);

}  // namespace
}  // namespace qm5::test
