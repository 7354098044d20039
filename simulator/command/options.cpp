#include "simulator/command/options.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "simulator/device/register_map.h"

namespace qm5 {
namespace {

constexpr const char* kHelp =
    R"(usage: qm5-simulator [options] -- PROGRAM [ARGUMENTS]
       qm5-simulator [options] --usbip [[HOST:]PORT]

Starts PROGRAM on an emulated USB bus with a software QM5, waits until it ends, and prints one
line: what the QM5's flash holds, and what PROGRAM did wrong. With --usbip, it exports the QM5
to the USB stack of any Linux machine instead, until SIGINT, SIGTERM or SIGHUP ends that.

  --usbip [[HOST:]PORT]  export by USB/IP at that TCP port (default 3240) of that address (default:
                         the loopback interface), as in --usbip 0.0.0.0:3240 or --usbip [::1]:3240.
                         Prints the commands that attach the QM5s. Attaching one plugs it in
  --devices N            that many QM5s (1 to 30), at the ports 1-1.2, 1-1.3 and so on, and one line
                         for each. Before the values of the next four options, K: says that they
                         concern the QM5 number K alone, as in --version 3:4208. They go behind
                         --devices
  --version HEX          version that the QM5 reports (default 4201)
  --flash-size BYTES     size of the QM5's flash (default 1048576)
  --busy TASK=POLLS      number of polls that find each task of that name busy (default 0)
  --fault WHERE:N=KIND   a fault at request number N, or at the Nth task of a name. WHERE is
                         "request", SFWi, SFWd or SFWs. KIND is
                           stall         the request is refused
                           stall-on      this request and all later ones are refused
                           result:CODE   the reply carries that result code (1 to 15)
                           short:BYTES   the last BYTES bytes of the reply are missing
                           silent        the request is never answered
                           busy          no task ends any more
                           unplug        the QM5 leaves the bus
                           replug        the QM5 leaves the bus and comes back after 0.2 s; with
                                         --usbip it comes back when it is attached again
                         May be given more than once.
  --attach-after SECONDS plug the QM5s in that long after the start of PROGRAM
  --no-product           the QM5s have no product name
  --no-permission        PROGRAM may not open the QM5s until SIGUSR2 comes
  --latency-ms N         time that each request takes (default 0)
  --image FILE           firmware image that the flash must hold in the end
  --trace FILE           write each request to FILE as a line of JSON; with several QM5s to
                         FILE-1-1.2, FILE-1-1.3 and so on
  --help                 print this text

While PROGRAM runs, SIGUSR1 unplugs the QM5s, and SIGUSR2 plugs them in and permits them. SIGINT,
SIGTERM and SIGHUP are passed on to PROGRAM. With --usbip, SIGUSR1 unplugs the QM5s as well.

The exit status is 0 when flash and signature of each QM5 are right, PROGRAM or the host kept to the
protocol without any deviation, and PROGRAM ended with status 0. It is 1 when one of that is not so, 2
when the options are wrong or a file or address can't be used, and 127 when PROGRAM can't be started.
)";

template <typename Number>
bool parseNumber(std::string_view text, Number& number, auto... base) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base...);
  return error == std::errc() && stop == end;
}

/// The parts of `text` before and after the first `separator`; the second part is empty when
/// there is no separator.
std::pair<std::string_view, std::string_view> split(std::string_view text, char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) return {text, {}};
  return {text.substr(0, at), text.substr(at + 1)};
}

struct NamedKind {
  std::string_view name;
  FaultKind kind;
  bool has_value;
};
constexpr std::array<NamedKind, 8> kKinds = {{{"stall", FaultKind::stall, false},
                                              {"stall-on", FaultKind::stall_on, false},
                                              {"result", FaultKind::result, true},
                                              {"short", FaultKind::short_reply, true},
                                              {"silent", FaultKind::silent, false},
                                              {"busy", FaultKind::busy_for_ever, false},
                                              {"unplug", FaultKind::unplug, false},
                                              {"replug", FaultKind::replug, false}}};

// A result code has four bits, and 0 means that nothing is wrong.
constexpr std::uint8_t kLastResultCode = 15;

// The functions below set a part of their result, and return false when the text is wrong.

