// How the process ends. Where no window tells of it: with one line, the reason, on standard error.
#pragma once

#include <string_view>
#include <utility>

namespace qm5 {

/// Ends the process at once with `status`, whatever other threads are doing. Has the lines written
/// before that can be, as flushLines() does. Any thread.
[[noreturn]] void endProcess(int status);

/// For broken preconditions: writes `reason` as one line on standard error and aborts. The outside
/// world (a device, a file, the bus) never leads here, except where a function says so. Any thread.
[[noreturn]] void fatal(std::string_view reason);

/// For a start that lacks what the computer has to give (descriptors, threads, memory): writes
/// `reason` as one line on standard error and in the system log, and ends the process with status
/// 1. Any thread.
[[noreturn]] void cannotStart(std::string_view reason);

/// Returns `value` as a `To`; fatal, with `what` as the reason, when it does not fit. Any thread.
template <typename To, typename From>
To narrow(From value, std::string_view what) {
  if (!std::in_range<To>(value)) fatal(what);
  return static_cast<To>(value);
}

/// Returns what `pointer` (a pointer or an optional) refers to; fatal, with `what` as the reason,
/// when it is empty. Any thread.
template <typename Pointer>
auto& required(const Pointer& pointer, std::string_view what) {
  if (!pointer) fatal(what);
  return *pointer;
}

}  // namespace qm5
