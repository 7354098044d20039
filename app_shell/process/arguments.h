// The arguments of a start: --help, --version, and those that the toolkit takes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qm5 {

/// What the process prints in place of a start.
struct Reply {
  std::string text;
  int exit_status;  ///< 0: `text` goes to standard output; 2: to standard error
};

/// The reply to "--help" and "--version", and to the first argument that neither this program nor
/// its toolkit knows; empty when the start goes on. `version` is the program's own.
std::optional<Reply> replyToArguments(int argc, const char* const* argv, std::string_view version);

}  // namespace qm5
