// One device on libusb: its plug-in interface and its device interface in one.
#pragma once

#include <libusb.h>

#include <memory>
#include <mutex>
#include <string>

#include "device_monitor/libusb/event_turns.h"
#include "device_monitor/usb_registry.h"

namespace qm5 {

/// The kernel's name of a device: bus, then the ports on the way to it, as in "1-4.2". Sends
/// nothing. Any thread, hot-plug callbacks included.
std::string kernelName(libusb_device* device);

class LibusbDevice final : public IOUSBDeviceStruct942, public IOCFPlugInInterfaceStruct {
 public:
  /// Takes a reference to `device`. Sends nothing. Any thread, hot-plug callbacks included.
  /// `turns` outlives it.
  LibusbDevice(libusb_device* device, std::uint64_t id, EventTurns& turns);
  LibusbDevice(const LibusbDevice&) = delete;
  LibusbDevice& operator=(const LibusbDevice&) = delete;

  std::uint64_t id() const { return id_; }
  bool refersTo(const libusb_device* device) const { return device == key_; }
  bool matches(const MatchingDictionary& matching) const;
  /// The product string that the operating system read when the device arrived.
  IOReturn name(io_name_t& name) const;
  /// The kernel's name of the place that it is plugged in at.
  IOReturn location(io_name_t& location) const;
  IOCFPlugInInterfaceStruct** plugInInterface() { return &plug_in_; }

  bool isOpen() const;
  /// This user was not permitted to open it. Any thread.
  bool isRefused() const;
  /// Whether it has become permitted since; it is not refused any more then. Any thread but
  /// libusb's hot-plug callbacks.
  bool becamePermitted();

  /// Closes the operating system's handle as soon as no request uses it; from then on every
  /// request fails with LIBUSB_ERROR_NO_DEVICE. Any thread but libusb's hot-plug callbacks.
  void closeAfterRemoval();

  IOReturn QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) override;
  IOReturn USBDeviceOpen() override;
  IOReturn GetDeviceVendor(std::uint16_t& vendor) override;
  IOReturn GetDeviceProduct(std::uint16_t& product) override;
  IOReturn DeviceRequest(IOUSBDevRequest& request) override;

 private:
  std::shared_ptr<libusb_device> reference() const;

  const std::uint64_t id_;
  const libusb_device* const key_;  // compared only
  EventTurns& turns_;
  libusb_device_descriptor descriptor_{};
  // Interfaces are handed out as pointers to pointers; these are what they point to.
  IOUSBDeviceStruct942* device_ = this;
  IOCFPlugInInterfaceStruct* plug_in_ = this;

  mutable std::mutex mutex_;
  std::shared_ptr<libusb_device> reference_;      // empty once the device has left
  std::shared_ptr<libusb_device_handle> handle_;  // empty unless open; requests share it
  bool is_refused_ = false;
};

}  // namespace qm5
