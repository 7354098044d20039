#include "app_shell/process/arguments.h"

#include <algorithm>
#include <iterator>

namespace qm5 {
namespace {

constexpr int kUsageError = 2;

constexpr std::string_view kHelp =
    "usage: qm5-updater [options]\n"
    "\n"
    "Opens a window that brings the firmware of a QM5 up to date over USB.\n"
    "\n"
    "  --help     print this text\n"
    "  --version  print the program's version\n"
    "\n"
    "The options of Qt, such as -platform and -style, work as well.\n";

enum class Value {
  none,      ///< the argument stands alone
  next,      ///< the next argument is its value
  attached,  ///< the value follows "="
  either,    ///< the value follows "=", or is the next argument
};

struct ToolkitArgument {
  std::string_view name;
  Value value;
};

// What Qt 6 takes, its platforms included. Qt accepts "--" in place of "-".
constexpr ToolkitArgument kToolkitArguments[] = {
    {"platform", Value::next},
    {"platformpluginpath", Value::next},
    {"platformtheme", Value::next},
    {"plugin", Value::next},
    {"session", Value::next},
    {"reverse", Value::none},
    {"qwindowgeometry", Value::next},
    {"geometry", Value::next},
    {"qwindowtitle", Value::next},
    {"title", Value::next},
    {"qwindowicon", Value::next},
    {"icon", Value::next},
    {"testability", Value::none},
    {"style", Value::either},
    {"stylesheet", Value::either},
    {"widgetcount", Value::none},
    {"qmljsdebugger", Value::attached},
    {"display", Value::next},
    {"name", Value::next},
    {"visual", Value::next},
    {"nograb", Value::none},
    {"dograb", Value::none},
    // Of Qt 4: without effect, but still in people's scripts.
    {"graphicssystem", Value::next},
    {"qdevel", Value::none},
    {"qdebug", Value::none},
};

/// How many arguments the toolkit takes from `argument` on, with `left` in all; 0 when it does not
/// know the argument or when its value is missing.
int takenByToolkit(std::string_view argument, int left) {
  if (!argument.starts_with('-')) return 0;
  argument.remove_prefix(argument.starts_with("--") ? 2 : 1);
  const std::size_t equals = argument.find('=');
  const bool attached = equals != argument.npos;
  const auto known = std::find_if(
      std::begin(kToolkitArguments), std::end(kToolkitArguments),
      [name = argument.substr(0, equals)](const auto& each) { return each.name == name; });
  if (known == std::end(kToolkitArguments)) return 0;
  if (attached) return known->value == Value::attached || known->value == Value::either ? 1 : 0;
  if (known->value == Value::none) return 1;
  return known->value != Value::attached && left > 1 ? 2 : 0;
}

}  // namespace

std::optional<Reply> replyToArguments(int argc, const char* const* argv, std::string_view version) {
  for (int i = 1; i < argc;) {
    const std::string_view argument = argv[i];
    if (argument == "--help") return Reply{std::string(kHelp), 0};
    if (argument == "--version")
      return Reply{std::string("qm5-updater ").append(version).append("\n"), 0};
    const int taken = takenByToolkit(argument, argc - i);
    if (taken == 0) {
      std::string text = "qm5-updater: unknown argument or missing value: ";
      return Reply{text.append(argument).append(" (see --help)\n"), kUsageError};
    }
    i += taken;
  }
  return std::nullopt;
}

}  // namespace qm5
