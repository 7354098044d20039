// The question before the application ends, the same from both windows.
#pragma once

#include <memory>

#include "app_shell/toolkit.h"

namespace qm5 {

/// Asks on `window` whether to quit; "Quit" ends the application at once, whatever the
/// update job is doing. Without a window nothing is asked. Main thread.
void askBeforeExit(const std::weak_ptr<Window>& window);

}  // namespace qm5
