// The packets of Linux's USB/IP protocol, version 1.1.1: what a host sends, taken apart, and what
// it gets, composed. Numbers are big-endian, but for the setup packet.
//
// A connection begins with one request: for the list of devices, after which it ends, or for one
// device, of which it then carries the transfers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "simulator/device/control_request.h"
#include "simulator/usbip/exported_device.h"

namespace qm5 {

/// What the first packet of a connection asks for.
struct UsbipRequest {
  enum class Kind { list, import_device } kind;
  std::string bus_id;  ///< of the device to import
};

enum class ImportError : std::uint32_t { busy = 2, no_such_device = 4 };

/// One packet about an imported device: a transfer to carry out, or one to give up.
struct UsbipCommand {
  enum class Kind { submit, unlink } kind;
  std::uint32_t sequence;  ///< the host's number of this packet
  std::uint32_t device;    ///< as deviceNumber() has it
  bool to_host;            ///< the direction of the transfer
  std::uint32_t endpoint;
  std::uint32_t length;   ///< of the host's buffer
  std::uint32_t packets;  ///< of an isochronous transfer
  ControlSetup setup;
  std::uint32_t unlinked;  ///< the sequence of the transfer to give up
};

/// The size of the packet that begins with `begin`, as far as that can be told yet; empty when a
/// host that keeps to the protocol doesn't send that.
std::optional<std::size_t> requestSize(ByteView begin);
std::optional<std::size_t> commandSize(ByteView begin);

/// Of a whole packet, whose size is known by the functions above.
UsbipRequest parseRequest(ByteView packet);
UsbipCommand parseCommand(ByteView packet);
/// What a transfer to the device sends.
ByteView sentData(ByteView packet);

std::uint32_t deviceNumber(const ExportedDevice& device);

Bytes listReply(const std::deque<ExportedDevice>& devices);
Bytes importReply(const ExportedDevice& device);
Bytes importRefusal(ImportError error);
Bytes submitReply(const UsbipCommand& command, const ControlResult& result);
/// `status`: -ECONNRESET when the transfer was given up, 0 when it had ended before.
Bytes unlinkReply(const UsbipCommand& command, int status);

}  // namespace qm5
