// The command line of qm5-update.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace qm5 {

struct CommandOptions {
  bool only_check = false;
  bool list = false;
  bool all = false;                   ///< each QM5, at once
  std::optional<std::string> device;  ///< the kernel's name of its port, as in "1-4.2"
  std::optional<std::string> image;   ///< path of the image; empty: the packaged one
  std::optional<std::string> target;  ///< what the image brings; empty: what the packaged one does
  std::optional<double> wait;     ///< for how many seconds for a QM5; infinite: as long as it takes
  std::optional<double> confirm;  ///< the same, for the power cycle
  bool json = false;
  bool quiet = false;
  int claim = -1;  ///< of a process that --all has started: the descriptor of the bus's lock
};

/// What the process prints instead.
struct CommandReply {
  std::string text;
  int exit_status;  ///< 0: `text` goes to standard output; otherwise to standard error
};

/// Reads the arguments; `version` is the program's own. One thread at a time.
std::variant<CommandOptions, CommandReply> parseCommandOptions(int argc, char** argv,
                                                               std::string_view version);

}  // namespace qm5
