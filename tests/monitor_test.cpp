// USBDeviceMonitor: the order of its steps, and what it announces or prints after each failure.
#include "device_monitor/usb_device_monitor.h"

#include "simulator/device/faulty_qm5.h"
#include "simulator/direct_bus/direct_bus.h"
#include "support/announcements.h"
#include "support/named_cases.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

const std::vector<USBMonitorData> kEntries = {{1, 2}, {0x0451, 0xACE1}};

// A bus whose step of that name fails. A step that gives a null interface or table succeeds.
class ScriptedBus final : public DirectBus,
                          public IOCFPlugInInterfaceStruct,
                          public IOUSBDeviceStruct942 {
 public:
  ScriptedBus() { setUSBRegistry(this); }
  ~ScriptedBus() override { EXPECT_EQ(held_, 0) << "services that nobody released"; }

  std::string_view failing;
  IOReturn failure = -1;
  int ports = 0;

  io_port_t notificationPortCreate() override {
    ++ports;
    return failing == "port" ? 0 : DirectBus::notificationPortCreate();
  }
  std::unique_ptr<MatchingDictionary> serviceMatching(const std::string& class_name) override {
    EXPECT_EQ(class_name, "IOUSBDevice");
    return failing == "matching" ? nullptr : DirectBus::serviceMatching(class_name);
  }
  io_service_t iteratorNext(io_iterator_t iterator) override {
    const io_service_t next = DirectBus::iteratorNext(iterator);
    held_ += next == 0 ? 0 : 1;
    return next;
  }
  IOReturn registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) override {
    return failing == "id" ? failure : DirectBus::registryEntryGetRegistryEntryID(service, id);
  }
  IOReturn registryEntryGetName(io_service_t, io_name_t& name) override {
    constexpr std::string_view kName("QM5\0x", 5);  // ends at the zero
    if (failing != "name") std::copy(kName.begin(), kName.end(), name.begin());
    return resultOf("name");
  }
  IOReturn createPlugInInterfaceForService(io_service_t service, const UUIDBytes& plug_in_type,
                                           const UUIDBytes& interface_type,
                                           IOCFPlugInInterfaceStruct**& plug_in) override {
    plug_in_ = failing == "null plug-in table" ? nullptr : this;
    DirectBus::createPlugInInterfaceForService(service, plug_in_type, interface_type, plug_in);
    if (plug_in != nullptr) plug_in = failing == "null plug-in" ? nullptr : &plug_in_;
    return resultOf("plug-in");
  }
  IOReturn objectRelease(io_service_t service) override {
    held_ -= DirectBus::objectRelease(service) == kIOReturnSuccess ? 1 : 0;
    return resultOf("release");
  }
  void runLoop() override { EXPECT_EQ(ports, 2) << "before all watches are armed"; }

  IOReturn QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) override {
    EXPECT_EQ(identifier, kIOUSBDeviceInterfaceID);
    device_ = failing == "null device table" ? nullptr : this;
    if (failing != "null device") device = &device_;
    return resultOf("query");
  }
  IOReturn USBDeviceOpen() override { return resultOf("open"); }
  IOReturn GetDeviceVendor(std::uint16_t& vendor) override {
    vendor = 0x0451;
    return resultOf("vendor");
  }
  IOReturn GetDeviceProduct(std::uint16_t& product) override {
    product = 0xACE1;
    return resultOf("product");
  }
  IOReturn DeviceRequest(IOUSBDevRequest&) override {
    ADD_FAILURE() << "discovery sends nothing";
    return failure;
  }

 private:
  IOReturn resultOf(std::string_view step) const { return failing == step ? failure : 0; }

  int held_ = 0;  // services
  IOUSBDeviceStruct942* device_ = this;
  IOCFPlugInInterfaceStruct* plug_in_ = this;
};

struct FailingStep {
  std::string_view name;
  IOReturn failure;
  Lines arrival;
  Lines removal = {"disconnected 1"};
};
QM5_PRINTS_NAME(FailingStep)

class Monitor : public testing::TestWithParam<FailingStep> {
 protected:
  void expect(Lines lines, const std::string& thread) {
    for (std::string& line : lines)
      if (line.find("connected") != line.npos) line += " [" + thread + "]";
    EXPECT_EQ(transcript.newLines(), lines);
  }

  Transcript transcript;
  Announcements announcements{[this](const std::string& line) { transcript.note(line); }};
  NotificationCenter::Registration examined =
      observe(USBDeviceExamined, [this](const Dictionary& posted) {
        const auto result = std::any_cast<IOReturn>(posted.at("result"));
        transcript.note("examined " + std::to_string(result) + " at " +
                        std::any_cast<std::string>(posted.at("location")));
      });
  FaultyQm5 qm5;
  ScriptedBus bus;
  USBDeviceMonitor monitor{kEntries};
};

const std::string kAnnounced = "examined 0 at 1-1";
const std::string kNoId = "out: Error getting device id";
const Lines kNoPlugIn = {"out: Unable to get Plug-In Interface", "examined -99 at 1-1"};
const Lines kNoDevice = {"out: Unable to get Device Interface", "examined -99 at 1-1"};

TEST_P(Monitor, PrintsTheFailureOfAStepAndTheNextDeviceIsAnnouncedFromTheQueue) {
  bus.failing = GetParam().name;
  bus.failure = GetParam().failure;
  bus.plug(qm5);
  monitor.start();
  expect(GetParam().arrival, "monitor_test");
  bus.unplug();
  expect(GetParam().removal, "IODetector");
  bus.failing = "";
  bus.plug(qm5);
  bus.unplug();
  expect({"connected 2 QM5", kAnnounced, "disconnected 2"}, "IODetector");
  EXPECT_EQ(*announcements.last.plugInInterfacePtrPtr, &bus);
}

TEST(MonitorDeathTest, StopsWithoutAPortOrAMatchingDictionary) {
  ScriptedBus bus;
  bus.failing = "matching";
  EXPECT_DEATH(USBDeviceMonitor(kEntries).start(), "fatal error: no matching dictionary");
  bus.failing = "port";
  EXPECT_DEATH(USBDeviceMonitor(kEntries).start(), "can't start: .*no notification port");
}

INSTANTIATE_TEST_SUITE_P(
    Steps, Monitor,
    testing::ValuesIn(std::vector<FailingStep>{
        {"none", 0, {"connected 1 QM5", kAnnounced}},
        {"id", -1, {kNoId, "connected 0 QM5", kAnnounced}, {kNoId, "disconnected 0"}},
        {"name", -1, {"out: Error getting device name", "connected 1 ", kAnnounced}},
        {"plug-in", -1, {"examined -1 at 1-1"}},
        {"null plug-in", 0, kNoPlugIn},
        {"null plug-in table", 0, kNoPlugIn},
        {"query", -2, {"examined -2 at 1-1"}},
        {"null device", 0, kNoDevice},
        {"null device table", 0, kNoDevice},
        {"open", -3, {"out: Could not open device (error: -3)", "examined -3 at 1-1"}},
        {"open", kIOReturnExclusiveAccess, {"connected 1 QM5", kAnnounced}},
        {"vendor", -1, {"examined -1 at 1-1"}},
        {"product", -1, {"examined -1 at 1-1"}},
        {"release",
         -5,
         {"connected 1 QM5", kAnnounced},
         {"out: Couldn’t release raw device object (error: -5)"}}}),
    [](const auto& tested) { return named(tested) + std::to_string(tested.index); });

}  // namespace
}  // namespace qm5::test
