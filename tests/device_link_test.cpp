// The Driver and the register and 4CC channel, request by request.
#include <atomic>
#include <numeric>
#include <thread>

#include "device_link/attached_devices.h"
#include "device_link/command_channel.h"
#include "support/linked_device.h"

namespace qm5::test {
namespace {

Bytes counting(std::size_t size) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
  return bytes;
}

using Link = LinkedDevice;

TEST_F(Link, TreatsADeviceWithoutAnInterfaceAsNone) {
  IOUSBDeviceStruct942* no_table = nullptr;
  USBDevice record = device.record();
  for (IOUSBDeviceStruct942** const interface : {&no_table, decltype(&no_table){}}) {
    record.deviceInterfacePtrPtr = interface;
    postConnected(Dictionary{{"device", record}});
    EXPECT_TRUE(global_driver->usb_find());
    EXPECT_EQ(global_driver->usb_read(0xC0, 0xFE, 6, 0, 9), std::nullopt);
    EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1F, 0, Bytes(0x10000)), 0U);
  }
}

TEST_F(Link, GetsADeviceThatWasAnnouncedTooEarlyUnlessItHasLeft) {
  AttachedDevices attached;
  const Dictionary removed = {{"id", device.record().id}};
  for (const bool leaves : {true, false}) {
    attach();
    // As if the Driver had not been listening yet.
    global_driver->usbDisconnected({USBDeviceDisconnected, removed});
    if (leaves) postDisconnected(removed);
    attached.announceMissed();
    EXPECT_EQ(global_driver->deviceInfo().has_value(), !leaves);
  }
}

// ThreadSanitizer sees it, where somebody reads the record without the lock.
TEST_F(Link, HandsOutItsRecordWhileThatChanges) {
  std::atomic<bool> ended = false;
  std::thread reader([&] {
    while (!ended) global_driver->deviceInfo();
  });
  for (int arrivals = 0; arrivals < 100; ++arrivals) attach();
  ended = true;
  reader.join();
}

TEST_F(Link, ReadsTheLengthAskedForWhateverTheDeviceSent) {
  attach();
  const WireRequest wanted = {{0xA1, 0xB2, 0xC3D4, 0xE5F6, 5}, {}};
  for (const std::optional<Bytes>& sent : {std::optional(Bytes{1, 2, 3}), {}}) {
    device.expect(wanted, sent);
    EXPECT_EQ(global_driver->usb_read(0xA1, 0xB2, 0xC3D4, 0xE5F6, 5),
              sent ? std::optional(Bytes{1, 2, 3, 0, 0}) : std::nullopt);
  }
  device.expectRead(0x1F, 0xFFFF, Bytes{});
  EXPECT_EQ(read_data(65'534, 3, std::nullopt, 99)->size(), 65'535U);
}

TEST_F(Link, WritesUpToTheLargestRequest) {
  attach();
  for (const std::size_t size : {std::size_t{0}, std::size_t{0xFFFF}}) {
    const Bytes data = counting(size);
    device.expect({{0x40, 0xFD, 0x1F, 0xFFFF, static_cast<std::uint16_t>(size)}, data});
    EXPECT_EQ(global_driver->usb_write(0x40, 0xFD, 0x1F, 0xFFFF, data), size);
  }
  device.expect({{0x40, 0xFD, 0x1F, 0, 3}, {0, 1, 2}}, std::nullopt);
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
  EXPECT_DEATH(read_data(65'535, 3, std::nullopt), "longer than a control request");
}

TEST_F(Link, SelectsTheDataRegisterByInterfaceAndExtendedData) {
  for (const auto& [interface_number, plain, extended] : {std::tuple{0U, 0x1EU, 0x1EU},
                                                          {1U, 0x09U, 0x13U},
                                                          {2U, 0x11U, 0x12U},
                                                          {3U, 0x1FU, 0x1EU},
                                                          {7U, 0x1EU, 0x1EU}}) {
    EXPECT_EQ(data_register_for_interface(interface_number, std::nullopt), plain);
    EXPECT_EQ(data_register_for_interface(interface_number, ByteView{}), extended);
  }
  Lines lines;
  for (const char* number : {"0", "0", "3", "7", "7"})
    lines.push_back("out: DATA" + std::string(number) + " not available, providing DATA1");
  EXPECT_EQ(transcript.newLines(), lines);
}

TEST_F(Link, SendsTheDataBeforeTheCommandAndTheCommandAlwaysToTheSameRegister) {
  attach();
  const Bytes data = {1, 2, 3, 4};
  const Bytes extended = {0xEE};
  device.expect({{0x40, 0xFD, 0x09, 4, 4}, data});
  device.expect({{0x40, 0xFD, 0x1E, 4, 4}, {'S', 'F', 'W', 'd'}});
  write_4cc("SFWd", data, 1, std::nullopt);
  device.expect({{0x40, 0xFD, 0x1E, 2, 2}, {'n', 'o'}});
  write_4cc("no", std::nullopt, 2, std::nullopt);
  device.expect({{0x40, 0xFD, 0x12, 1, 1}, extended});
  device.expect({{0x40, 0xFD, 0x12, 4, 4}, data});
  device.expect({{0x40, 0xFD, 0x1E, 9, 8}, {'l', 'o', 'n', 'g', ' ', 'n', 'a', 'm'}});
  device.expect({{0x40, 0xFD, 0x1E, 0, 1}, {'e'}});
  write_4cc("long name", data, 2, extended);
  EXPECT_EQ(usbep_write(0x1F, {}), 0U);
  device.expect({{0x40, 0xFD, 0x1F, 4, 4}, data}, std::nullopt);
  EXPECT_EQ(usbep_write(0x1F, data), 4U) << "a refused request is not reported";
}

TEST_F(Link, PollsUntilTheFirstTwoCharactersOfTheCommandAreClearedOrItGivesUp) {
  attach();
  for (const auto& [interface_number, address] :
       {std::pair<std::size_t, std::uint16_t>{1, 0x08}, {2, 0x10}, {3, 0x1E}, {9, 0x1E}}) {
    device.expectRead(address, 5, Bytes{4, 'S', 'F', 0, 0});
    device.expectRead(address, 5, Bytes{4, 0, 'F', 0, 0});
    device.expectRead(address, 5, Bytes{4, 'S', 0, 0, 0});
    device.expectRead(address, 5, std::nullopt);
    device.expectRead(address, 5, Bytes{4, 0, 0, 'W', 'd'});
    wait_for_command(15, 0.1, interface_number);
    EXPECT_EQ(clock.newSleeps(), std::vector<double>(4, 0.1));
  }
  EXPECT_EQ(transcript.newLines(), Lines{});
  device.expectRead(0x1E, 5, Bytes{4, 'S', 'F', 'W', 'd'});
  wait_for_command(0, 0.5, 3);  // polls once all the same
  EXPECT_EQ(clock.newSleeps(), std::vector<double>{0.5});
  EXPECT_EQ(transcript.newLines(), Lines{"out: wait_for_command is taking too long"});
}

TEST_F(Link, DoesNothingWithoutADriver) {
  global_driver.reset();
  EXPECT_EQ(usbep_write(0x1F, counting(20)), 0U);
  write_4cc("SFWd", counting(4), 3, std::nullopt);
  wait_for_command(2, 0.5, 3);
  EXPECT_EQ(clock.newSleeps(), std::vector<double>(2, 0.5));
  EXPECT_EQ(read_data(1, 3, std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace qm5::test
