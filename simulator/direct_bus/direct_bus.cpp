#include "simulator/direct_bus/direct_bus.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "device_monitor/usb_device_monitor.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

constexpr std::uint16_t kVendor = 0x0451;
constexpr std::uint16_t kProduct = 0xACE1;
constexpr std::string_view kName = "QM5";
constexpr std::string_view kLocation = "1-1";

constexpr io_port_t kPort = 1;

// The codes of libusb, which the production adapter returns.
constexpr IOReturn kNoDevice = -4;
constexpr IOReturn kNotFound = -5;
constexpr IOReturn kStall = -9;
constexpr IOReturn kNotSupported = -12;

io_iterator_t iteratorOf(IONotificationType type) {
  return type == IONotificationType::firstMatch ? 1 : 2;
}

}  // namespace

/// The device from one plug() to the next unplug(). Implements both interfaces of the port.
class DirectBus::Attachment final : public IOUSBDeviceStruct942, public IOCFPlugInInterfaceStruct {
 public:
  Attachment(DirectBus& bus, ControlEndpoint& endpoint, std::uint64_t id)
      : bus_(bus), endpoint_(endpoint), id_(id) {}

  std::uint64_t id() const { return id_; }
  IOCFPlugInInterfaceStruct** plugInInterface() { return &plug_in_; }

  IOReturn QueryInterface(const UUIDBytes& identifier, IOUSBDeviceStruct942**& device) override {
    if (identifier != kIOUSBDeviceInterfaceID) return kNotSupported;
    device = &device_;
    return kIOReturnSuccess;
  }
  IOReturn USBDeviceOpen() override { return bus_.isPresent(*this) ? kIOReturnSuccess : kNoDevice; }
  IOReturn GetDeviceVendor(std::uint16_t& vendor) override {
    vendor = kVendor;
    return kIOReturnSuccess;
  }
  IOReturn GetDeviceProduct(std::uint16_t& product) override {
    product = kProduct;
    return kIOReturnSuccess;
  }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override;

 private:
  IOReturn unplugItself(bool comes_back);

  DirectBus& bus_;
  ControlEndpoint& endpoint_;
  const std::uint64_t id_;
  // The port hands out pointers to pointers: these are the inner ones.
  IOUSBDeviceStruct942* device_ = this;
  IOCFPlugInInterfaceStruct* plug_in_ = this;
};

IOReturn DirectBus::Attachment::DeviceRequest(IOUSBDevRequest& request) {
  if (!bus_.isPresent(*this)) return kNoDevice;
  const ControlSetup setup{request.bmRequestType, request.bRequest, request.wValue, request.wIndex,
                           request.wLength};
  const ByteView sent = isRead(setup) ? ByteView() : ByteView(request.pData, request.wLength);
  const ControlResult result = endpoint_.control(setup, sent);
  switch (result.status) {
    case ControlStatus::stall:
      return kStall;
    case ControlStatus::pending:  // would block for ever: ends as if the device were unplugged
    case ControlStatus::gone:
      return unplugItself(result.comes_back);
    case ControlStatus::ok:
      break;
  }
  const std::size_t received = std::min<std::size_t>(result.data.size(), request.wLength);
  std::copy_n(result.data.begin(), received, request.pData);
  request.wLenDone = static_cast<std::uint32_t>(isRead(setup) ? received : request.wLength);
  return kIOReturnSuccess;
}

IOReturn DirectBus::Attachment::unplugItself(bool comes_back) {
  bus_.unplug();
  if (comes_back) bus_.plug(endpoint_);
  return kNoDevice;
}

DirectBus::DirectBus() = default;
DirectBus::~DirectBus() = default;

void DirectBus::plug(ControlEndpoint& device) {
  Attachment* arrived = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (present_ != nullptr) return;
    device.powerCycle();
    attachments_.push_back(std::make_unique<Attachment>(*this, device, attachments_.size() + 1));
    arrived = present_ = attachments_.back().get();
  }
  enqueue(IONotificationType::firstMatch, arrived);
}

void DirectBus::unplug() {
  Attachment* left = nullptr;
  {
    const std::lock_guard lock(mutex_);
    left = std::exchange(present_, nullptr);
  }
  if (left != nullptr) enqueue(IONotificationType::terminate, left);
}

