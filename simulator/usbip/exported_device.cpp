#include "simulator/usbip/exported_device.h"

#include <linux/usb/ch9.h>

#include <algorithm>

#include "simulator/device/descriptors.h"

namespace qm5 {
namespace {

constexpr std::uint16_t kUsEnglish = 0x0409;  // the only language

constexpr std::uint8_t kFromDevice = USB_DIR_IN | USB_RECIP_DEVICE;
constexpr std::uint8_t kFromInterface = USB_DIR_IN | USB_RECIP_INTERFACE;
constexpr std::uint8_t kFromEndpoint = USB_DIR_IN | USB_RECIP_ENDPOINT;
constexpr std::uint8_t kToDevice = USB_DIR_OUT | USB_RECIP_DEVICE;
constexpr std::uint8_t kToInterface = USB_DIR_OUT | USB_RECIP_INTERFACE;

/// What a setup packet asks, of whom and in which direction.
constexpr unsigned int question(std::uint8_t type, std::uint8_t request) {
  return static_cast<unsigned int>(type << 8 | request);
}

std::uint8_t lowByte(std::uint16_t value) {
  return static_cast<std::uint8_t>(value & 0xFF);
}

std::uint8_t highByte(std::uint16_t value) {
  return static_cast<std::uint8_t>(value >> 8);
}

std::optional<Bytes> answerIf(bool possible, const Bytes& answer) {
  return possible ? std::optional(answer) : std::nullopt;
}

}  // namespace

bool ExportedDevice::plug() {
  if (plugged_) return false;
  plugged_ = true;
  configuration_ = 0;
  endpoint_.powerCycle();
  return true;
}

ControlResult ExportedDevice::control(const ControlSetup& setup, ByteView data) {
  if ((setup.bmRequestType & USB_TYPE_MASK) != USB_TYPE_STANDARD)
    return endpoint_.control(setup, data);
  std::optional<Bytes> answer = answerStandardRequest(setup);
  if (!answer) return {.status = ControlStatus::stall};
  answer->resize(std::min<std::size_t>(answer->size(), setup.wLength));
  return {.data = std::move(*answer)};
}

// Empty: the device refuses. The request to take an address is none of these: the host's side of
// USB/IP answers it.
std::optional<Bytes> ExportedDevice::answerStandardRequest(const ControlSetup& setup) {
  switch (question(setup.bmRequestType, setup.bRequest)) {
    case question(kFromDevice, USB_REQ_GET_DESCRIPTOR):
      return descriptor(setup.wValue);
    case question(kFromDevice, USB_REQ_GET_CONFIGURATION):
      return Bytes{configuration_};
    case question(kToDevice, USB_REQ_SET_CONFIGURATION):
      if (setup.wValue > kConfigurationValue) return std::nullopt;
      configuration_ = lowByte(setup.wValue);
      return Bytes{};
    case question(kFromDevice, USB_REQ_GET_STATUS):  // powered by the bus
      return Bytes{0, 0};
    case question(kFromEndpoint, USB_REQ_GET_STATUS):  // not halted
      return answerIf((setup.wIndex & USB_ENDPOINT_NUMBER_MASK) == 0, {0, 0});
    default:
      return configuration_ != 0 && setup.wIndex == 0 ? answerOfInterface(setup) : std::nullopt;
  }
}

std::optional<Bytes> ExportedDevice::answerOfInterface(const ControlSetup& setup) {
  switch (question(setup.bmRequestType, setup.bRequest)) {
    case question(kFromInterface, USB_REQ_GET_INTERFACE):
      return Bytes{0};
    case question(kToInterface, USB_REQ_SET_INTERFACE):
      return answerIf(setup.wValue == 0, {});
    case question(kFromInterface, USB_REQ_GET_STATUS):
      return Bytes{0, 0};
    default:
      return std::nullopt;
  }
}

std::optional<Bytes> ExportedDevice::descriptor(std::uint16_t value) const {
  switch (highByte(value)) {
    case USB_DT_DEVICE:
      return Bytes(kDeviceDescriptor.begin(), kDeviceDescriptor.end());
    case USB_DT_CONFIG:
      return answerIf(lowByte(value) == 0,
                      {kConfigurationDescriptor.begin(), kConfigurationDescriptor.end()});
    case USB_DT_STRING:
      return text(lowByte(value));
    default:  // nor has it a qualifier: it knows one speed
      return std::nullopt;
  }
}

std::optional<Bytes> ExportedDevice::text(std::uint8_t number) const {
  Bytes text = {0, USB_DT_STRING};
  if (number == 0) {  // the languages
    text.insert(text.end(), {lowByte(kUsEnglish), highByte(kUsEnglish)});
  } else if (number == kProductString && options_.product) {
    for (const char each : *options_.product)
      text.insert(text.end(), {static_cast<std::uint8_t>(each), 0});
  } else {
    return std::nullopt;
  }
  text[0] = static_cast<std::uint8_t>(text.size());
  return text;
}

}  // namespace qm5
