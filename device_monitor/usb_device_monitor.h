// Follows the USB devices that match a list of vendor/product pairs: opens each one as it
// arrives and announces arrivals and removals as notifications. It never sends anything
// to a device.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device_monitor/usb_registry.h"

namespace qm5 {

/// Posted for each device that arrived and could be announced. Its object is a Dictionary
/// with the key "device": the USBDevice.
inline const std::string USBDeviceConnected = "USBDeviceConnected";
/// Posted for each device that left, announced before or not. Its object is a Dictionary
/// with the key "id": the device's id, std::uint64_t.
inline const std::string USBDeviceDisconnected = "USBDeviceDisconnected";
/// Posted for each device that arrived, after it was announced, or skipped. Its object is a
/// Dictionary with the keys "id": the device's id, std::uint64_t, and "result": IOReturn, 0
/// when it was announced, else why it was not.
inline const std::string USBDeviceExamined = "USBDeviceExamined";

// The platform's published identifiers of its USB user client and of the two interfaces.
/// 9DC7B780-9EC0-11D4-A54F-000A27052861
inline constexpr UUIDBytes kIOUSBDeviceUserClientTypeID = {
    0x9D, 0xC7, 0xB7, 0x80, 0x9E, 0xC0, 0x11, 0xD4, 0xA5, 0x4F, 0x00, 0x0A, 0x27, 0x05, 0x28, 0x61};
/// 5C8187D0-9EF3-11D4-8B45-000A27052861
inline constexpr UUIDBytes kIOUSBDeviceInterfaceID = {
    0x5C, 0x81, 0x87, 0xD0, 0x9E, 0xF3, 0x11, 0xD4, 0x8B, 0x45, 0x00, 0x0A, 0x27, 0x05, 0x28, 0x61};
/// C244E858-109C-11D4-91D4-0050E4C6426F
inline constexpr UUIDBytes kIOCFPlugInInterfaceID = {
    0xC2, 0x44, 0xE8, 0x58, 0x10, 0x9C, 0x11, 0xD4, 0x91, 0xD4, 0x00, 0x50, 0xE4, 0xC6, 0x42, 0x6F};

/// The bmRequestType of a control request: direction (only its lowest bit counts) in bit 7,
/// type in bits 5 and 6, recipient in bits 0 to 4.
constexpr std::uint8_t USBmakebmRequestType(int direction, int type, int recipient) {
  return static_cast<std::uint8_t>((static_cast<unsigned>(direction) << 7) |
                                   ((static_cast<unsigned>(type) & 0x03) << 5) |
                                   (static_cast<unsigned>(recipient) & 0x1F));
}

/// Filter entry: the devices with this vendor and product identifier.
struct USBMonitorData {
  std::uint16_t vendorId;
  std::uint16_t productId;
};

/// One matched device. Copied freely; copies refer to the same interfaces, which nobody
/// releases.
struct USBDevice {
  std::uint64_t id = 0;  ///< registry entry id; 0 when it could not be read
  std::uint16_t vendorId = 0;
  std::uint16_t productId = 0;
  std::string name;  ///< registry entry name; empty when it could not be read
  IOUSBDeviceStruct942** deviceInterfacePtrPtr = nullptr;
  IOCFPlugInInterfaceStruct** plugInInterfacePtrPtr = nullptr;
};

class USBDeviceMonitor {
 public:
  explicit USBDeviceMonitor(std::vector<USBMonitorData> vp);
  virtual ~USBDeviceMonitor() = default;

  /// Arms the watches of every filter entry, announcing from this thread what is attached
  /// already, then serves the registry's events. The body of a thread of its own: in
  /// production it never returns. Fatal when the registry can't be reached.
  virtual void start();

  /// Drains an iterator of arrived devices: opens and announces each. Called once by
  /// start(), then on the filter entry's "IODetector" queue.
  virtual void rawDeviceAdded(io_iterator_t iterator);
  /// Drains an iterator of removed devices and announces each. Same threads.
  virtual void rawDeviceRemoved(io_iterator_t iterator);

 private:
  void watch(const USBMonitorData& entry);

  const std::vector<USBMonitorData> vp;
};

}  // namespace qm5
