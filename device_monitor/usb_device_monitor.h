// Watches for the USB devices that match a list of vendor/product pairs. Opens each one as it
// arrives and announces arrivals and removals through the process's notification centre. Makes no
// control request.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "device_monitor/usb_registry.h"

namespace qm5 {

/// Posted for each arrived device that could be opened and described, or that another process
/// holds. Object: Dictionary {"device": USBDevice}.
inline constexpr std::string_view USBDeviceConnected = "USBDeviceConnected";
/// Posted for each device that left, whether or not its arrival was announced.
/// Object: Dictionary {"id": std::uint64_t}, the device's id.
inline constexpr std::string_view USBDeviceDisconnected = "USBDeviceDisconnected";
/// Posted for each device that arrived, after USBDeviceConnected where that is posted.
/// Object: Dictionary {"id": std::uint64_t, "result": IOReturn, "location": std::string}. The
/// result is kIOReturnSuccess when the arrival was announced, else that of the step that failed.
/// The location is where the device is plugged in, as in "1-4.2"; empty when that is not known.
inline constexpr std::string_view USBDeviceExamined = "USBDeviceExamined";

// The platform's published identifiers: of its USB user client, of the device interface and of the
// plug-in interface.
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
static_assert(USBmakebmRequestType(1, 2, 0) == 0xC0 && USBmakebmRequestType(2, 6, 33) == 0x41);

/// Filter entry: selects the devices with this vendor and product identifier.
struct USBMonitorData {
  std::uint16_t vendorId;
  std::uint16_t productId;
};

/// One matched device. Copies refer to the same interfaces, which are never released and stay valid
/// for the life of the process.
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
  /// Stores the filter list and does nothing else.
  explicit USBDeviceMonitor(std::vector<USBMonitorData> vp);
  virtual ~USBDeviceMonitor() = default;

  /// Arms the two watches of every filter entry, announces the devices that are attached already
  /// on the calling thread, then serves the registry's events. Meant as the body of a thread of its
  /// own: in production it never returns. Fatal when the registry gives no port or no matching
  /// dictionary.
  virtual void start();

  /// Takes every arrived device from the iterator, opens and announces it. A device that fails at a
  /// step is not announced. Called once by start() on its thread, then on the filter entry's
  /// "IODetector" queue.
  virtual void rawDeviceAdded(io_iterator_t iterator);
  /// Takes every removed device from the iterator and announces its removal. Same threads.
  virtual void rawDeviceRemoved(io_iterator_t iterator);

 private:
  void watch(const USBMonitorData& entry);

  const std::vector<USBMonitorData> vp;
};

}  // namespace qm5