bool parseFaultPoint(std::string_view text, Fault& fault) {
  const auto [where, number] = split(text, ':');
  if (where != "request" && !isTask(where)) return false;
  if (where != "request") fault.task = where;
  return parseNumber(number, fault.number) && fault.number > 0;
}

bool parseFaultKind(std::string_view text, Fault& fault) {
  const auto [name, value] = split(text, ':');
  const auto kind =
      std::find_if(kKinds.begin(), kKinds.end(),
                   [&, wanted = name](const NamedKind& each) { return each.name == wanted; });
  if (kind == kKinds.end()) return false;
  fault.kind = kind->kind;
  if (!kind->has_value) return value.empty();
  if (!parseNumber(value, fault.value)) return false;
  return fault.kind != FaultKind::result || (fault.value >= 1 && fault.value <= kLastResultCode);
}

bool addFault(std::string_view text, std::vector<Fault>& faults) {
  const std::optional<Fault> fault = parseFault(text);
  if (fault) faults.push_back(*fault);
  return fault.has_value();
}

bool parseBusy(std::string_view text, Qm5Model::Options& device) {
  const auto [task, polls] = split(text, '=');
  return isTask(task) && parseNumber(polls, device.busy_polls[std::string(task)]);
}

bool parseMilliseconds(std::string_view text, std::chrono::milliseconds& time) {
  std::uint32_t count = 0;
  if (!parseNumber(text, count)) return false;
  time = std::chrono::milliseconds(count);
  return true;
}

bool parseSeconds(std::string_view text, std::chrono::milliseconds& time) {
  double seconds = 0;
  if (!parseNumber(text, seconds) || !(seconds >= 0 && seconds < 1e6)) return false;
  time = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
  return true;
}

bool parsePath(std::string_view text, std::optional<std::string>& path) {
  path = text;
  return !text.empty();
}

bool parseDevices(std::string_view text, std::vector<SimulatorOptions::Device>& devices) {
  std::size_t count = 0;
  if (!parseNumber(text, count) || count < 1 || count > EmulatedBus::kMostDevices) return false;
  devices.resize(count);
  return true;
}

bool parseUsbip(std::string_view text, std::optional<UsbipAddress>& address) {
  address.emplace();
  if (text.empty()) return true;
  const std::size_t colon = text.rfind(':');
  if (colon != std::string_view::npos) {
    std::string_view host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    if (host.empty()) return false;
    address->host = host;
    text.remove_prefix(colon + 1);
  }
  return parseNumber(text, address->port) && address->port != 0;
}

/// Has `set` parse the value for each device that it concerns: all, or the one whose number stands
/// before it.
bool setDevices(std::string_view value, std::vector<SimulatorOptions::Device>& devices,
                bool (*set)(std::string_view value, SimulatorOptions::Device& device)) {
  const auto [prefix, rest] = split(value, ':');
  std::size_t number = 0;
  if (!parseNumber(prefix, number) || rest.empty())
    return std::all_of(devices.begin(), devices.end(),
                       [&](auto& device) { return set(value, device); });
  return number >= 1 && number <= devices.size() && set(rest, devices[number - 1]);
}

/// One option of the command line. `set` gets an empty text when the option has no value.
struct OptionRule {
  const char* name;
  int has_value;
  bool (*set)(std::string_view value, SimulatorOptions& options);
};
const std::array<OptionRule, 12> kRules = {{
    {"usbip", optional_argument,
     [](auto value, auto& options) { return parseUsbip(value, options.usbip); }},
    {"devices", required_argument,
     [](auto value, auto& options) { return parseDevices(value, options.devices); }},
    {"version", required_argument,
     [](auto value, auto& options) {
       return setDevices(value, options.devices, [](auto text, auto& device) {
         return parseNumber(text, device.model.version, 16);
       });
     }},
    {"flash-size", required_argument,
     [](auto value, auto& options) {
       return setDevices(value, options.devices, [](auto text, auto& device) {
         return parseNumber(text, device.model.flash_bytes);
       });
     }},
    {"busy", required_argument,
     [](auto value, auto& options) {
       return setDevices(value, options.devices,
                         [](auto text, auto& device) { return parseBusy(text, device.model); });
     }},
    {"fault", required_argument,
     [](auto value, auto& options) {
       return setDevices(value, options.devices,
                         [](auto text, auto& device) { return addFault(text, device.faults); });
     }},
    {"attach-after", required_argument,
     [](auto value, auto& options) { return parseSeconds(value, options.attach_after); }},
    {"no-product", no_argument,
     [](auto, auto& options) { return options.bus.product.reset(), true; }},
    {"no-permission", no_argument,
     [](auto, auto& options) { return !(options.bus.permitted = false); }},
    {"latency-ms", required_argument,
     [](auto value, auto& options) { return parseMilliseconds(value, options.bus.latency); }},
    {"image", required_argument,
     [](auto value, auto& options) { return parsePath(value, options.image); }},
    {"trace", required_argument,
     [](auto value, auto& options) { return parsePath(value, options.trace); }},
}};
constexpr int kHelpOption = kRules.size();
constexpr int kEndOfOptions = -1;

