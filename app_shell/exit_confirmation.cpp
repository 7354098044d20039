#include "app_shell/exit_confirmation.h"

#include <utility>

#include "app_shell/ports/application.h"

namespace qm5 {

void askBeforeExit(const std::weak_ptr<Window>& window, bool unasked,
                   std::function<void()> declined) {
  // It speaks of unfinished flashing in every state, also when no update has run.
  const Alert alert = {
      .messageText = "Exit confirmation",
      .informativeText = "Firmware flashing did not finish.\nDo you really want to exit?",
      .firstButton = "Quit",
      .otherButtons = {"Don't quit"},
      .style = AlertStyle::warning,
      .comesUnasked = unasked,
  };
  const std::shared_ptr<Window> shown_on = window.lock();
  if (!shown_on) return declined();
  shown_on->beginSheet(alert, [declined = std::move(declined)](int response) {
    if (response == kAlertFirstButtonReturn) return application().terminate();
    declined();
  });
}

}  // namespace qm5
