#include "app_shell/exit_confirmation.h"

#include <string>
#include <utility>

#include "app_shell/ports/application.h"
#include "update_run/exit_question.h"

namespace qm5 {

void askBeforeExit(const std::weak_ptr<Window>& window, bool unasked,
                   std::function<void()> declined) {
  const Alert alert = {
      .messageText = std::string(kExitTitle),
      .informativeText = std::string(kExitText),
      .firstButton = std::string(kQuit),
      .otherButtons = {std::string(kDontQuit)},
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
