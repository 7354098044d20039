// The Driver and the register and 4CC channel, request by request.
#include "device_link/command_channel.h"
#include "support/linked_device.h"
#include "support/named_cases.h"

namespace qm5::test {
namespace {

Bytes counting(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i);
  return bytes;
}

class Link : public LinkedDevice {};

TEST_F(Link, AnswersWithoutADevice) {
  EXPECT_FALSE(global_driver->usb_find());
  EXPECT_EQ(transcript.take(), Lines{"out: Checking for TI SOC on USB via IOKit driver"});
  EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9), std::nullopt);
  EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1F, 0, Bytes(0x10000)), 0U);
}

TEST_F(Link, FollowsAttachAndDetachById) {
  attach();
  EXPECT_TRUE(global_driver->usb_find());
  EXPECT_EQ(transcript.take(), (Lines{"out: Checking for TI SOC on USB via IOKit driver",
                                      "out: Found TI SOC on IOKit"}));
  postDisconnected(Dictionary{{"id", std::uint64_t{8}}});
  EXPECT_TRUE(global_driver->deviceInfo());
  postDisconnected(Dictionary{{"id", std::uint64_t{7}}});
  EXPECT_FALSE(global_driver->deviceInfo());
  postConnected(Dictionary{{"device", device.record(8)}});
  postConnected(Dictionary{{"device", device.record(9)}});
  EXPECT_EQ(global_driver->deviceInfo()->id, 9U) << "the one reported last is the one used";
}

TEST_F(Link, IgnoresNotificationsWithoutTheExpectedObject) {
  for (const std::any& object :
       {std::any{}, std::any{7}, std::any{Dictionary{}}, std::any{Dictionary{{"device", 7}}}})
    postConnected(object);
  EXPECT_FALSE(global_driver->deviceInfo());
  attach();
  for (const std::any& object :
       {std::any{}, std::any{7}, std::any{Dictionary{}}, std::any{Dictionary{{"id", 7}}}})
    postDisconnected(object);
  EXPECT_TRUE(global_driver->deviceInfo());
}

TEST_F(Link, TreatsADeviceWithoutAnInterfaceAsNone) {
  IOUSBDeviceStruct942* no_table = nullptr;
  for (IOUSBDeviceStruct942** interface :
       {static_cast<IOUSBDeviceStruct942**>(nullptr), &no_table}) {
    USBDevice record = device.record();
    record.deviceInterfacePtrPtr = interface;
    postConnected(Dictionary{{"device", record}});
    EXPECT_TRUE(global_driver->usb_find());
    EXPECT_FALSE(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9));
    EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 6, 0, counting(1)), 0U);
  }
}

TEST_F(Link, ReadsTheLengthAskedForWhateverTheDeviceSent) {
  attach();
  device.expectRead(0x1F, 5, Bytes{1, 2, 3});
  EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 0x1F, 0, 5), (Bytes{1, 2, 3, 0, 0}));
  device.expectRead(0x1F, 0, Bytes{});
  EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 0x1F, 0, 0), Bytes{});
  device.expectRead(0x1F, 5, std::nullopt);
  EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 0x1F, 0, 5), std::nullopt);
  device.expect({0xA1, 0xB2, 0xC3D4, 0xE5F6, 2, nullptr, 0xFF}, {}, Bytes{8, 9});
  EXPECT_EQ(global_driver->usb_read(0xA1, 0xB2, 0xC3D4, 0xE5F6, 2), (Bytes{8, 9}));
}

TEST_F(Link, WritesUpToTheLargestRequest) {
  attach();
  for (const std::size_t size : {0UL, 1UL, 0xFFFFUL}) {
    device.expectWrite(0x1F, 0xFFFF, counting(size));
    EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1F, 0xFFFF, counting(size)), size);
  }
  device.expectWrite(0x1F, 0, counting(3), false);
  EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1F, 0, counting(3)), 0U);
}

