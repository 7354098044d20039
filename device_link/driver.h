// The only link to the QM5: knows which device is attached and makes control requests to it.
#pragma once

#include <atomic>
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

/// The identifiers by which a QM5 is known on the bus.
inline constexpr std::uint16_t kVendorTexasInstruments = 0x0451;
inline constexpr std::uint16_t kProductQM5 = 0xACE1;

class Driver {
 public:
  /// Starts a thread that watches for devices with that vendor and product identifier, and does not
  /// wait for it. The thread starts before this object observes its notifications: a device that
  /// it announces in between is missed. Main thread. Fatal when the system has no thread left.
  Driver(std::uint16_t vendorID, std::uint16_t productID);
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  const std::uint16_t vendorID;
  const std::uint16_t productID;

  /// The attached device; of several the one announced last; empty when there is none. Any thread.
  std::optional<USBDevice> deviceInfo() const;

  /// Observe the monitor's notifications, on the thread that posts them. A notification without
  /// the expected object is ignored.
  void usbConnected(const Notification& notification);
  void usbDisconnected(const Notification& notification);

  /// Returns whether a device is attached, according to the last announcement, and prints one or
  /// two lines. Makes no request. Any thread.
  bool usb_find();

  /// Makes one control read. Returns exactly `length` bytes, zeros where the device sent fewer;
  /// empty when no device is attached or the request failed. Blocks without a time-out. One thread
  /// at a time: in the program, the update job.
  std::optional<Bytes> usb_read(std::uint8_t requestType, std::uint8_t request, std::uint16_t addr,
                                std::uint16_t index, std::uint16_t length);

  /// When a device last answered a control read, by the process's clock; 0 when none has. Any
  /// thread.
  double lastAnswer() const { return last_answer_; }

  /// Makes one control write. `data` is not modified. Returns data.size(), or 0 when no device is
  /// attached or the request failed; for empty data the two look alike. Fatal when a device is
  /// attached and a value does not fit: 8 bits for requestType and request, 16 bits for addr, index
  /// and the length of data. Blocks without a time-out; same thread as usb_read().
  std::size_t usb_write(std::uint32_t requestType, std::uint32_t request, std::uint32_t addr,
                        std::uint32_t index, ByteView data);

 private:
  IOUSBDeviceStruct942* deviceInterface() const;

  mutable std::mutex mutex_;
  std::optional<USBDevice> device_info_;  // replaced or cleared as a whole

  std::atomic<double> last_answer_ = 0;

  // Members with names of the toolkit's style, as vendorID above.
  const std::shared_ptr<USBDeviceMonitor> deviceMonitor;
  Thread deviceMonitorDaemon;

  std::optional<NotificationCenter::Registration> connected_;
  std::optional<NotificationCenter::Registration> disconnected_;
};

/// The one Driver of the process; empty until the first ViewController, or the command, is made.
/// Written on the main thread before the first update job starts, read by the jobs.
extern std::shared_ptr<Driver> global_driver;

}  // namespace qm5
