// The question before the application ends, the same from both windows.
#pragma once

#include <functional>
#include <memory>

#include "app_shell/ports/window.h"

namespace qm5 {

/// Asks on `window` whether to quit, `unasked` when no press of the person's brought that up;
/// "Quit" ends the application at once, whatever the update job is doing. Otherwise `declined` is
/// called, also when the question goes away without an answer, or when there is no window to ask
/// on. Main thread.
void askBeforeExit(const std::weak_ptr<Window>& window, bool unasked,
                   std::function<void()> declined);

}  // namespace qm5
