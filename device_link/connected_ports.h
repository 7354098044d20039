// The USB ports that have a QM5, without opening any: for a process that leaves them to others.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "device_monitor/usb_device_monitor.h"

namespace qm5 {

/// In place of the Driver's monitor. Lives until the process ends.
class ConnectedPorts final : private USBDeviceMonitor {
 public:
  /// Follows the bus on a thread of its own. `arrived` is called there after each arrival.
  explicit ConnectedPorts(std::function<void()> arrived);

  /// The kernel's names of the ports, as in "1-4.2", in the order of arrival. Any thread.
  std::vector<std::string> locations() const;

 private:
  void rawDeviceAdded(io_iterator_t iterator) override;
  void rawDeviceRemoved(io_iterator_t iterator) override;

  const std::function<void()> arrived_;
  mutable std::mutex mutex_;                        // guards what follows
  std::map<std::uint64_t, std::string> locations_;  // by id, which are given in that order
};

}  // namespace qm5
