#include "device_monitor/libusb/libusb_device.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <string>

#include "device_monitor/usb_device_monitor.h"

namespace qm5 {
namespace {

static_assert(kIOReturnNotPermitted == LIBUSB_ERROR_ACCESS);
static_assert(kIOReturnNoDevice == LIBUSB_ERROR_NO_DEVICE);
static_assert(kIOReturnExclusiveAccess == LIBUSB_ERROR_BUSY);
static_assert(kIOReturnError == LIBUSB_ERROR_OTHER);

void fill(io_name_t& name, const std::string& text) {
  std::copy_n(text.begin(), std::min(text.size(), name.size() - 1), name.begin());
}

#ifdef __linux__
bool readProduct(libusb_device* device, std::string& product) {
  std::ifstream file("/sys/bus/usb/devices/" + kernelName(device) + "/product");
  return static_cast<bool>(std::getline(file, product));
}
#else
// Other systems give no cached string through libusb, and discovery sends nothing.
bool readProduct(libusb_device*, std::string&) {
  return false;
}
#endif

}  // namespace

std::string kernelName(libusb_device* device) {
  std::array<std::uint8_t, 7> ports{};  // USB allows no deeper tree
  const int depth = libusb_get_port_numbers(device, ports.data(), static_cast<int>(ports.size()));
  std::string name = std::to_string(libusb_get_bus_number(device));
  for (int i = 0; i < depth; ++i) {
    name += i == 0 ? '-' : '.';
    name += std::to_string(ports[static_cast<std::size_t>(i)]);
  }
  return name;
}

LibusbDevice::LibusbDevice(libusb_device* device, std::uint64_t id, EventTurns& turns)
    : id_(id),
      key_(device),
      turns_(turns),
      reference_(libusb_ref_device(device), libusb_unref_device) {
  // The descriptor is cached by libusb; since 1.0.16 this can't fail.
  libusb_get_device_descriptor(device, &descriptor_);
}

bool LibusbDevice::matches(const MatchingDictionary& matching) const {
  const auto has = [&matching](const char* property, std::uint16_t value) {
    const auto wanted = matching.numbers.find(property);
    return wanted == matching.numbers.end() || wanted->second == value;
  };
  return has("idVendor", descriptor_.idVendor) && has("idProduct", descriptor_.idProduct);
}

IOReturn LibusbDevice::name(io_name_t& name) const {
  const std::shared_ptr<libusb_device> present = reference();
  if (!present) return LIBUSB_ERROR_NO_DEVICE;
  std::string product;
  if (!readProduct(present.get(), product)) return LIBUSB_ERROR_NOT_FOUND;
  fill(name, product);
  return kIOReturnSuccess;
}

IOReturn LibusbDevice::location(io_name_t& location) const {
  const std::shared_ptr<libusb_device> present = reference();
  if (!present) return LIBUSB_ERROR_NO_DEVICE;
  fill(location, kernelName(present.get()));
  return kIOReturnSuccess;
}

std::shared_ptr<libusb_device> LibusbDevice::reference() const {
  const std::lock_guard lock(mutex_);
  return reference_;
}

void LibusbDevice::closeAfterRemoval() {
  const std::lock_guard lock(mutex_);
  handle_.reset();
  reference_.reset();
}

IOReturn LibusbDevice::QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) {
  if (identifier != kIOUSBDeviceInterfaceID) return LIBUSB_ERROR_NOT_SUPPORTED;
  device = &device_;
  return kIOReturnSuccess;
}

bool LibusbDevice::isOpen() const {
  const std::lock_guard lock(mutex_);
  return handle_ != nullptr;
}

bool LibusbDevice::isRefused() const {
  const std::lock_guard lock(mutex_);
  return is_refused_ && reference_;
}

bool LibusbDevice::becamePermitted() {
  const std::lock_guard lock(mutex_);
  libusb_device_handle* handle = nullptr;
  if (!is_refused_ || !reference_ || libusb_open(reference_.get(), &handle) != LIBUSB_SUCCESS)
    return false;
  libusb_close(handle);
  is_refused_ = false;
  return true;
}

IOReturn LibusbDevice::USBDeviceOpen() {
  const std::lock_guard lock(mutex_);
  if (!reference_) return LIBUSB_ERROR_NO_DEVICE;
  libusb_device_handle* handle = nullptr;
  const int result = libusb_open(reference_.get(), &handle);
  is_refused_ = result == LIBUSB_ERROR_ACCESS;
  if (is_refused_) turns_.interrupt();  // the monitor's thread is to ask again soon
  if (result != LIBUSB_SUCCESS) return result;
  handle_.reset(handle, libusb_close);
  return kIOReturnSuccess;
}

IOReturn LibusbDevice::GetDeviceVendor(std::uint16_t& vendor) {
  vendor = descriptor_.idVendor;
  return kIOReturnSuccess;
}

IOReturn LibusbDevice::GetDeviceProduct(std::uint16_t& product) {
  product = descriptor_.idProduct;
  return kIOReturnSuccess;
}

IOReturn LibusbDevice::DeviceRequest(IOUSBDevRequest& request) {
  std::shared_ptr<libusb_device_handle> handle;
  {
    const std::lock_guard lock(mutex_);
    handle = handle_;
  }
  if (!handle) return LIBUSB_ERROR_NO_DEVICE;
  EventTurns::RequestScope scope(turns_);
  constexpr unsigned kNoTimeout = 0;
  const int moved =
      libusb_control_transfer(handle.get(), request.bmRequestType, request.bRequest, request.wValue,
                              request.wIndex, request.pData, request.wLength, kNoTimeout);
  if (moved >= 0 || moved == LIBUSB_ERROR_PIPE) scope.answered();  // a refusal is an answer
  if (moved < 0) return moved;
  request.wLenDone = static_cast<std::uint32_t>(moved);
  return kIOReturnSuccess;
}

}  // namespace qm5
