#include "update_run/device_of_update.h"

namespace qm5 {
namespace {

// When the job looks for the QM5. Until then, one that comes is as good as one that has left.
constexpr double kLooksAfter = 1;  // second

// Either may be unknown.
bool maySharePort(const std::string& one, const std::string& other) {
  return one.empty() || other.empty() || one == other;
}

}  // namespace

UpdatedDevice DeviceOfUpdate::compare(const DeviceState& bus, double now) {
  if (!bus.used) return device_ ? UpdatedDevice::away : UpdatedDevice::notYetThere;
  if (!device_ || now - start_ < kLooksAfter) {
    device_ = bus.used;
    location_ = bus.location;
  }
  if (bus.used == device_) return UpdatedDevice::there;
  // Both were there at once: it is another one for good, even when the first one leaves.
  if (bus.present.contains(*device_)) replacement_ = bus.used;
  return maySharePort(location_, bus.location) && bus.used != replacement_
             ? UpdatedDevice::cameBack
             : UpdatedDevice::replaced;
}

}  // namespace qm5
