// What has become of the QM5 that an update was begun with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "device_link/device_presence.h"

namespace qm5 {

enum class UpdatedDevice {
  notYetThere,  ///< the link has had no device since the beginning
  there,        ///< the link uses it; also before the job looks for one, while the link has any
  away,         ///< the link has no device any more
  cameBack,     ///< it has left, and the link uses one that arrived since at the same USB port
  replaced,     ///< the link uses another one: from another port, or that came while it was there
};

/// Times are seconds of one monotonic clock.
class DeviceOfUpdate {
 public:
  /// An update begins.
  explicit DeviceOfUpdate(double now) : start_(now) {}

  /// What is so with that on the bus. Call it after each change there.
  UpdatedDevice compare(const DeviceState& bus, double now);

 private:
  double start_;
  std::optional<std::uint64_t> device_;       // that this update was begun with
  std::string location_;                      // where that one was; empty: not known
  std::optional<std::uint64_t> replacement_;  // came while that one was there, and is used
};

}  // namespace qm5
