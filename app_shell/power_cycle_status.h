// Where the check after a power cycle shows: in the finish dialog.
#pragma once

#include <memory>

#include "app_shell/ports/window.h"
#include "update_run/power_cycle_check.h"

namespace qm5 {

/// Shows each text in an indicator by which `dialog` grows with the first one, or in `fallback`
/// where the screen has no room for that. Main thread.
PowerCycleCheck::Show powerCycleStatus(std::shared_ptr<Window> dialog,
                                       std::weak_ptr<StatusIndicator> fallback);

}  // namespace qm5