/// The next option as its index in kRules, or kHelpOption, kEndOfOptions, '?' for an unknown
/// option, or ':' for one whose value is missing. `words` ends in a null pointer.
int nextOption(std::vector<char*>& words) {
  std::array<option, kHelpOption + 2> options{};  // the last one stays empty, as their end
  for (std::size_t i = 0; i < kRules.size(); ++i)
    options[i] = {kRules[i].name, kRules[i].has_value, nullptr, static_cast<int>(i)};
  options[kHelpOption] = {"help", no_argument, nullptr, kHelpOption};
  // "+": the options end where PROGRAM begins. ":": print nothing.
  const int count = static_cast<int>(words.size()) - 1;
  return getopt_long(count, words.data(), "+:", options.data(), nullptr);
}

/// The value of the option that nextOption() has found; empty when it has none.
std::string optionValue(const OptionRule& rule, const std::vector<char*>& words) {
  if (optarg != nullptr) return optarg;
  const char* const next = words[static_cast<std::size_t>(optind)];
  // getopt_long takes a value that may be missing only from behind a "=".
  if (rule.has_value != optional_argument || next == nullptr || *next == '-') return "";
  ++optind;
  return next;
}

SimulatorNotice wrong(const std::string& what) {
  return {"qm5-simulator: " + what + "; --help lists the options\n", 2};
}

/// What is wrong with the options together; empty when nothing is.
std::optional<std::string> conflict(const SimulatorOptions& options) {
  if (!options.usbip)
    return options.program.empty() ? std::optional("no program to start") : std::nullopt;
  if (!options.program.empty()) return "--usbip starts no program";
  if (options.attach_after.count() > 0 || !options.bus.permitted)
    return "--attach-after and --no-permission are of no use with --usbip";
  return std::nullopt;
}

}  // namespace

std::optional<Fault> parseFault(std::string_view text) {
  const auto [point, kind] = split(text, '=');
  Fault fault;
  if (!parseFaultPoint(point, fault) || !parseFaultKind(kind, fault)) return std::nullopt;
  return fault;
}

std::variant<SimulatorOptions, SimulatorNotice> parseSimulatorOptions(
    std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "qm5-simulator");
  std::vector<char*> words(arguments.size() + 1);  // the last one stays null
  std::transform(arguments.begin(), arguments.end(), words.begin(),
                 [](std::string& argument) { return argument.data(); });
  SimulatorOptions options;
  optind = 0;  // getopt_long starts anew
  for (int found = nextOption(words); found != kEndOfOptions; found = nextOption(words)) {
    if (found == kHelpOption) return SimulatorNotice{kHelp, 0};
    const std::string last_word = arguments[static_cast<std::size_t>(optind - 1)];
    if (found == '?') return wrong("wrong option " + last_word);
    if (found == ':') return wrong(last_word + " needs a value");
    const OptionRule& rule = kRules[static_cast<std::size_t>(found)];
    const std::string value = optionValue(rule, words);
    if (!rule.set(value, options))
      return wrong(std::string("wrong value of --").append(rule.name).append(": ").append(value));
  }
  options.program.assign(arguments.begin() + optind, arguments.end());
  if (const auto problem = conflict(options)) return wrong(*problem);
  return options;
}

}  // namespace qm5
