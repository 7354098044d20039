// Control requests on endpoint zero and their results, as a device on any bus sees them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/bytes.h"

namespace qm5 {

/// The setup packet. The fields are host integers.
struct ControlSetup {
  std::uint8_t bmRequestType;
  std::uint8_t bRequest;
  std::uint16_t wValue;
  std::uint16_t wIndex;
  std::uint16_t wLength;
};

/// Whether data flows from the device to the host.
inline bool isRead(const ControlSetup& setup) {
  return (setup.bmRequestType & 0x80) != 0;
}

inline constexpr std::size_t kSetupBytes = 8;
/// Reads the setup packet as it is on the wire; at least kSetupBytes.
ControlSetup parseSetup(ByteView packet);

enum class ControlStatus {
  ok,
  stall,    ///< the device refuses the request
  pending,  ///< the device never answers: the request ends when the device is unplugged
  gone,     ///< the device left during the request
};

/// The status of a transfer in Linux: 0 or a negative errno, -EINPROGRESS while it has no end.
int linuxStatus(ControlStatus status);

struct ControlResult {
  ControlStatus status = ControlStatus::ok;
  bool comes_back = false;  ///< with `gone`: it is plugged in again a moment later
  Bytes data = {};          ///< of a read: what the device sent, at most wLength bytes
};

/// A device that can be plugged into a bus: it answers control requests.
class ControlEndpoint {
 public:
  /// Carries out one control request. `data` is what a write sends.
  virtual ControlResult control(const ControlSetup& setup, ByteView data) = 0;
  /// The device gets power, as plugging it in does. What it was doing before is lost.
  virtual void powerCycle() = 0;

 protected:
  ~ControlEndpoint() = default;
};

}  // namespace qm5
