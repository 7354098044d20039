// The operating system's registry of USB devices: which are there, which come and go,
// how to open one, and one control request at a time to it.
// Production: libusb/. Tests: tests/support/scripted_usb_registry.h.
//
// The port speaks the language of a service registry, as the monitor and the link do:
// watches fill iterators, an iterator yields services until it yields 0, a service is
// turned into a plug-in interface and that into a device interface.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/dispatch_queue.h"

namespace qm5 {

/// Result of an operation: 0, or the bus library's own negative code.
using IOReturn = std::int32_t;
inline constexpr IOReturn kIOReturnSuccess = 0;
/// The user may not open the device (libusb's LIBUSB_ERROR_ACCESS).
inline constexpr IOReturn kIOReturnNotPermitted = -3;
/// Another process holds the device (libusb's LIBUSB_ERROR_BUSY).
inline constexpr IOReturn kIOReturnExclusiveAccess = -6;
/// No reason is known (libusb's LIBUSB_ERROR_OTHER).
inline constexpr IOReturn kIOReturnError = -99;

// Handles. 0 is no object.
using io_port_t = std::uint32_t;
using io_iterator_t = std::uint32_t;
using io_service_t = std::uint32_t;

/// The 128 bytes into which the registry writes a name that ends at the first zero byte.
using io_name_t = std::array<char, 128>;

/// The 16 bytes of a UUID, in the order in which they are written.
using UUIDBytes = std::array<std::uint8_t, 16>;

/// One control request on endpoint zero. The fields are host integers.
struct IOUSBDevRequest {
  std::uint8_t bmRequestType;
  std::uint8_t bRequest;
  std::uint16_t wValue;
  std::uint16_t wIndex;
  std::uint16_t wLength;   ///< bytes that pData points to
  std::uint8_t* pData;     ///< sent, or filled with what the device sent
  std::uint32_t wLenDone;  ///< out: bytes moved, set when the request succeeded
};

/// An opened, or openable, device. Lives for the rest of the process; once its device has
/// left, every request fails. Any thread.
class IOUSBDeviceStruct942 {
 public:
  virtual IOReturn USBDeviceOpen() = 0;
  virtual IOReturn GetDeviceVendor(std::uint16_t& vendor) = 0;
  virtual IOReturn GetDeviceProduct(std::uint16_t& product) = 0;
  /// Issues one request and blocks until it has ended, however long that takes.
  virtual IOReturn DeviceRequest(IOUSBDevRequest& request) = 0;

 protected:
  ~IOUSBDeviceStruct942() = default;
};

/// The step between a service and its device interface. Lives for the rest of the process.
class IOCFPlugInInterfaceStruct {
 public:
  /// Sets `device` to the interface with that identifier; other than 0 when it has none.
  virtual IOReturn QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) = 0;

 protected:
  ~IOCFPlugInInterfaceStruct() = default;
};

/// What a watch looks for: a class of services and values that their properties must have.
struct MatchingDictionary {
  std::string class_name;
  std::map<std::string, std::uint16_t> numbers;
};

enum class IONotificationType {
  firstMatch,  ///< "IOServiceFirstMatch"
  terminate,   ///< "IOServiceTerminate"
};

class USBRegistry {
 public:
  virtual ~USBRegistry() = default;

  /// Called with the watch's iterator each time that it has something to yield.
  using MatchingCallback = std::function<void(io_iterator_t)>;

  /// A port on which watches are registered; 0 when the registry can't be reached.
  virtual io_port_t notificationPortCreate() = 0;
  /// Has the callbacks of the port's watches run on `queue`.
  virtual void notificationPortSetDispatchQueue(io_port_t port,
                                                std::shared_ptr<DispatchQueue> queue) = 0;
  /// A dictionary that matches all services of that class; nullptr when there can't be one.
  virtual std::unique_ptr<MatchingDictionary> serviceMatching(const std::string& class_name) = 0;
  /// Registers a watch and sets `iterator` to its iterator, which yields what is there
  /// already. The watch calls back only once that has been drained. A watch that can't be
  /// registered leaves `iterator` alone.
  virtual IOReturn serviceAddMatchingNotification(io_port_t port, IONotificationType type,
                                                  const MatchingDictionary& matching,
                                                  MatchingCallback callback,
                                                  io_iterator_t& iterator) = 0;
  /// The next service, which the caller releases; 0 when the iterator is drained or is 0.
  virtual io_service_t iteratorNext(io_iterator_t iterator) = 0;
  /// A number that no other device has or had, the same from arrival to removal.
  virtual IOReturn registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) = 0;
  virtual IOReturn registryEntryGetName(io_service_t service, io_name_t& name) = 0;
  virtual IOReturn createPlugInInterfaceForService(io_service_t service,
                                                   const UUIDBytes& plug_in_type,
                                                   const UUIDBytes& interface_type,
                                                   IOCFPlugInInterfaceStruct**& plug_in) = 0;
  virtual IOReturn objectRelease(io_service_t service) = 0;
  /// Serves the registry's events on the calling thread. In production it never returns.
  virtual void runLoop() = 0;
};

/// The registry that the process uses; fatal when none has been set. Any thread.
USBRegistry& usbRegistry();
/// Sets it, before the first monitor starts. `registry` stays the caller's.
void setUSBRegistry(USBRegistry* registry);

}  // namespace qm5