bool DirectBus::isPlugged() const {
  const std::lock_guard lock(mutex_);
  return present_ != nullptr;
}

bool DirectBus::isPresent(const Attachment& attachment) const {
  const std::lock_guard lock(mutex_);
  return present_ == &attachment;
}

void DirectBus::waitUntilWatched() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return watched_; });
}

// Adds the attachment to the watch of that type. When a callback is due, returns after it.
void DirectBus::enqueue(IONotificationType type, Attachment* attachment) {
  const io_iterator_t iterator = iteratorOf(type);
  std::unique_lock lock(mutex_);
  const auto watch = watches_.find(iterator);
  if (watch == watches_.end()) return;
  watch->second.pending.push_back(attachment);
  if (!watch->second.armed) return;
  watch->second.armed = false;
  bool called_back = false;
  queue_->async([this, &called_back, iterator, callback = watch->second.callback] {
    callback(iterator);
    const std::lock_guard callback_lock(mutex_);
    called_back = true;
    changed_.notify_all();
  });
  changed_.wait(lock, [&called_back] { return called_back; });
}

io_port_t DirectBus::notificationPortCreate() {
  return kPort;
}

void DirectBus::notificationPortSetDispatchQueue(io_port_t, std::shared_ptr<DispatchQueue> queue) {
  const std::lock_guard lock(mutex_);
  queue_ = std::move(queue);
}

std::unique_ptr<MatchingDictionary> DirectBus::serviceMatching(const std::string& class_name) {
  return std::make_unique<MatchingDictionary>(MatchingDictionary{class_name, {}});
}

IOReturn DirectBus::serviceAddMatchingNotification(io_port_t, IONotificationType type,
                                                   const MatchingDictionary& matching,
                                                   MatchingCallback callback,
                                                   io_iterator_t& iterator) {
  if (matching.numbers.at("idVendor") != kVendor || matching.numbers.at("idProduct") != kProduct)
    return kNotFound;
  iterator = iteratorOf(type);
  const std::lock_guard lock(mutex_);
  Watch& watch = watches_[iterator] = {std::move(callback)};
  if (type == IONotificationType::firstMatch && present_ != nullptr)
    watch.pending.push_back(present_);
  return kIOReturnSuccess;
}

io_service_t DirectBus::iteratorNext(io_iterator_t iterator) {
  const std::lock_guard lock(mutex_);
  const auto watch = watches_.find(iterator);
  if (watch == watches_.end()) return 0;
  auto& pending = watch->second.pending;
  watch->second.armed = pending.empty();
  if (pending.empty()) return 0;
  services_[++last_service_] = pending.front();
  pending.pop_front();
  return last_service_;
}

DirectBus::Attachment& DirectBus::find(io_service_t service) {
  const std::lock_guard lock(mutex_);
  const auto found = services_.find(service);
  if (found == services_.end()) fatal("the service has been released already");
  return *found->second;
}

IOReturn DirectBus::registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) {
  id = find(service).id();
  return kIOReturnSuccess;
}

IOReturn DirectBus::registryEntryGetName(io_service_t, io_name_t& name) {
  std::copy(kName.begin(), kName.end(), name.begin());
  return kIOReturnSuccess;
}

IOReturn DirectBus::registryEntryGetLocation(io_service_t, io_name_t& location) {
  std::copy(kLocation.begin(), kLocation.end(), location.begin());
  return kIOReturnSuccess;
}

IOReturn DirectBus::createPlugInInterfaceForService(io_service_t service,
                                                    const UUIDBytes& plug_in_type,
                                                    const UUIDBytes& interface_type,
                                                    IOCFPlugInInterfaceStruct**& plug_in) {
  if (plug_in_type != kIOUSBDeviceUserClientTypeID || interface_type != kIOCFPlugInInterfaceID)
    return kNotSupported;
  plug_in = find(service).plugInInterface();
  return kIOReturnSuccess;
}

IOReturn DirectBus::objectRelease(io_service_t service) {
  const std::lock_guard lock(mutex_);
  return services_.erase(service) == 1 ? kIOReturnSuccess : kNotFound;
}

void DirectBus::runLoop() {
  const std::lock_guard lock(mutex_);
  watched_ = true;
  changed_.notify_all();
}

}  // namespace qm5
