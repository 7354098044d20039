// Keeping the computer awake, and the person logged in.
// Production: computer/wakefulness/. Tests: tests/support/scripted_application.h.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "platform/port.h"

namespace qm5 {

/// Main thread.
class Wakefulness : public PortObject {
 public:
  virtual ~Wakefulness() = default;

  /// Keeps the computer from going to sleep, and holds a log-out back where the desktop can do
  /// that, for as long as the returned token is held. `reason` is a sentence that the desktop may
  /// show. Returns at once, before the operating system has answered; where the computer may sleep,
  /// the system log says so, and `refused` is called, on any thread. The token may be dropped on
  /// any thread, and the end of the process drops it too.
  virtual std::shared_ptr<void> beginActivity(std::string_view reason,
                                              std::function<void()> refused) = 0;
};

/// The adapter that the process uses; fatal when none has been set. Any thread.
Wakefulness& wakefulness();
/// Sets it, before the first update. `wakefulness` stays the caller's.
void setWakefulness(Wakefulness* wakefulness);

}  // namespace qm5
