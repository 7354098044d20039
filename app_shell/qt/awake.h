// Keeping the computer awake: by logind on Linux, by IOKit on macOS.
#pragma once

#include <memory>
#include <string_view>

namespace qm5 {

/// Idleness does not put the computer to sleep while the returned token is held, and on Linux
/// nor does the lid, or another program, where logind sees to them; the process's end lets go
/// of it too. Returns at once, whatever
/// state the system bus is in. Where that can't be had, one line of the system log says so.
/// The token may be dropped on any thread.
std::shared_ptr<void> keepAwake(std::string_view reason);

}  // namespace qm5
