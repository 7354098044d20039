// An emulated USB bus with software QM5s: sysfs, device nodes, hot-plug events and control
// requests. libusb can't tell it from the kernel's bus.
//
// The QM5s are behind a hub of the same vendor, which nobody may take for a QM5.
//
// This process and its child processes see the emulated bus instead of the machine's own when
// they run in umockdev's environment. One bus per process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "simulator/device/faulty_qm5.h"

namespace qm5 {

class EmulatedBus {
 public:
  struct Options {
    std::optional<std::string> product = "QM5";   ///< empty: the devices have no product name
    bool permitted = true;                        ///< false: opening a device's node gets EACCES
    std::chrono::milliseconds latency{0};         ///< of each control request
    std::chrono::milliseconds replug_delay{200};  ///< before a device that left comes back
  };

  /// Enters umockdev's environment: returns when the process runs in it already, and otherwise
  /// replaces the process by the same program inside it. Fatal when umockdev isn't installed. To
  /// be called before anything else.
  static void enterMockEnvironment(char** argv);

  /// The most devices that the bus has room for: a hub of the kernel has 31 ports, and the first
  /// one stays free.
  static constexpr std::size_t kMostDevices = 30;

  /// The kernel's name of the port of the device of that index.
  static std::string placeOf(std::size_t index);

  /// A bus without the devices, which plug() adds. They must outlive the bus.
  explicit EmulatedBus(FaultyQm5& device) : EmulatedBus(device, Options()) {}
  EmulatedBus(FaultyQm5& device, Options options) : EmulatedBus({&device}, std::move(options)) {}
  EmulatedBus(const std::vector<FaultyQm5*>& devices, Options options);
  ~EmulatedBus();
  EmulatedBus(const EmulatedBus&) = delete;
  EmulatedBus& operator=(const EmulatedBus&) = delete;

  // Any thread. Each returns when the nodes are changed and the hot-plug events are sent.

  /// Gives each device that is not plugged in power and the next address.
  void plug();
  /// Takes the devices away; requests under way fail.
  void unplug();
  /// Sets whether programs may open the devices, those that are plugged in too. What is open stays
  /// so.
  void setPermitted(bool permitted);

 private:
  struct Kernel;  // the objects of umockdev
  struct Port;    // of the hub, with its device

  void plugLocked(Port& port);
  void unplugLocked(Port& port);
  unsigned int nextAddressLocked();
  std::vector<Port*> unplugDepartedLocked();
  void handleDepartures();

  Options options_;

  std::mutex mutex_;  // guards what follows
  std::unique_ptr<Kernel> kernel_;
  std::vector<Port> ports_;   // never grows: others hold pointers into it
  unsigned int address_ = 2;  // the last one given; 1 and 2 are the hubs'

  // A fault makes a device leave in the middle of a request, on a thread that must not wait for
  // the bus. So that thread only notes the departure. departure_thread_ then takes the device off
  // the bus, unless a plug() comes first and does it.
  struct Departure {
    Port* port;
    unsigned int address;
    bool comes_back;
  };
  std::mutex departure_mutex_;  // taken after mutex_
  std::condition_variable departure_changed_;
  std::vector<Departure> departures_;
  bool stopping_ = false;
  std::thread departure_thread_;
};

}  // namespace qm5