using LinkDeathTest = Link;

TEST_F(LinkDeathTest, StopsAtValuesThatDoNotFitARequest) {
  attach();
  Driver& link = *global_driver;
  EXPECT_DEATH(link.usb_write(0x100, 0xFD, 0, 0, {}), "requestType over 8 bits");
  EXPECT_DEATH(link.usb_write(0x40, 0x100, 0, 0, {}), "request over 8 bits");
  EXPECT_DEATH(link.usb_write(0x40, 0xFD, 0x10000, 0, {}), "addr over 16 bits");
  EXPECT_DEATH(link.usb_write(0x40, 0xFD, 0, 0x10000, {}), "index over 16 bits");
  EXPECT_DEATH(link.usb_write(0x40, 0xFD, 0, 0, Bytes(0x10000)), "longer than a control request");
  EXPECT_DEATH(usbep_write(0x100000000, counting(1)), "register address over 32 bits");
  EXPECT_DEATH(usbep_write(0x10000, counting(1)), "addr over 16 bits");
  EXPECT_DEATH(usbep_write(0x1F, Bytes(0x10000)), "index over 16 bits");
  EXPECT_DEATH(read_data(65'535, 3, std::nullopt), "longer than a control request");
}

struct DataRegister {
  std::string_view name;
  std::size_t interface_number;
  bool extended;
  std::size_t address;
  std::string_view line;
};
QM5_PRINTS_NAME(DataRegister)

class Selection : public Link, public testing::WithParamInterface<DataRegister> {};

TEST_P(Selection, FollowsTheInterface) {
  const auto& [name, interface_number, extended, address, line] = GetParam();
  const ExtendedData ext_data = extended ? ExtendedData(ByteView{}) : std::nullopt;
  EXPECT_EQ(data_register_for_interface(interface_number, ext_data), address);
  EXPECT_EQ(transcript.take(), line.empty() ? Lines{} : Lines{"out: " + std::string(line)});
}

INSTANTIATE_TEST_SUITE_P(
    DataRegisters, Selection,
    testing::Values(
        DataRegister{"one", 1, false, 0x09, ""}, DataRegister{"two", 2, false, 0x11, ""},
        DataRegister{"three", 3, false, 0x1F, ""}, DataRegister{"one extended", 1, true, 0x13, ""},
        DataRegister{"two extended", 2, true, 0x12, ""},
        DataRegister{"three extended", 3, true, 0x1E, "DATA3 not available, providing DATA1"},
        DataRegister{"zero", 0, false, 0x1E, "DATA0 not available, providing DATA1"},
        DataRegister{"seven", 7, false, 0x1E, "DATA7 not available, providing DATA1"}),
    named);

TEST_F(Link, WritesARegisterInChunksWithTheTotalFirst) {
  attach();
  EXPECT_EQ(usbep_write(0x1F, {}), 0U);
  device.expectWrite(0x1F, 8, {0, 1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(usbep_write(0x1F, counting(8)), 8U);
  device.expectWrite(0x1F, 9, {0, 1, 2, 3, 4, 5, 6, 7}, false);
  device.expectWrite(0x1F, 0, {8});
  EXPECT_EQ(usbep_write(0x1F, counting(9)), 9U) << "a refused request is not reported";
  device.expectWrite(0x1F, 20, {0, 1, 2, 3, 4, 5, 6, 7});
  device.expectWrite(0x1F, 0, {8, 9, 10, 11, 12, 13, 14, 15});
  device.expectWrite(0x1F, 0, {16, 17, 18, 19});
  EXPECT_EQ(usbep_write(0x1F, counting(20)), 20U);
  global_driver.reset();
  EXPECT_EQ(usbep_write(0x1F, counting(20)), 0U);
}

TEST_F(Link, SendsTheDataBeforeTheCommandAndTheCommandAlwaysToTheSameRegister) {
  attach();
  const Bytes command = {'S', 'F', 'W', 'd'};
  const Bytes data = counting(4);
  const Bytes extended = {0xEE};
  for (const auto& [interface_number, address] : {std::pair{1U, 0x09U}, {2U, 0x11U}, {3U, 0x1FU}}) {
    device.expectWrite(address, 4, data);
    device.expectWrite(0x1E, 4, command);
    write_4cc("SFWd", data, interface_number, std::nullopt);
  }
  device.expectWrite(0x1E, 4, command);
  write_4cc("SFWd", std::nullopt, 3, std::nullopt);
  device.expectWrite(0x12, 1, extended);
  device.expectWrite(0x12, 4, data);
  device.expectRegisterWrite(0x1E, {'l', 'o', 'n', 'g', ' ', 'n', 'a', 'm', 'e'});
  write_4cc("long name", data, 2, extended);
  device.expectWrite(0x1E, 1, extended);
  device.expectWrite(0x1E, 4, data);
  write_4cc("", data, 3, extended);
  EXPECT_EQ(transcript.take(), Lines(2, "out: DATA3 not available, providing DATA1"));
}

TEST_F(Link, PollsUntilTheCommandIsClearedLookingAtItsFirstTwoCharacters) {
  attach();
  for (const auto& [interface_number, address] :
       {std::pair{1U, 0x08U}, {2U, 0x10U}, {3U, 0x1EU}, {9U, 0x1EU}}) {
    device.expectRead(address, 5, Bytes{4, 'S', 'F', 0, 0});
    device.expectRead(address, 5, Bytes{4, 0, 'F', 0, 0});
    device.expectRead(address, 5, Bytes{4, 'S', 0, 0, 0});
    device.expectRead(address, 5, std::nullopt);
    device.expectRead(address, 5, Bytes{4, 0, 0, 'W', 'd'});
    wait_for_command(15, 0.1, interface_number);
    EXPECT_EQ(clock.takeSleeps(), std::vector<double>(4, 0.1));
  }
  EXPECT_EQ(transcript.take(), Lines{});
}

TEST_F(Link, GivesUpPollingAfterTheLastSleep) {
  const Lines too_long = {"out: wait_for_command is taking too long"};
  wait_for_command(300, 1.0, 3);  // no device: nothing is read
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>(300, 1.0));
  EXPECT_EQ(transcript.take(), too_long);
  const auto driver = std::exchange(global_driver, nullptr);
  write_4cc("SFWd", counting(4), 3, std::nullopt);
  wait_for_command(2, 0.1, 3);
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>(2, 0.1));
  EXPECT_EQ(transcript.take(), too_long);
  global_driver = driver;
  attach();
  for (int i = 0; i < 15; ++i) device.expectRead(0x1E, 5, Bytes{4, 'S', 'F', 'W', 'd'});
  wait_for_command(15, 0.1, 3);
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>(15, 0.1));
  EXPECT_EQ(transcript.take(), too_long);
  device.expectRead(0x1E, 5, Bytes{4, 1, 1, 1, 1});
  wait_for_command(0, 0.5, 3);
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>{0.5});
  EXPECT_EQ(transcript.take(), too_long);
}

TEST_F(Link, ReadsResultsWithTheirLengthByte) {
  attach();
  device.expectRead(0x1F, 2, Bytes{0x40, 0x80});
  EXPECT_EQ(read_data(1, 3, std::nullopt, 99), (Bytes{0x40, 0x80}));
  device.expectRead(0x1F, 2, std::nullopt);
  EXPECT_EQ(read_data(1, 3, std::nullopt), std::nullopt);
  device.expectRead(0x1F, 0xFFFF, Bytes{});
  EXPECT_EQ(read_data(65'534, 3, std::nullopt)->size(), 65'535U);
  global_driver.reset();
  EXPECT_EQ(read_data(1, 3, std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace qm5::test
