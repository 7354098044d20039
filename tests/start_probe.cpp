// Starts following the QM5 as the application does and ends with 0 when a device that was
// attached all along has been seen within two seconds.
#include <chrono>
#include <cstdlib>
#include <thread>

#include "device_link/driver.h"
#include "device_monitor/libusb/libusb_registry.h"

int main() {
  qm5::setUSBRegistry(new qm5::LibusbRegistry);
  qm5::global_driver = std::make_shared<qm5::Driver>(std::uint16_t{0x0451}, std::uint16_t{0xACE1});
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (!qm5::global_driver->deviceInfo() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::_Exit(qm5::global_driver->deviceInfo() ? 0 : 1);
}
