// An emulated USB bus with a software QM5: sysfs, device nodes, hot-plug events and control
// requests. libusb can't tell it from the kernel's bus.
//
// The QM5 is behind a hub of the same vendor, which nobody may take for a QM5.
//
// This process and its child processes see the emulated bus instead of the machine's own when
// they run in umockdev's environment. One bus per process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "simulator/device/faulty_qm5.h"

namespace qm5 {

class EmulatedBus {
 public:
  struct Options {
    std::optional<std::string> product = "QM5";   ///< empty: the device has no product name
    bool permitted = true;                        ///< false: opening its node gets EACCES
    std::chrono::milliseconds latency{0};         ///< of each control request
    std::chrono::milliseconds replug_delay{200};  ///< before a device that left comes back
  };

  /// Enters umockdev's environment: returns when the process runs in it already, and otherwise
  /// replaces the process by the same program inside it. Fatal when umockdev isn't installed. To
  /// be called before anything else.
  static void enterMockEnvironment(char** argv);

  /// A bus without the device, which plug() adds. `device` must outlive the bus.
  explicit EmulatedBus(FaultyQm5& device) : EmulatedBus(device, Options()) {}
  EmulatedBus(FaultyQm5& device, Options options);
  ~EmulatedBus();
  EmulatedBus(const EmulatedBus&) = delete;
  EmulatedBus& operator=(const EmulatedBus&) = delete;

  // Any thread. Each returns when the nodes are changed and the hot-plug events are sent.

  /// Gives the device power and the next address. Does nothing when it is plugged in already.
  void plug();
  /// Takes the device away; requests under way fail. Does nothing when it isn't plugged in.
  void unplug();
  /// Sets whether programs may open the device, from the next plug() on.
  void setPermitted(bool permitted);

 private:
  struct Kernel;  // the objects of umockdev

  void plugLocked();
  void unplugLocked();
  bool unplugDepartedLocked();
  void handleDepartures();

  FaultyQm5& device_;
  Options options_;

  std::mutex mutex_;  // guards what follows
  std::unique_ptr<Kernel> kernel_;
  unsigned int address_ = 2;  // the last one given; 1 and 2 are the hubs'

  // A fault makes the device leave in the middle of a request, on a thread that must not wait for
  // the bus. So that thread only notes the departure. departure_thread_ then takes the device off
  // the bus, unless a plug() comes first and does it.
  struct Departure {
    unsigned int address;
    bool comes_back;
  };
  std::mutex departure_mutex_;  // taken after mutex_
  std::condition_variable departure_changed_;
  std::optional<Departure> departure_;
  bool stopping_ = false;
  std::thread departure_thread_;
};

}  // namespace qm5
