// At most one updater per USB bus, whoever starts it: two would write into the same QM5.
//
// The claim is a lock on the bus's folder in /sys. The kernel grants it to one process and takes
// it back when that process has ended, however it ended, and names its holder in /proc/locks.
// Whoever can see that folder shares the lock: other users, other displays, and other network
// namespaces that have kept their /sys. A container with a /sys of its own does not share it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/descriptor.h"

namespace qm5 {

/// The token that the desktop gave to this start, with which a window may come to the front;
/// empty when it gave none. From the environment: call it before threads are started.
std::string activationToken();

/// The machine's USB bus is this process's own. Keep it until the process ends.
class BusClaim {
 public:
  BusClaim(Descriptor lock, Descriptor later_starts)
      : lock_(std::move(lock)), later_starts_(std::move(later_starts)) {}

  /// Calls `started` with the activation token of every later start of this user, on a thread of
  /// its own; starts since the claim are not lost. Call it once. Ends the process when no thread
  /// can be had.
  void followLaterStarts(std::function<void(const std::string& activation_token)> started);

  /// The lock, as an open descriptor.
  int descriptor() const { return lock_.get(); }

  /// The display has gone: from now on, later starts of this user find By::thisUserWithoutWindows.
  void displayIsLost() { *has_display_ = false; }

 private:
  Descriptor lock_;
  Descriptor later_starts_;
  std::shared_ptr<std::atomic<bool>> has_display_ = std::make_shared<std::atomic<bool>>(true);
};

/// Another process has the bus.
struct BusInUse {
  enum class By {
    /// An updater on this display, which brings its windows to the front. Or one that has been
    /// stopped, by Ctrl-Z for instance: it answers nothing, and does so once it goes on.
    thisUser,
    thisUserElsewhere,       ///< an updater on the display `name`, which has been notified as well
    thisUserWithoutWindows,  ///< an updater whose display has gone, and whose update goes on
    anotherUser,             ///< an updater that does not answer to this user
    otherProgram,  ///< `name` is a program that is no updater, or one that does not answer
  } by;
  std::string name;
};

/// Claims the machine's USB bus for this process. When another updater has it, that one is handed
/// `activation_token`. Waits up to 2 s for an answer of whoever has the bus, and up to 10 s for
/// a process that has been killed and takes its time to end. On macOS the system itself starts a
/// program only once: always granted there. `bus` is the folder that stands for the bus. Call it
/// once.
std::variant<BusClaim, BusInUse> claimBus(std::string_view activation_token,
                                          const char* bus = "/sys/bus/usb");

/// The same for a program without windows: the updater that has the bus is not told, and its
/// windows stay where they are. BusInUse then is By::otherProgram, and names the process. A later
/// start finds this one to be a program that does not answer. Waits for a process alone that is
/// ending. `inherited` is the descriptor of the lock where the process that started this one has
/// handed it down: both have the bus then, and it is free when the last of them has ended.
std::variant<BusClaim, BusInUse> claimBusQuietly(int inherited = -1,
                                                 const char* bus = "/sys/bus/usb");

}  // namespace qm5
