#include "device_monitor/libusb/libusb_registry.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include "device_monitor/usb_device_monitor.h"
#include "platform/clock.h"
#include "platform/fatal.h"

namespace qm5 {

LibusbRegistry& LibusbRegistry::create(std::string place) {
  return *new LibusbRegistry(std::move(place));
}

io_port_t LibusbRegistry::notificationPortCreate() {
  if (!connect()) return 0;
  const std::lock_guard lock(mutex_);
  ports_[++last_handle_] = nullptr;
  return last_handle_;
}

void LibusbRegistry::notificationPortSetDispatchQueue(io_port_t port,
                                                      std::shared_ptr<DispatchQueue> queue) {
  const std::lock_guard lock(mutex_);
  ports_[port] = std::move(queue);
}

std::unique_ptr<MatchingDictionary> LibusbRegistry::serviceMatching(const std::string& class_name) {
  if (class_name != "IOUSBDevice") return nullptr;  // the bus has nothing else
  return std::make_unique<MatchingDictionary>(MatchingDictionary{class_name, {}});
}

IOReturn LibusbRegistry::serviceAddMatchingNotification(io_port_t port, IONotificationType type,
                                                        const MatchingDictionary& matching,
                                                        MatchingCallback callback,
                                                        io_iterator_t& iterator) {
  const std::lock_guard lock(mutex_);
  iterator = ++last_handle_;
  Watch& watch = watches_[iterator];
  watch = {type, matching, std::move(callback), ports_[port], {}, false};
  if (type == IONotificationType::firstMatch) {
    for (const auto& device : present_) enqueue(iterator, watch, device);
  }
  return kIOReturnSuccess;
}

io_service_t LibusbRegistry::iteratorNext(io_iterator_t iterator) {
  const std::lock_guard lock(mutex_);
  const auto found = watches_.find(iterator);
  if (found == watches_.end()) return 0;
  Watch& watch = found->second;
  if (watch.pending.empty()) {
    watch.armed = true;
    return 0;
  }
  services_[++last_handle_] = std::move(watch.pending.front());
  watch.pending.pop_front();
  return last_handle_;
}

IOReturn LibusbRegistry::registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) {
  id = findService(service)->id();
  return kIOReturnSuccess;
}

IOReturn LibusbRegistry::registryEntryGetName(io_service_t service, io_name_t& name) {
  return findService(service)->name(name);
}

IOReturn LibusbRegistry::registryEntryGetLocation(io_service_t service, io_name_t& location) {
  return findService(service)->location(location);
}

IOReturn LibusbRegistry::createPlugInInterfaceForService(io_service_t service,
                                                         const UUIDBytes& plug_in_type,
                                                         const UUIDBytes& interface_type,
                                                         IOCFPlugInInterfaceStruct**& plug_in) {
  if (plug_in_type != kIOUSBDeviceUserClientTypeID || interface_type != kIOCFPlugInInterfaceID)
    return LIBUSB_ERROR_NOT_SUPPORTED;
  const std::shared_ptr<LibusbDevice> device = findService(service);
  plug_in = device->plugInInterface();
  const std::lock_guard lock(mutex_);
  handed_out_.push_back(device);
  return kIOReturnSuccess;
}

IOReturn LibusbRegistry::objectRelease(io_service_t service) {
  const std::lock_guard lock(mutex_);
  return services_.erase(service) == 1 ? kIOReturnSuccess : LIBUSB_ERROR_NOT_FOUND;
}

void LibusbRegistry::runLoop() {
  // An error is no reason to stop listening, but a lasting one must not take a whole core.
  constexpr double kPauseAfterError = 1.0;  // seconds
  while (true) {
    const std::chrono::milliseconds longest = announcePermitted();
    // Without any watch nothing has connected yet.
    const int result = connect() ? turns_.handleEventsBetweenRequests(longest)
                                 : static_cast<int>(LIBUSB_ERROR_OTHER);
    // An interrupted system call is an error that does not last.
    if (result == LIBUSB_SUCCESS || result == LIBUSB_ERROR_INTERRUPTED) continue;
    processClock().sleep(kPauseAfterError);
  }
}

