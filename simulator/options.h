// The command line of qm5-simulator.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "simulator/emulated_bus.h"
#include "simulator/faulty_qm5.h"
#include "simulator/qm5_model.h"

namespace qm5 {

struct SimulatorOptions {
  Qm5Model::Options device;
  EmulatedBus::Options bus;
  std::vector<Fault> faults;
  std::chrono::milliseconds attach_after{0};
  std::optional<std::string> image;  ///< path of what the flash is compared with
  std::optional<std::string> trace;  ///< path of the record of requests
  std::vector<std::string> program;  ///< with its arguments
};

/// What to print instead of starting a program, and the exit status to end with.
struct SimulatorNotice {
  std::string text;
  int exit_status;
};

/// Reads the arguments, without the program's own name.
std::variant<SimulatorOptions, SimulatorNotice> parseSimulatorOptions(
    const std::vector<std::string>& arguments);

/// A fault as written on the command line, WHERE:NUMBER=KIND[:VALUE]; empty when it isn't one.
std::optional<Fault> parseFault(std::string_view text);

}  // namespace qm5
