#include "simulator/device/control_request.h"

#include <cerrno>

namespace qm5 {
namespace {

std::uint16_t littleEndian(ByteView bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

}  // namespace

ControlSetup parseSetup(ByteView packet) {
  return {packet[0], packet[1], littleEndian(packet, 2), littleEndian(packet, 4),
          littleEndian(packet, 6)};
}

int linuxStatus(ControlStatus status) {
  switch (status) {
    case ControlStatus::stall:
      return -EPIPE;
    case ControlStatus::pending:
      return -EINPROGRESS;
    case ControlStatus::gone:
      return -ESHUTDOWN;
    case ControlStatus::ok:
      break;
  }
  return 0;
}

}  // namespace qm5
