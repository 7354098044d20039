#include "device_monitor/usb_device_monitor.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/console.h"
#include "platform/fatal.h"
#include "platform/notification_center.h"

namespace qm5 {
namespace {

std::uint64_t entryId(io_service_t service) {
  std::uint64_t id = 0;
  if (usbRegistry().registryEntryGetRegistryEntryID(service, id) != kIOReturnSuccess)
    print("Error getting device id");
  return id;
}

std::string entryName(io_service_t service) {
  io_name_t name{};
  if (usbRegistry().registryEntryGetName(service, name) != kIOReturnSuccess)
    print("Error getting device name");
  return {name.begin(), std::find(name.begin(), name.end(), '\0')};
}

std::string entryLocation(io_service_t service) {
  io_name_t location{};
  if (usbRegistry().registryEntryGetLocation(service, location) != kIOReturnSuccess) return "";
  return {location.begin(), std::find(location.begin(), location.end(), '\0')};
}

// Releases the service even when the creation failed; the plug-in interface stays valid.
IOReturn createPlugIn(io_service_t service, IOCFPlugInInterfaceStruct**& plug_in) {
  USBRegistry& registry = usbRegistry();
  const IOReturn result = registry.createPlugInInterfaceForService(
      service, kIOUSBDeviceUserClientTypeID, kIOCFPlugInInterfaceID, plug_in);
  registry.objectRelease(service);
  return result;
}

IOReturn open(IOUSBDeviceStruct942& device) {
  const IOReturn result = device.USBDeviceOpen();
  // A device that another process holds is announced all the same, unopened by this process.
  if (result == kIOReturnSuccess || result == kIOReturnExclusiveAccess) return kIOReturnSuccess;
  print("Could not open device (error: " + std::to_string(result) + ")");
  return result;
}

// Opens an arrived device and fills in its record. Returns the result of the first step that fails;
// the interfaces obtained before it are not released.
IOReturn openAndDescribe(io_service_t service, USBDevice& device) {
  device.name = entryName(service);

  auto**& plug_in = device.plugInInterfacePtrPtr;
  if (const IOReturn result = createPlugIn(service, plug_in); result != kIOReturnSuccess)
    return result;
  if (plug_in == nullptr || *plug_in == nullptr) {
    print("Unable to get Plug-In Interface");
    return kIOReturnError;
  }

  auto**& interface = device.deviceInterfacePtrPtr;
  if (const IOReturn result = (*plug_in)->QueryInterface(kIOUSBDeviceInterfaceID, interface);
      result != kIOReturnSuccess)
    return result;
  if (interface == nullptr || *interface == nullptr) {
    print("Unable to get Device Interface");
    return kIOReturnError;
  }

  if (const IOReturn result = open(**interface); result != kIOReturnSuccess) return result;
  if (const IOReturn result = (*interface)->GetDeviceVendor(device.vendorId);
      result != kIOReturnSuccess)
    return result;
  return (*interface)->GetDeviceProduct(device.productId);
}

}  // namespace

USBDeviceMonitor::USBDeviceMonitor(std::vector<USBMonitorData> entries) : vp(std::move(entries)) {}

void USBDeviceMonitor::start() {
  for (const USBMonitorData& entry : vp) watch(entry);
  usbRegistry().runLoop();
}

void USBDeviceMonitor::watch(const USBMonitorData& entry) {
  USBRegistry& registry = usbRegistry();
  const io_port_t port = registry.notificationPortCreate();
  if (port == 0) cannotStart("the USB bus can't be reached (no notification port)");
  registry.notificationPortSetDispatchQueue(
      port, std::make_shared<DispatchQueue>("IODetector", DispatchQueue::Attribute::serial));

  const std::unique_ptr<MatchingDictionary> matching = registry.serviceMatching("IOUSBDevice");
  if (!matching) fatal("no matching dictionary");
  matching->numbers["idVendor"] = entry.vendorId;
  matching->numbers["idProduct"] = entry.productId;

  // The results are ignored: a watch that can't be registered never yields a device.
  io_iterator_t arrived = 0;
  registry.serviceAddMatchingNotification(
      port, IONotificationType::firstMatch, *matching,
      [this](io_iterator_t iterator) { rawDeviceAdded(iterator); }, arrived);
  io_iterator_t removed = 0;
  registry.serviceAddMatchingNotification(
      port, IONotificationType::terminate, *matching,
      [this](io_iterator_t iterator) { rawDeviceRemoved(iterator); }, removed);

  // Announces the devices that are attached already. Draining the iterators arms the watches.
  rawDeviceAdded(arrived);
  rawDeviceRemoved(removed);
}

void USBDeviceMonitor::rawDeviceAdded(io_iterator_t iterator) {
  NotificationCenter& center = NotificationCenter::defaultCenter();
  while (const io_service_t service = usbRegistry().iteratorNext(iterator)) {
    USBDevice device;
    device.id = entryId(service);
    const std::string location = entryLocation(service);
    const IOReturn result = openAndDescribe(service, device);
    if (result == kIOReturnSuccess) {
      center.post({USBDeviceConnected, Dictionary{{"device", device}}});
    }
    center.post({USBDeviceExamined,
                 Dictionary{{"id", device.id}, {"result", result}, {"location", location}}});
  }
}

void USBDeviceMonitor::rawDeviceRemoved(io_iterator_t iterator) {
  USBRegistry& registry = usbRegistry();
  while (const io_service_t service = registry.iteratorNext(iterator)) {
    const std::uint64_t id = entryId(service);
    const IOReturn released = registry.objectRelease(service);
    if (released != kIOReturnSuccess) {
      print("Couldn’t release raw device object (error: " + std::to_string(released) + ")");
      continue;
    }
    NotificationCenter::defaultCenter().post({USBDeviceDisconnected, Dictionary{{"id", id}}});
  }
}

}  // namespace qm5
