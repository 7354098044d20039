#include "simulator/usbip/packets.h"

#include <linux/usb/ch9.h>

#include <algorithm>
#include <string_view>

#include "simulator/device/descriptors.h"

namespace qm5 {
namespace {

constexpr std::uint16_t kProtocolVersion = 0x0111;
constexpr std::uint16_t kRequestList = 0x8005;
constexpr std::uint16_t kReplyList = 0x0005;
constexpr std::uint16_t kRequestImport = 0x8003;
constexpr std::uint16_t kReplyImport = 0x0003;
constexpr std::uint32_t kDone = 0;  // the status of a reply that has what was asked for

constexpr std::uint32_t kSubmit = 1;
constexpr std::uint32_t kUnlink = 2;
constexpr std::uint32_t kSubmitReply = 3;
constexpr std::uint32_t kUnlinkReply = 4;
constexpr std::uint32_t kToHost = 1;
constexpr std::uint32_t kNotIsochronous = 0xFFFFFFFF;  // Linux itself sends 0

constexpr std::size_t kRequestHeader = 8;
constexpr std::size_t kPathBytes = 256;
constexpr std::size_t kBusIdBytes = 32;
constexpr std::size_t kCommandHeader = 48;
constexpr std::size_t kSetupAt = 40;
constexpr std::uint32_t kBus = 1;

std::uint32_t number(ByteView bytes, std::size_t at, std::size_t size) {
  std::uint32_t value = 0;
  for (const std::uint8_t byte : bytes.subspan(at, size)) value = value << 8 | byte;
  return value;
}

void append(Bytes& packet, std::uint32_t value, std::size_t size) {
  for (std::size_t left = size; left > 0; --left)
    packet.push_back(static_cast<std::uint8_t>(value >> 8 * (left - 1) & 0xFF));
}

/// A text in a field of that size, which ends in a zero byte at least.
void append(Bytes& packet, std::string_view text, std::size_t size) {
  const std::size_t kept = std::min(text.size(), size - 1);
  packet.insert(packet.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(kept));
  packet.resize(packet.size() + size - kept);
}

Bytes replyHeader(std::uint16_t code, std::uint32_t status) {
  Bytes packet;
  append(packet, kProtocolVersion, 2);
  append(packet, code, 2);
  append(packet, status, 4);
  return packet;
}

/// The descriptors write their numbers of two bytes with the low one first.
std::uint32_t field(ByteView descriptor, std::size_t at) {
  return static_cast<std::uint32_t>(descriptor[at] | descriptor[at + 1] << 8);
}

void appendDevice(Bytes& packet, const ExportedDevice& device) {
  append(packet, "/sys/bus/usb/devices/" + device.busId(), kPathBytes);
  append(packet, device.busId(), kBusIdBytes);
  append(packet, kBus, 4);
  append(packet, device.address(), 4);
  append(packet, USB_SPEED_HIGH, 4);
  for (const std::size_t at : {8U, 10U, 12U})  // vendor, product, and the device's release
    append(packet, field(kDeviceDescriptor, at), 2);
  for (const std::size_t at : {4U, 5U, 6U}) packet.push_back(kDeviceDescriptor[at]);  // its class
  packet.push_back(device.configuration());
  packet.push_back(kDeviceDescriptor[17]);        // how many configurations there are
  packet.push_back(kConfigurationDescriptor[4]);  // how many interfaces there are
}

/// Of a reply about an imported device; it holds neither device, direction nor endpoint.
Bytes commandHeader(std::uint32_t code, const UsbipCommand& command, int status) {
  Bytes packet;
  append(packet, code, 4);
  append(packet, command.sequence, 4);
  packet.resize(packet.size() + 12);
  append(packet, static_cast<std::uint32_t>(status), 4);
  return packet;
}

bool isValidSubmit(const UsbipCommand& command) {
  if (command.endpoint != 0) return false;  // the only one
  if (command.packets != 0 && command.packets != kNotIsochronous) return false;
  if (!command.to_host && command.length != command.setup.wLength) return false;
  return command.setup.wLength == 0 || command.to_host == isRead(command.setup);
}

}  // namespace

std::optional<std::size_t> requestSize(ByteView begin) {
  if (begin.size() < kRequestHeader) return kRequestHeader;
  if (number(begin, 0, 2) != kProtocolVersion) return std::nullopt;
  switch (number(begin, 2, 2)) {
    case kRequestList:
      return kRequestHeader;
    case kRequestImport:
      return kRequestHeader + kBusIdBytes;
    default:
      return std::nullopt;
  }
}

std::optional<std::size_t> commandSize(ByteView begin) {
  if (begin.size() < kCommandHeader) return kCommandHeader;
  const std::uint32_t code = number(begin, 0, 4);
  if (code == kUnlink) return kCommandHeader;
  if (code != kSubmit || number(begin, 12, 4) > kToHost) return std::nullopt;
  const UsbipCommand command = parseCommand(begin);
  if (!isValidSubmit(command)) return std::nullopt;
  return kCommandHeader + (command.to_host ? 0 : command.length);
}

UsbipRequest parseRequest(ByteView packet) {
  const ByteView id = packet.subspan(kRequestHeader);
  const std::string bus_id(id.begin(), std::find(id.begin(), id.end(), 0));
  return {number(packet, 2, 2) == kRequestList ? UsbipRequest::Kind::list
                                               : UsbipRequest::Kind::import_device,
          bus_id};
}

UsbipCommand parseCommand(ByteView packet) {
  return {.kind = number(packet, 0, 4) == kSubmit ? UsbipCommand::Kind::submit
                                                  : UsbipCommand::Kind::unlink,
          .sequence = number(packet, 4, 4),
          .device = number(packet, 8, 4),
          .to_host = number(packet, 12, 4) == kToHost,
          .endpoint = number(packet, 16, 4),
          .length = number(packet, 24, 4),
          .packets = number(packet, 32, 4),
          .setup = parseSetup(packet.subspan(kSetupAt, kSetupBytes)),
          .unlinked = number(packet, 20, 4)};
}

ByteView sentData(ByteView packet) {
  return packet.subspan(kCommandHeader);
}

std::uint32_t deviceNumber(const ExportedDevice& device) {
  return kBus << 16 | device.address();
}

Bytes listReply(const std::deque<ExportedDevice>& devices) {
  Bytes packet = replyHeader(kReplyList, kDone);
  append(packet, static_cast<std::uint32_t>(devices.size()), 4);
  for (const ExportedDevice& each : devices) {
    appendDevice(packet, each);
    for (const std::size_t at : {14U, 15U, 16U})  // the class of its interface
      packet.push_back(kConfigurationDescriptor[at]);
    packet.push_back(0);  // fills the field up
  }
  return packet;
}

Bytes importReply(const ExportedDevice& device) {
  Bytes packet = replyHeader(kReplyImport, kDone);
  appendDevice(packet, device);
  return packet;
}

Bytes importRefusal(ImportError error) {
  return replyHeader(kReplyImport, static_cast<std::uint32_t>(error));
}

Bytes submitReply(const UsbipCommand& command, const ControlResult& result) {
  const int status = linuxStatus(result.status);
  const std::size_t received = std::min<std::size_t>(result.data.size(), command.length);
  const std::size_t moved = command.to_host ? received : command.length;
  Bytes packet = commandHeader(kSubmitReply, command, status);
  append(packet, status == 0 ? static_cast<std::uint32_t>(moved) : 0, 4);
  append(packet, 0, 4);                // the first frame, of an isochronous transfer
  append(packet, command.packets, 4);  // as Linux expects it
  packet.resize(kCommandHeader);
  if (status == 0 && command.to_host)
    packet.insert(packet.end(), result.data.begin(),
                  result.data.begin() + static_cast<std::ptrdiff_t>(moved));
  return packet;
}

Bytes unlinkReply(const UsbipCommand& command, int status) {
  Bytes packet = commandHeader(kUnlinkReply, command, status);
  packet.resize(kCommandHeader);
  return packet;
}

}  // namespace qm5
