// The operating system's registry of USB devices: which are there, which come and go,
// how to open one, and one control request at a time to it.
// Production: libusb/. Tests: simulator/direct_bus/.
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
#include "platform/port.h"

namespace qm5 {

/// Result of an operation: 0, or libusb's own negative code. Where a function lists codes, the
/// adapter may return others too: they mean failure without a known reason.
using IOReturn = std::int32_t;
inline constexpr IOReturn kIOReturnSuccess = 0;
/// The user may not open the device (libusb's LIBUSB_ERROR_ACCESS).
inline constexpr IOReturn kIOReturnNotPermitted = -3;
/// The device has left (libusb's LIBUSB_ERROR_NO_DEVICE).
inline constexpr IOReturn kIOReturnNoDevice = -4;
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

/// An opened, or openable, device. Lives for the rest of the process. Any thread.
class IOUSBDeviceStruct942 : public PortObject {
 public:
  /// Opens the device, which requests need. Sends nothing.
  /// kIOReturnExclusiveAccess: the caller announces the device all the same, and its requests
  /// fail. kIOReturnNotPermitted, -4 (the device has left) and any other: the caller says so on the
  /// console and skips the device.
  virtual IOReturn USBDeviceOpen() = 0;
  /// Sets `vendor` to the vendor identifier of the device's descriptor. Sends nothing. Other than 0
  /// when the descriptor is not known: the caller skips the device. libusb always knows it.
  virtual IOReturn GetDeviceVendor(std::uint16_t& vendor) = 0;
  /// The same for the product identifier.
  virtual IOReturn GetDeviceProduct(std::uint16_t& product) = 0;
  /// Issues one request of at most 4096 bytes and blocks until it has ended, however long that
  /// takes. Sets wLenDone and fills pData only when it returns 0; fewer bytes than wLength are a
  /// success too.
  /// -9: the device has refused the request (a stall). -4: the device has left or is not open.
  /// -2: the request has more than 4096 bytes and was not sent. -1 and any other: the request
  /// failed on the bus. The caller treats all of them alike, as a request that has failed.
  virtual IOReturn DeviceRequest(IOUSBDevRequest& request) = 0;

 protected:
  ~IOUSBDeviceStruct942() = default;
};

/// The step between a service and its device interface. Lives for the rest of the process.
/// Any thread.
class IOCFPlugInInterfaceStruct : public PortObject {
 public:
  /// Sets `device` to the interface with that identifier. -12: it has none of that kind, `device`
  /// stays as it is, and the caller skips the device.
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

/// Ports and watches are made on the monitor's thread; everything else may be called on any thread.
class USBRegistry : public PortObject {
 public:
  virtual ~USBRegistry() = default;

  /// Called on the port's queue with the watch's iterator each time that it has something to yield.
  using MatchingCallback = std::function<void(io_iterator_t)>;

  /// A port on which watches are registered; 0 when the registry can't be reached or can't report
  /// arrivals and removals, which the caller treats as fatal. The monitor's thread.
  virtual io_port_t notificationPortCreate() = 0;
  /// Has the callbacks of the port's watches run on `queue`, which is serial. Called before the
  /// port's first watch is registered. The monitor's thread.
  virtual void notificationPortSetDispatchQueue(io_port_t port,
                                                std::shared_ptr<DispatchQueue> queue) = 0;
  /// A dictionary that matches all services of that class; nullptr when the registry has no such
  /// class, which the caller treats as fatal.
  virtual std::unique_ptr<MatchingDictionary> serviceMatching(const std::string& class_name) = 0;
  /// Registers a watch and sets `iterator` to its iterator, which yields what is there
  /// already. The watch calls back only once that has been drained. Other than 0: the watch can't
  /// be registered and `iterator` stays as it is; the caller goes on with an iterator of 0, which
  /// yields nothing. libusb never fails here. The monitor's thread.
  virtual IOReturn serviceAddMatchingNotification(io_port_t port, IONotificationType type,
                                                  const MatchingDictionary& matching,
                                                  MatchingCallback callback,
                                                  io_iterator_t& iterator) = 0;
  /// The next service, which the caller releases; 0 when the iterator is drained or is 0, and the
  /// watch calls back at its next event.
  virtual io_service_t iteratorNext(io_iterator_t iterator) = 0;
  /// Sets `id` to a number that no other device has or had, the same from arrival to removal. Other
  /// than 0: `id` stays as it is, and the caller says so on the console and goes on. libusb never
  /// fails here.
  virtual IOReturn registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) = 0;
  /// Writes the product string that the operating system read at arrival, cut to 127 bytes. Sends
  /// nothing. -5 (it has none) and -4 (the device has left) leave `name` as it is; the caller says
  /// so on the console and goes on without a name.
  virtual IOReturn registryEntryGetName(io_service_t service, io_name_t& name) = 0;
  /// Where the device is plugged in, as the kernel names that place: "1-4.2" is port 2 of the hub
  /// at port 4 of bus 1. -4 (the device has left) leaves `location` as it is; the caller goes on
  /// with an empty one.
  virtual IOReturn registryEntryGetLocation(io_service_t service, io_name_t& location) = 0;
  /// Sets `plug_in` to the service's plug-in interface, which outlasts the service. -12: it has
  /// none of these types, and `plug_in` stays as it is. The caller releases the service in either
  /// case and skips the device unless the result is 0.
  virtual IOReturn createPlugInInterfaceForService(io_service_t service,
                                                   const UUIDBytes& plug_in_type,
                                                   const UUIDBytes& interface_type,
                                                   IOCFPlugInInterfaceStruct**& plug_in) = 0;
  /// Releases a service that iteratorNext() gave; no other call may use it after that. -5: it was
  /// released already. A caller that handles an arrival ignores the result; one that is
  /// about to announce a removal says so on the console and announces nothing.
  virtual IOReturn objectRelease(io_service_t service) = 0;
  /// Serves the registry's events on the calling thread, with or without any watch. In production
  /// it never returns: after a failure it tries again a second later. The monitor's thread.
  virtual void runLoop() = 0;
};

/// The registry that the process uses; fatal when none has been set. Any thread.
USBRegistry& usbRegistry();
/// Sets it, before the first monitor starts. `registry` stays the caller's.
void setUSBRegistry(USBRegistry* registry);

}  // namespace qm5
