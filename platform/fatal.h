// Broken preconditions: one line with the reason on standard error, then abort.
// The outside world (a device, a file, the bus) never leads here, except where a
// function says so.
#pragma once

#include <string_view>
#include <utility>

namespace qm5 {

/// Writes `reason` as one line on standard error and aborts. Any thread.
[[noreturn]] void fatal(std::string_view reason);

/// `value` as a `To`; fatal when it does not fit.
template <typename To, typename From>
To narrow(From value, std::string_view what) {
  if (!std::in_range<To>(value)) fatal(what);
  return static_cast<To>(value);
}

/// The object that `pointer` refers to; fatal when there is none.
template <typename Pointer>
auto& required(const Pointer& pointer, std::string_view what) {
  if (!pointer) fatal(what);
  return *pointer;
}

}  // namespace qm5
