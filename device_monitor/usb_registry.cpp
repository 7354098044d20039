#include "device_monitor/usb_registry.h"

namespace qm5 {
namespace {

PortSlot<USBRegistry> registry_slot;

}  // namespace

USBRegistry& usbRegistry() {
  return registry_slot.get("no USB registry has been set");
}

void setUSBRegistry(USBRegistry* registry) {
  registry_slot.set(registry);
}

}  // namespace qm5
