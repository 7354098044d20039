// qm5-simulator: starts an unchanged program on an emulated USB bus with software QM5s, or exports
// them to other machines' USB stacks, and prints one line about each of them when that has ended.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "firmware_image/firmware_image.h"
#include "simulator/command/options.h"
#include "simulator/command/run_result.h"
#include "simulator/command/trace.h"
#include "simulator/device/faulty_qm5.h"
#include "simulator/usb_bus/emulated_bus.h"
#include "simulator/usbip/usbip_server.h"

namespace qm5 {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWrongUse = 2;
constexpr int kCommandNotFound = 127;  // as in a shell
constexpr int kSignalled = 128;        // plus the number of the signal that ended the program

sigset_t controlSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGUSR1, SIGUSR2, SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&signals, each);
  }
  return signals;
}

/// Starts the program with no signal blocked, and SIGPIPE not ignored, as GLib has it in this
/// process; empty when it can't be started.
std::optional<pid_t> start(const std::vector<std::string>& program) {
  std::vector<std::string> words = program;
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  sigset_t none, ignored;
  sigemptyset(&none);
  sigemptyset(&ignored);
  sigaddset(&ignored, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &ignored);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t process = 0;
  const int error =
      posix_spawnp(&process, arguments[0], nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error == 0) return process;
  std::cerr << "qm5-simulator: " << program[0] << ": " << std::strerror(error) << "\n";
  return std::nullopt;
}

constexpr Clock::time_point kNever = Clock::time_point::max();

/// The next of `signals`; empty when `deadline` comes first.
std::optional<siginfo_t> nextSignal(const sigset_t& signals, Clock::time_point deadline) {
  siginfo_t signal{};
  do {
    const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const std::chrono::nanoseconds below_a_second = left - seconds;
    const timespec time{seconds.count(), below_a_second.count()};
    if (sigtimedwait(&signals, &signal, &time) > 0) return signal;
  } while (errno != EAGAIN);
  return std::nullopt;
}

/// The exit status of `process` as in a shell; empty while it runs.
std::optional<int> exitStatus(pid_t process) {
  int status = 0;
  if (waitpid(process, &status, WNOHANG) != process) return std::nullopt;
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
}

/// Passes a signal on to the program.
void forward(const siginfo_t& signal, pid_t process) {
  // A terminal has sent its Ctrl-C to the program as well.
  const bool from_terminal = signal.si_signo == SIGINT && signal.si_code == SI_KERNEL;
  if (!from_terminal) kill(process, signal.si_signo);
}

/// Plugs the devices in and out at `attach_at` and as signals ask for it, until the program ends;
/// returns the program's exit status.
int runBus(pid_t process, EmulatedBus& bus, Clock::time_point attach_at) {
  const sigset_t signals = controlSignals();
  while (true) {
    const auto signal = nextSignal(signals, attach_at);
    if (!signal) {
      bus.plug();
      attach_at = kNever;
      continue;
    }
    switch (signal->si_signo) {
      case SIGUSR1:
        bus.unplug();
        break;
      case SIGUSR2:
        bus.setPermitted(true);
        bus.plug();
        break;
      case SIGCHLD:
        if (const auto status = exitStatus(process)) return *status;
        break;
      default:
        forward(*signal, process);
    }
  }
}

/// What the flash must hold after an update with the image of that path; empty when it
/// can't be read.
std::optional<Bytes> expectedFlash(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const Bytes image{std::istreambuf_iterator<char>(file), {}};
  if (!file || image.size() < kImagePayloadStart) return std::nullopt;
  return flashContents(ByteView(image).subspan(kImagePayloadStart));
}

int failToUse(const std::string& problem) {
  std::cerr << "qm5-simulator: " << problem << "\n";
  return kWrongUse;
}

/// One of the QM5s on the bus.
class Device {
 public:
  Device(std::string place, const SimulatorOptions::Device& options)
      : place_(std::move(place)), qm5_(Qm5Model(options.model)) {
    for (const Fault& fault : options.faults) qm5_.addFault(fault);
  }

  /// Has each request written to that file; false when that is not possible.
  bool trace(const std::string& path, Clock::time_point start_time) {
    trace_.open(path);
    qm5_.setObserver([this, start_time](const RequestRecord& request) {
      trace_ << traceLine(request, start_time) << std::endl;
    });
    return static_cast<bool>(trace_);
  }

  const std::string& place() const { return place_; }
  FaultyQm5& qm5() { return qm5_; }

 private:
  const std::string place_;
  std::ofstream trace_;
  FaultyQm5 qm5_;
};

