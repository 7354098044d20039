// The device side of the USB port. Strict: it answers the requests that it was told to
// expect, in that order; another request or a leftover one fails the test.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "device_monitor/usb_device_monitor.h"
#include "platform/bytes.h"

namespace qm5::test {

inline constexpr IOReturn kRefused = -9;  // LIBUSB_ERROR_PIPE

class ScriptedUsbDevice final : public IOUSBDeviceStruct942, public IOCFPlugInInterfaceStruct {
 public:
  ~ScriptedUsbDevice() {
    EXPECT_TRUE(expected_.empty()) << "never came: " << expected_.front().setup;
  }

  // Script it. No reply is a refused request.
  void expect(const IOUSBDevRequest& request, const Bytes& sent,
              const std::optional<Bytes>& reply) {
    expected_.push_back(
        {text(request, sent), reply.value_or(Bytes{}), reply ? kIOReturnSuccess : kRefused});
  }
  void expectWrite(unsigned address, unsigned index, const Bytes& data, bool taken = true) {
    expect({0x40, 0xFD, static_cast<std::uint16_t>(address), static_cast<std::uint16_t>(index),
            static_cast<std::uint16_t>(data.size()), nullptr, 0xFF},
           data, taken ? std::optional(Bytes{}) : std::nullopt);
  }
  /// `reply` may be shorter than `length`.
  void expectRead(unsigned address, unsigned length, const std::optional<Bytes>& reply) {
    expect({0xC0, 0xFE, static_cast<std::uint16_t>(address), 0, static_cast<std::uint16_t>(length),
            nullptr, 0xFF},
           {}, reply);
  }
  /// A register write as it goes over the wire: at most 8 bytes a request, the total first.
  void expectRegisterWrite(unsigned address, const Bytes& data) {
    for (std::size_t at = 0; at < data.size(); at += 8) {
      const auto end = std::min(at + 8, data.size());
      expectWrite(address, at == 0 ? static_cast<unsigned>(data.size()) : 0,
                  Bytes(data.begin() + static_cast<std::ptrdiff_t>(at),
                        data.begin() + static_cast<std::ptrdiff_t>(end)));
    }
  }
  /// A task that is ready at the first poll.
  void expectTask(std::string_view command, const Bytes& data, unsigned reply_length,
                  const std::optional<Bytes>& reply) {
    expectRegisterWrite(0x1F, data);
    expectRegisterWrite(0x1E, Bytes(command.begin(), command.end()));
    expectRead(0x1E, 5, Bytes{4, 0, 0, 0, 0});
    expectRead(0x1F, reply_length, reply);
  }
  IOReturn open_result = kIOReturnSuccess;
  IOReturn vendor_result = kIOReturnSuccess;
  IOReturn product_result = kIOReturnSuccess;
  IOReturn query_result = kIOReturnSuccess;
  bool has_device = true;
  bool has_device_table = true;

  // Hand it out.
  IOUSBDeviceStruct942** interface() { return &device_; }
  IOCFPlugInInterfaceStruct** plugIn() { return &plug_in_; }
  void losePlugInTable() { plug_in_ = nullptr; }
  USBDevice record(std::uint64_t id = 7) {
    return {id, 0x0451, 0xACE1, "QM5", &device_, &plug_in_};
  }

  // The port.
  IOReturn QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) override {
    EXPECT_EQ(identifier, kIOUSBDeviceInterfaceID);
    if (!has_device_table) device_ = nullptr;
    if (has_device) device = &device_;
    return query_result;
  }
  IOReturn USBDeviceOpen() override { return open_result; }
  IOReturn GetDeviceVendor(std::uint16_t& vendor) override {
    vendor = 0x0451;
    return vendor_result;
  }
  IOReturn GetDeviceProduct(std::uint16_t& product) override {
    product = 0xACE1;
    return product_result;
  }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override {
    const bool is_read = (request.bmRequestType & 0x80) != 0;
    const std::string setup =
        text(request, is_read ? Bytes{} : Bytes(request.pData, request.pData + request.wLength));
    if (expected_.empty()) {
      ADD_FAILURE() << "not expected: " << setup;
      return kRefused;
    }
    const Step step = expected_.front();
    expected_.pop_front();
    EXPECT_EQ(setup, step.setup);
    std::copy(step.reply.begin(), step.reply.end(), request.pData);
    request.wLenDone = static_cast<std::uint32_t>(step.reply.size());
    return step.result;
  }

 private:
  struct Step {
    std::string setup;
    Bytes reply;
    IOReturn result;
  };

  static std::string text(const IOUSBDevRequest& request, const Bytes& data) {
    std::ostringstream line;
    line << std::hex << "type " << +request.bmRequestType << " request " << +request.bRequest
         << " value " << request.wValue << " index " << request.wIndex << " length "
         << request.wLength << " preset " << request.wLenDone << " data";
    for (const auto byte : data) line << ' ' << +byte;
    return line.str();
  }

  std::deque<Step> expected_;
  IOUSBDeviceStruct942* device_ = this;
  IOCFPlugInInterfaceStruct* plug_in_ = this;
};

}  // namespace qm5::test
