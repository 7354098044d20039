#include "app_command/options.h"

#include <getopt.h>

#include <QRegularExpression>
#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "app_command/verdict.h"

namespace qm5 {
namespace {

constexpr const char* kHelp =
    R"(usage: qm5-update [options]

Brings the firmware of the connected QM5 up to date over USB, without a window.

  --check              read the version alone; nothing is written
  --list               list the QM5s with the names of their ports
  --device PLACE       the QM5 at the port of that name, as in 1-4.2
  --all                each QM5 that is connected, all at the same time
  --image FILE         write this image, not the packaged one; needs --target
  --target VERSION     the version that FILE brings, as in 4208
  --wait[=SECONDS]     wait until a QM5 is connected
  --confirm[=SECONDS]  after the update, wait until the QM5 has been switched
                       off and on, and check that it reports the new version
  --json               print one JSON object per line
  --quiet              print errors alone; with --json, the outcome alone; with
                       --list, the list all the same
  --help               print this text
  --version            print the program's version

Without SECONDS, it waits as long as it takes.

exit status:
   0  the QM5 was updated, or was up to date already
   1  the update failed, or could not be confirmed
   2  the options are wrong
   3  no QM5 is connected, or none that can be used
   4  you may not open the QM5
   5  another updater has the USB bus
   6  the image is missing or is none
   7  ended by a signal or by the person
  10  with --check: an update would be written
With --all, the first of 1, 7, 6, 5, 4, 3, 10 and 0 that any QM5 had.
)";

constexpr double kMostSeconds = 1e6;  // 11 days; timers count milliseconds in 32 bits
constexpr std::size_t kVersionDigits = 4;

// These set an option, and return false when the value is wrong. An option without one gets an
// empty value, and no other one does.

bool parseSeconds(std::string_view value, std::optional<double>& seconds) {
  seconds = std::numeric_limits<double>::infinity();
  if (value.empty()) return true;
  const char* const end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, *seconds);
  return error == std::errc() && stop == end && *seconds >= 0 && *seconds <= kMostSeconds;
}

// Numbers, a hyphen behind the first one and dots behind the others, as in "1-4.2".
bool parsePlace(std::string_view value, std::optional<std::string>& place) {
  static const QRegularExpression names("\\A[0-9]+-[0-9]+([.][0-9]+)*\\z");
  place = value;
  return names.match(QString::fromStdString(*place)).hasMatch();
}

bool parseDescriptor(std::string_view value, int& descriptor) {
  const char* const end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, descriptor);
  return error == std::errc() && stop == end;
}

bool parseVersion(std::string_view value, std::string& version) {
  version = value;
  std::transform(version.begin(), version.end(), version.begin(), [](char digit) {
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 'A' : digit;
  });
  return version.size() == kVersionDigits &&
         version.find_first_not_of("0123456789ABCDEF") == version.npos;
}

struct Rule {
  const char* name;
  int has_value;
  bool (*set)(std::string_view value, CommandOptions& options);
};
constexpr std::array<Rule, 11> kRules = {{
    {"check", no_argument, [](auto, auto& options) { return options.only_check = true; }},
    {"list", no_argument, [](auto, auto& options) { return options.list = true; }},
    {"device", required_argument,
     [](auto value, auto& options) { return parsePlace(value, options.device); }},
    {"all", no_argument, [](auto, auto& options) { return options.all = true; }},
    {"image", required_argument,
     [](auto value, auto& options) { return options.image = value, true; }},
    {"target", required_argument,
     [](auto value, auto& options) { return parseVersion(value, options.target.emplace()); }},
    {"wait", optional_argument,
     [](auto value, auto& options) { return parseSeconds(value, options.wait); }},
    {"confirm", optional_argument,
     [](auto value, auto& options) { return parseSeconds(value, options.confirm); }},
    {"json", no_argument, [](auto, auto& options) { return options.json = true; }},
    {"quiet", no_argument, [](auto, auto& options) { return options.quiet = true; }},
    // Not in the help: --all alone starts processes with it.
    {"claim", required_argument,
     [](auto value, auto& options) { return parseDescriptor(value, options.claim); }},
}};
constexpr int kHelpOption = kRules.size();
constexpr int kVersionOption = kHelpOption + 1;
constexpr int kEndOfOptions = -1;

/// The next option as its index in kRules, or one of the constants above, '?' for an unknown
/// option, or ':' for one whose value is missing.
int nextOption(int argc, char** argv) {
  std::array<option, kVersionOption + 2> options{};  // the last one stays empty, as their end
  for (std::size_t i = 0; i < kRules.size(); ++i)
    options[i] = {kRules[i].name, kRules[i].has_value, nullptr, static_cast<int>(i)};
  options[kHelpOption] = {"help", no_argument, nullptr, kHelpOption};
  options[kVersionOption] = {"version", no_argument, nullptr, kVersionOption};
  return getopt_long(argc, argv, ":", options.data(), nullptr);  // ":": it prints nothing itself
}

/// What the person wrote for the option that was found. Of letters behind one hyphen, getopt_long
/// looks at one by one, and has not finished with the word.
std::string wordOf(int found, char** argv) {
  const bool is_letter = found == '?' && optopt > kVersionOption;  // others are indexes
  return is_letter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

CommandReply wrong(const std::string& what) {
  return {"qm5-update: " + what + "; --help lists the options\n",
          static_cast<int>(ExitStatus::usage)};
}

/// Sets the option that was found; what to print where that is not possible.
std::optional<CommandReply> apply(int found, const std::string& word, CommandOptions& options) {
  if (found == '?') return wrong("wrong option " + word);
  if (found == ':') return wrong(word + " needs a value");
  const std::string_view value = optarg != nullptr ? optarg : "";
  const Rule& rule = kRules[static_cast<std::size_t>(found)];
  const bool is_empty = optarg != nullptr && value.empty();
  if (!is_empty && rule.set(value, options)) return std::nullopt;
  return wrong(std::string("wrong value of --").append(rule.name).append(": ").append(value));
}

// Whether an option was given that says something about a run.
bool concernsRun(const CommandOptions& options) {
  return options.all || options.only_check || options.image || options.target || options.wait ||
         options.confirm;
}

std::string_view conflictInRun(const CommandOptions& options) {
  if (options.image && !options.target) return "--image needs --target";
  if (options.target && !options.image && !options.only_check)
    return "--target needs --image or --check";
  if (options.confirm && options.only_check) return "--check leaves nothing to confirm";
  if (options.image && options.only_check) return "--check reads no image, --target alone will do";
  return {};
}

// What is wrong with options that are right each by itself; empty when nothing is.
std::string_view conflictIn(const CommandOptions& options) {
  if (options.list && concernsRun(options))
    return "--list goes with --device, --json and --quiet alone";
  if (options.all && options.device) return "--all and --device exclude each other";
  return conflictInRun(options);
}

}  // namespace

std::variant<CommandOptions, CommandReply> parseCommandOptions(int argc, char** argv,
                                                               std::string_view version) {
  CommandOptions options;
  for (int found = nextOption(argc, argv); found != kEndOfOptions; found = nextOption(argc, argv)) {
    if (found == kHelpOption) return CommandReply{kHelp, 0};
    if (found == kVersionOption)
      return CommandReply{std::string("qm5-update ").append(version).append("\n"), 0};
    if (auto reply = apply(found, wordOf(found, argv), options)) return *reply;
  }
  if (optind < argc) return wrong(std::string("unexpected argument ").append(argv[optind]));
  const std::string conflict(conflictIn(options));
  if (!conflict.empty()) return wrong(conflict);
  return options;
}

}  // namespace qm5
