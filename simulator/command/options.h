// The command line of qm5-simulator.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "simulator/device/faulty_qm5.h"
#include "simulator/device/qm5_model.h"
#include "simulator/usb_bus/emulated_bus.h"
#include "simulator/usbip/usbip_server.h"

namespace qm5 {

struct SimulatorOptions {
  struct Device {
    Qm5Model::Options model;
    std::vector<Fault> faults;
  };
  std::vector<Device> devices{1};
  EmulatedBus::Options bus;
  std::chrono::milliseconds attach_after{0};
  std::optional<std::string> image;   ///< path of the image that the flash is compared with
  std::optional<std::string> trace;   ///< path of the file that requests are written to; of
                                      ///< several devices, each has one with its place behind that
  std::optional<UsbipAddress> usbip;  ///< where to export the devices; then there is no program
  std::vector<std::string> program;   ///< its name or path, then its arguments
};

/// What to print, and the exit status to end with, where no program is to be started.
struct SimulatorNotice {
  std::string text;
  int exit_status;
};

/// Reads the arguments behind the simulator's own name. One thread at a time.
std::variant<SimulatorOptions, SimulatorNotice> parseSimulatorOptions(
    std::vector<std::string> arguments);

/// Reads a fault from WHERE:NUMBER=KIND[:VALUE]; empty when the text has another form.
std::optional<Fault> parseFault(std::string_view text);

}  // namespace qm5