/// Starts the program on a bus with the devices; returns the program's exit status, or empty when
/// it can't be started.
std::optional<int> runProgram(const SimulatorOptions& options, std::deque<Device>& devices,
                              Clock::time_point start_time) {
  std::vector<FaultyQm5*> on_bus;
  on_bus.reserve(devices.size());
  for (Device& each : devices) on_bus.push_back(&each.qm5());
  EmulatedBus bus(on_bus, options.bus);
  const bool plugged_later = options.attach_after.count() > 0;
  if (!plugged_later) bus.plug();
  const auto process = start(options.program);
  if (!process) return std::nullopt;
  const int status =
      runBus(*process, bus, plugged_later ? start_time + options.attach_after : kNever);
  bus.unplug();
  return status;
}

/// Prints how to attach the devices to a machine.
void printAttachCommands(const UsbipAddress& address, const std::deque<Device>& devices) {
  for (const Device& each : devices) {
    std::cout << "qm5-simulator: usbip --tcp-port " << address.port << " attach --remote "
              << address.host.value_or("localhost") << " --busid " << each.place() << std::endl;
  }
}

/// Exports the devices until a signal ends that. Returns why it can't be done, otherwise empty.
std::optional<std::string> exportDevices(const SimulatorOptions& options,
                                         std::deque<Device>& devices) {
  std::deque<ExportedDevice> exported;
  for (Device& each : devices) {
    const auto address = static_cast<std::uint32_t>(exported.size() + 2);
    exported.emplace_back(each.place(), address, each.qm5(),
                          ExportedDevice::Options{options.bus.product, options.bus.latency});
  }
  UsbipServer server(exported);
  if (auto problem = server.start(*options.usbip)) return problem;
  printAttachCommands(*options.usbip, devices);
  const sigset_t signals = controlSignals();
  while (true) {
    const int signal = nextSignal(signals, kNever)->si_signo;
    if (signal == SIGUSR1) server.unplug();
    if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP) return std::nullopt;
  }
}

/// Prints a line for each device, which ends in `end`, behind whatever a program has written.
/// Whether all are right.
bool printVerdicts(std::deque<Device>& devices, const std::optional<Bytes>& expected,
                   const std::string& end) {
  bool all_good = true;
  for (Device& each : devices) {
    const RunResult result = evaluateRun(each.qm5(), expected);
    all_good = all_good && result.good;
    const std::string label = devices.size() > 1 ? each.place() + ": " : "";
    std::cout << "qm5-simulator: " << label << result.line << end << std::endl;
  }
  return all_good;
}

/// Adds the devices. Returns the path of a file that can't be written, otherwise empty.
std::optional<std::string> addDevices(const SimulatorOptions& options, Clock::time_point start_time,
                                      std::deque<Device>& devices) {
  for (const SimulatorOptions::Device& each : options.devices) {
    Device& device = devices.emplace_back(EmulatedBus::placeOf(devices.size()), each);
    if (!options.trace) continue;
    const bool is_alone = options.devices.size() == 1;
    const std::string path = is_alone ? *options.trace : *options.trace + "-" + device.place();
    if (!device.trace(path, start_time)) return path;
  }
  return std::nullopt;
}

int simulate(const SimulatorOptions& options) {
  std::optional<Bytes> expected;
  if (options.image && !(expected = expectedFlash(*options.image)))
    return failToUse("no image can be read from " + *options.image);
  const auto start_time = Clock::now();
  std::deque<Device> devices;
  if (const auto path = addDevices(options, start_time, devices))
    return failToUse(*path + " can't be written");
  // Blocked before any thread starts, which inherits it: nextSignal() alone gets the signals.
  const sigset_t signals = controlSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);

  if (options.usbip) {
    if (const auto problem = exportDevices(options, devices))
      return failToUse("can't export: " + *problem);
    return printVerdicts(devices, expected, "") ? 0 : 1;
  }
  const std::optional<int> status = runProgram(options, devices, start_time);
  if (!status) return kCommandNotFound;
  const bool all_good =
      printVerdicts(devices, expected, ", the program ended with " + std::to_string(*status));
  return all_good && *status == 0 ? 0 : 1;
}

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  const auto parsed = qm5::parseSimulatorOptions({argv + 1, argv + argc});
  if (const auto* const notice = std::get_if<qm5::SimulatorNotice>(&parsed)) {
    (notice->exit_status == 0 ? std::cout : std::cerr) << notice->text;
    return notice->exit_status;
  }
  const auto* const options = std::get_if<qm5::SimulatorOptions>(&parsed);
  if (!options->usbip) qm5::EmulatedBus::enterMockEnvironment(argv);
  return qm5::simulate(*options);
}
