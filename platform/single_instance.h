// One updater a USB bus, whoever starts it: two would write into the same QM5.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace qm5 {

enum class Start {
  onlyOne,     ///< the bus is this process's own until it ends, however it ends
  handedOver,  ///< another process of this user has it, and has been told of this start
  refused,     ///< a process has it that can't be told: another user's
};

/// Claims the machine's USB bus for this process. Where that is taken, tells who has it and
/// hands him `activation_token`, by which the desktop lets a window come to the front, and
/// which may be empty. Never waits for an answer; waits up to a second for a process that is
/// just coming or going. On macOS the system itself sees to it: always onlyOne there.
/// Call it once.
Start claimBus(std::string_view activation_token);

/// Has `told` called with the activation token of every later start of this user, on a
/// thread of its own. Needs a claim that is onlyOne; starts since then are not lost.
void followLaterStarts(std::function<void(const std::string& activation_token)> told);

}  // namespace qm5
