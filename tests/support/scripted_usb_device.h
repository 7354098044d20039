// The device side of the USB port. Strict: it answers the requests that the test scripted, in that
// order; any other request, and a scripted one that never comes, fails the test.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include "device_monitor/usb_device_monitor.h"
#include "update_requests.h"

namespace qm5::test {

inline constexpr IOReturn kRefused = -9;  // LIBUSB_ERROR_PIPE

class ScriptedUsbDevice final : public IOUSBDeviceStruct942 {
 public:
  ~ScriptedUsbDevice() {
    EXPECT_TRUE(expected_.empty()) << "never came: " << describe(expected_.front().first);
  }

  // Script it. Without a reply the request fails; a reply may be shorter than asked for.
  void expect(const WireRequest& request, const std::optional<Bytes>& reply = Bytes()) {
    expected_.push_back({request, reply});
  }
  void expectRead(std::uint16_t address, std::uint16_t length, const std::optional<Bytes>& reply) {
    expect(registerRead(address, length), reply);
  }
  /// A task that has ended at the first poll. Zeros follow what is given of its reply.
  void expectTask(std::string_view command, const Bytes& data = {},
                  std::optional<Bytes> reply = Bytes{0x40}) {
    for (const WireRequest& request : taskRequests(command, data)) {
      const bool polls = isRead(request.setup) && request.setup.wValue == 0x1E;
      expect(request, polls ? Bytes{4, 0, 0, 0, 0} : Bytes());
    }
    if (reply) reply->resize(expected_.back().first.setup.wLength);
    expected_.back().second = std::move(reply);
  }

  /// Happens once, during the next request.
  std::function<void()> during_request;

  // Pass it on.
  USBDevice record(std::uint64_t id = 7) { return {id, 0x0451, 0xACE1, "QM5", &device_, nullptr}; }

  // The port.
  IOReturn USBDeviceOpen() override { return kIOReturnSuccess; }
  IOReturn GetDeviceVendor(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn GetDeviceProduct(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override {
    const ControlSetup setup = {request.bmRequestType, request.bRequest, request.wValue,
                                request.wIndex, request.wLength};
    const ByteView sent(request.pData, isRead(setup) ? 0U : setup.wLength);
    const WireRequest made = {setup, Bytes(sent.begin(), sent.end())};
    EXPECT_EQ(request.wLenDone, 0xFFU) << "the preset";
    if (expected_.empty()) {
      ADD_FAILURE() << "not expected: " << describe(made);
      return kRefused;
    }
    const auto [expected, reply] = expected_.front();
    expected_.pop_front();
    EXPECT_EQ(describe(made), describe(expected));
    if (const auto happens = std::exchange(during_request, nullptr)) happens();
    if (!reply) return kRefused;
    std::copy(reply->begin(), reply->end(), request.pData);
    request.wLenDone = static_cast<std::uint32_t>(reply->size());
    return kIOReturnSuccess;
  }

 private:
  std::deque<std::pair<WireRequest, std::optional<Bytes>>> expected_;
  IOUSBDeviceStruct942* device_ = this;
};

}  // namespace qm5::test