// A device that was refused may become permitted: a person installs the package, or udev was late.
// To the monitor it arrives once more then. Returns when to look again.
std::chrono::milliseconds LibusbRegistry::announcePermitted() {
  constexpr std::chrono::milliseconds kInterval{500};
  constexpr std::chrono::milliseconds kNothingRefused{60'000};  // as long as libusb itself waits
  const Devices refused = refusedDevices();
  const double now = processClock().now();
  if (refused.empty()) {
    asked_at_ = now;
    return kNothingRefused;
  }
  if (now - asked_at_ < std::chrono::duration<double>(kInterval).count()) return kInterval;
  asked_at_ = now;
  for (const auto& device : refused) {
    if (!device->becamePermitted()) continue;
    const std::lock_guard lock(mutex_);
    announce(device);
  }
  return kInterval;
}

// Without a hot-plug callback there is nothing to follow, so that counts as unreachable.
bool LibusbRegistry::connect() {
  if (connected_) return true;
  libusb_context* context = nullptr;
  if (libusb_init(&context) != LIBUSB_SUCCESS) return false;
  turns_.setContext(context);
  connected_ = libusb_hotplug_register_callback(
                   context, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
                   LIBUSB_HOTPLUG_ENUMERATE, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                   LIBUSB_HOTPLUG_MATCH_ANY, hotplug, this, nullptr) == LIBUSB_SUCCESS;
  if (!connected_) libusb_exit(context);
  return connected_;
}

int LIBUSB_CALL LibusbRegistry::hotplug(libusb_context*, libusb_device* device,
                                        libusb_hotplug_event event, void* self) {
  auto& registry = *static_cast<LibusbRegistry*>(self);
  const std::lock_guard lock(registry.mutex_);
  if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) {
    registry.arrived(device);
  } else {
    registry.left(device);
  }
  constexpr int kStayRegistered = 0;
  return kStayRegistered;
}

// None while another one is open: an arrival would take an update's device from it.
LibusbRegistry::Devices LibusbRegistry::refusedDevices() {
  const std::lock_guard lock(mutex_);
  Devices refused;
  if (std::any_of(present_.begin(), present_.end(),
                  [](const auto& device) { return device->isOpen(); }))
    return refused;
  std::copy_if(present_.begin(), present_.end(), std::back_inserter(refused),
               [](const auto& device) { return device->isRefused(); });
  return refused;
}

// Called with the mutex held, as are the four below.
LibusbRegistry::Devices::iterator LibusbRegistry::findPresent(const libusb_device* device) {
  return std::find_if(present_.begin(), present_.end(),
                      [device](const auto& present) { return present->refersTo(device); });
}

void LibusbRegistry::arrived(libusb_device* device) {
  if (!place_.empty() && kernelName(device) != place_) return;
  if (findPresent(device) != present_.end()) return;
  present_.push_back(std::make_shared<LibusbDevice>(device, ++last_entry_id_, turns_));
  announce(present_.back());
}

void LibusbRegistry::announce(const std::shared_ptr<LibusbDevice>& device) {
  for (auto& [iterator, watch] : watches_) {
    if (watch.type == IONotificationType::firstMatch) enqueue(iterator, watch, device);
  }
}

void LibusbRegistry::left(libusb_device* device) {
  const auto known = findPresent(device);
  if (known == present_.end()) return;
  const std::shared_ptr<LibusbDevice> gone = *known;
  present_.erase(known);
  for (auto& [iterator, watch] : watches_) {
    if (watch.type != IONotificationType::terminate || !gone->matches(watch.matching)) continue;
    watch.queue->async([gone] { gone->closeAfterRemoval(); });
    enqueue(iterator, watch, gone);
  }
}

void LibusbRegistry::enqueue(io_iterator_t iterator, Watch& watch,
                             const std::shared_ptr<LibusbDevice>& device) {
  if (!device->matches(watch.matching)) return;
  watch.pending.push_back(device);
  if (!watch.armed) return;
  watch.armed = false;
  watch.queue->async([callback = watch.callback, iterator] { callback(iterator); });
}

std::shared_ptr<LibusbDevice> LibusbRegistry::findService(io_service_t service) {
  const std::lock_guard lock(mutex_);
  const auto found = services_.find(service);
  if (found == services_.end()) fatal("a service that was released already");
  return found->second;
}

}  // namespace qm5
