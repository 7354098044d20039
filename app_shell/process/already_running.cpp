#include "app_shell/process/already_running.h"

#include <cstdlib>

#include "app_shell/ports/application.h"
#include "platform/system_log.h"

namespace qm5 {
namespace {

Alert noticeOf(const BusInUse& in_use) {
  Alert alert = {.messageText = "QM5 Updater is running already",
                 .informativeText = {},
                 .firstButton = "OK",
                 .otherButtons = {},
                 .style = AlertStyle::warning};
  std::string& text = alert.informativeText;
  if (in_use.by == BusInUse::By::thisUserElsewhere) {
    text = "You have started it on the display ";
    text.append(in_use.name.empty() ? "of another session" : in_use.name);
    text.append(" of this computer.\n");
  } else if (in_use.by == BusInUse::By::thisUserWithoutWindows) {
    text =
        "Its display has gone, and an update goes on without windows.\n"
        "When that has ended, you can start the program again.\n";
  } else if (in_use.by == BusInUse::By::anotherUser) {
    text = "Another person has started it on this computer.\n";
  } else {
    alert.messageText = "QM5 Updater can't start";
    text = in_use.name + " keeps the USB bus and does not answer.\n";
  }
  text.append("Only one at a time can talk to the QM5.");
  return alert;
}

std::string inOneLine(std::string text) {
  for (char& each : text) each = each == '\n' ? ' ' : each;
  return text;
}

bool hasDisplay() {
#ifdef __linux__
  for (const char* variable : {"WAYLAND_DISPLAY", "DISPLAY"}) {
    const char* const name = std::getenv(variable);
    if (name != nullptr && *name != '\0') return true;
  }
  return false;
#else
  return true;
#endif
}

}  // namespace

void showAlreadyRunning(int argc, char** argv, const BusInUse& in_use) {
  if (in_use.by == BusInUse::By::thisUser) return;
  const Alert alert = noticeOf(in_use);
  log(alert.messageText + ": " + inOneLine(alert.informativeText));
  if (hasDisplay()) application().showNotice(argc, argv, alert);
}

}  // namespace qm5
