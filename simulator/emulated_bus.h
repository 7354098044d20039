// A USB bus on which a software QM5 can be plugged in: sysfs, device nodes, hot-plug
// events and control requests, such that libusb can't tell it from the kernel's.
//
// This process and all that it starts see that bus instead of the machine's, provided
// that it runs in the mock environment. One bus a process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "simulator/faulty_qm5.h"

namespace qm5 {

class EmulatedBus {
 public:
  struct Options {
    std::optional<std::string> product = "QM5";   ///< absent: the device has no name
    bool permitted = true;                        ///< false: opening its node gets EACCES
    std::chrono::milliseconds latency{0};         ///< of each control request
    std::chrono::milliseconds replug_delay{200};  ///< of a device that leaves and comes back
  };

  /// Goes on in the mock environment: returns if the process is in it already and runs the
  /// program anew, inside, otherwise. Fatal when umockdev isn't installed. Call it first.
  static void enterMockEnvironment(char** argv);

  /// An empty bus. `device`, which outlives it, is what can be plugged in.
  explicit EmulatedBus(FaultyQm5& device) : EmulatedBus(device, Options()) {}
  EmulatedBus(FaultyQm5& device, Options options);
  ~EmulatedBus();
  EmulatedBus(const EmulatedBus&) = delete;
  EmulatedBus& operator=(const EmulatedBus&) = delete;

  // Any thread; each returns when the kernel's part of it is done, events included.

  /// Gives the device power and the next free address. Nothing happens when it is there.
  void plug();
  /// Takes the device away; requests under way fail. Nothing happens when it is not there.
  void unplug();
  /// Whether programs may open the device; holds from the next plug() on.
  void setPermitted(bool permitted);

 private:
  struct Kernel;  // what the test bed's library holds

  void plugLocked();
  void unplugLocked();
  bool takeDepartedAway();
  void followDevice();

  FaultyQm5& device_;
  Options options_;

  std::mutex mutex_;  // guards what follows
  std::unique_ptr<Kernel> kernel_;
  unsigned int address_ = 1;  // the last one given; 1 is the root hub's

  // The device leaves by itself in the middle of a request, on a thread that must not wait
  // for the bus: this one sees to the rest, or a plug() that comes first.
  struct Departure {
    unsigned int address;
    bool comes_back;
  };
  std::mutex departure_mutex_;  // taken after mutex_
  std::condition_variable departure_changed_;
  std::optional<Departure> departure_;
  bool ends_ = false;
  std::thread follower_;
};

}  // namespace qm5
