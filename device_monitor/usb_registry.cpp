#include "device_monitor/usb_registry.h"

#include <atomic>

#include "platform/fatal.h"

namespace qm5 {
namespace {

std::atomic<USBRegistry*> current = nullptr;

}  // namespace

USBRegistry& usbRegistry() {
  return required(current.load(), "no USB registry has been set");
}

void setUSBRegistry(USBRegistry* registry) {
  current = registry;
}

}  // namespace qm5
