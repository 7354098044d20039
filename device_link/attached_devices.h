// All QM5s that are on the bus, where the link itself knows one.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "device_link/driver.h"

namespace qm5 {

/// One QM5 on the bus.
struct AttachedDevice {
  enum class Access {
    permitted,
    notPermitted,  ///< this user may not open it
    failed,        ///< it could not be opened for another reason
  };
  std::string location;  ///< the kernel's name of its port; empty when not known
  Access access = Access::failed;
  std::optional<std::string> version;  ///< empty when it was not read
  std::optional<USBDevice> device;     ///< as it was announced; empty when it was not
};

/// Reads the version of one that may be opened, with one request, and leaves the Driver in
/// `global_driver` with it. Blocks; no update may be under way.
void readVersion(AttachedDevice& device);

/// Follows the notifications of the process's monitor. Made before the Driver, so that it hears of
/// every device.
class AttachedDevices {
 public:
  AttachedDevices();

  /// Gives the Driver in `global_driver` the device announced last, where it has none: what is
  /// announced while the Driver is made, it misses. Call it once, when the Driver has been made.
  /// Any thread.
  void announceMissed();

  /// What is on the bus now, in the order of arrival, without versions. Any thread.
  std::vector<AttachedDevice> list() const;

 private:
  struct Known {
    std::optional<USBDevice> announced;
    std::string location;
    IOReturn result = kIOReturnSuccess;  ///< of opening it
  };

  void connected(const Notification& posted);
  void examined(const Notification& posted);
  void disconnected(const Notification& posted);

  mutable std::mutex mutex_;              // guards what follows
  std::map<std::uint64_t, Known> known_;  // ids are given in the order of arrival
  std::weak_ptr<Driver> driver_;          // once it has been made
  const NotificationCenter::Registration connected_;
  const NotificationCenter::Registration examined_;
  const NotificationCenter::Registration disconnected_;
};

}  // namespace qm5
