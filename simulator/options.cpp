#include "simulator/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace qm5 {
namespace {

constexpr const char* kHelp =
    R"(usage: qm5-simulator [options] -- PROGRAM [ARGUMENTS]

Starts PROGRAM on an emulated USB bus with a software QM5, waits for its end, and tells in
one line what became of the device.

  --version HEX          version that the QM5 reports (default 4201)
  --busy TASK=POLLS      polls that find a task of that name busy (default 0)
  --fault WHERE:N=KIND   what goes wrong, and when: at request number N, or at the Nth task
                         of a name. WHERE is "request", SFWi, SFWd or SFWs. KIND is
                           stall         the request is refused
                           stall-on      and so are all that follow
                           result:CODE   the reply carries that result code (1 to 15)
                           short:BYTES   the reply lacks its last bytes
                           silent        no answer, ever
                           busy          no task ends any more
                           unplug        the QM5 leaves
                           replug        the QM5 leaves and comes back after 0.2 s
                         May be given more than once.
  --attach-after SECONDS plug the QM5 in that long after the start of PROGRAM
  --no-product           the QM5 has no name
  --no-permission        the QM5 can't be opened until SIGUSR1 and SIGUSR2 have replugged it
  --latency-ms N         time that each request takes (default 0)
  --image FILE           image whose payload the flash must hold in the end
  --trace FILE           write each request as a line of JSON
  --help

While PROGRAM runs, SIGUSR1 unplugs the QM5 and SIGUSR2 plugs it in. SIGINT, SIGTERM and
SIGHUP go on to PROGRAM.

The exit status is 0 only when flash and signature are right, no breach of protocol was
seen, and PROGRAM ended with 0; it is 2 when the options are wrong.
)";

template <typename Number>
bool parseNumber(std::string_view text, Number& number, auto... base) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base...);
  return error == std::errc() && stop == end;
}

/// The two sides of the first `mark`; the right one is empty when there is no mark.
std::pair<std::string_view, std::string_view> split(std::string_view text, char mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos) return {text, {}};
  return {text.substr(0, at), text.substr(at + 1)};
}

bool isTask(std::string_view name) {
  return name == "SFWi" || name == "SFWd" || name == "SFWs";
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

// A result code is four bits, and 0 would be no fault.
constexpr std::uint8_t kLastResultCode = 15;

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

/// Takes an option's value in; false when it makes no sense.
bool setOption(SimulatorOptions& options, std::string_view name, std::string_view value) {
  if (name == "--version") return parseNumber(value, options.device.version, 16);
  if (name == "--busy") return parseBusy(value, options.device);
  if (name == "--attach-after") return parseSeconds(value, options.attach_after);
  if (name == "--latency-ms") return parseMilliseconds(value, options.bus.latency);
  if (name == "--image") options.image = value;
  if (name == "--trace") options.trace = value;
  if (name == "--image" || name == "--trace") return !value.empty();
  const auto fault = name == "--fault" ? parseFault(value) : std::nullopt;
  if (fault) options.faults.push_back(*fault);
  return fault.has_value();
}

bool setFlag(SimulatorOptions& options, std::string_view name) {
  if (name == "--no-product") {
    options.bus.product.reset();
  } else if (name == "--no-permission") {
    options.bus.permitted = false;
  } else {
    return false;
  }
  return true;
}

SimulatorNotice wrong(const std::string& what) {
  return {"qm5-simulator: " + what + "; --help tells the options\n", 2};
}

}  // namespace

std::optional<Fault> parseFault(std::string_view text) {
  const auto [point, action] = split(text, '=');
  const auto [where, number] = split(point, ':');
  const auto [name, value] = split(action, ':');
  const auto kind =
      std::find_if(kKinds.begin(), kKinds.end(),
                   [&, wanted = name](const NamedKind& k) { return k.name == wanted; });
  Fault fault;
  if (kind == kKinds.end() || (where != "request" && !isTask(where))) return std::nullopt;
  fault.kind = kind->kind;
  if (where != "request") fault.task = where;
  if (!parseNumber(number, fault.number) || fault.number == 0) return std::nullopt;
  if (kind->has_value ? !parseNumber(value, fault.value) : !value.empty()) return std::nullopt;
  const bool is_code = fault.value >= 1 && fault.value <= kLastResultCode;
  if (fault.kind == FaultKind::result && !is_code) return std::nullopt;
  return fault;
}

std::variant<SimulatorOptions, SimulatorNotice> parseSimulatorOptions(
    const std::vector<std::string>& arguments) {
  SimulatorOptions options;
  auto next = arguments.begin();
  for (; next != arguments.end() && next->starts_with("--") && *next != "--"; ++next) {
    if (*next == "--help") return SimulatorNotice{kHelp, 0};
    if (setFlag(options, *next)) continue;
    const std::string& name = *next;
    if (++next == arguments.end()) return wrong(name + " needs a value");
    if (!setOption(options, name, *next)) return wrong("wrong option " + name + " " + *next);
  }
  if (next != arguments.end() && *next == "--") ++next;
  options.program.assign(next, arguments.end());
  if (options.program.empty()) return wrong("no program to start");
  return options;
}

}  // namespace qm5
