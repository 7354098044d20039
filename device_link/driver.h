// The one link to the QM5: which device is attached, and vendor control requests to it.
// Everything above talks to the device through this only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "device_monitor/usb_device_monitor.h"
#include "platform/bytes.h"
#include "platform/notification_center.h"
#include "platform/thread.h"

namespace qm5 {

class Driver {
 public:
  /// Starts to follow the devices with that vendor and product identifier, on a thread of
  /// its own, and does not wait for it. The thread starts before the new object listens: a
  /// device that it announces in between is not seen.
  Driver(std::uint16_t vendorID, std::uint16_t productID);
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  const std::uint16_t vendorID;
  const std::uint16_t productID;

  /// The attached device, the one reported last; empty when there is none. Any thread.
  std::optional<USBDevice> deviceInfo() const;

  /// Observers of the monitor's notifications; ignore those without the expected object.
  void usbConnected(const Notification& notification);
  void usbDisconnected(const Notification& notification);

  /// Whether a device is attached, by what was last announced; sends nothing.
  bool usb_find();

  /// One control read of `length` bytes. Returns all `length` bytes, with zeros where the
  /// device sent fewer; empty when no device is attached or the request failed. Blocks.
  std::optional<Bytes> usb_read(std::uint8_t requestType, std::uint8_t request, std::uint16_t addr,
                                std::uint16_t index, std::uint16_t length);

  /// One control write. Returns data.size(), or 0 when no device is attached or the request
  /// failed. Fatal when a device is attached and a value does not fit: 8 bits for
  /// requestType and request, 16 for addr, index and the length of data. Blocks.
  std::size_t usb_write(std::uint32_t requestType, std::uint32_t request, std::uint32_t addr,
                        std::uint32_t index, ByteView data);

 private:
  IOUSBDeviceStruct942* deviceInterface() const;

  mutable std::mutex mutex_;
  std::optional<USBDevice> device_info_;  // replaced or cleared as a whole

  // The system's own names for the two.
  const std::shared_ptr<USBDeviceMonitor> deviceMonitor;
  Thread deviceMonitorDaemon;

  std::optional<NotificationCenter::Registration> connected_;
  std::optional<NotificationCenter::Registration> disconnected_;
};

/// The one Driver of the process; empty until the first main window controller is made.
/// Set on the main thread before the first update job, read by the jobs.
extern std::shared_ptr<Driver> global_driver;

}  // namespace qm5
