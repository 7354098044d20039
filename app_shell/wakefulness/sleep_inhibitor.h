// Keeps the computer awake: through logind on Linux, through IOKit on macOS.
#pragma once

#include "app_shell/ports/wakefulness.h"

namespace qm5 {

/// While a token is held, idleness does not put the computer to sleep. On Linux, where logind
/// decides about that, it is neither put to sleep nor shut down by the lid, the keys for power and
/// sleep, and programs of the person at the machine.
class SleepInhibitor : public Wakefulness {
 public:
  std::shared_ptr<void> beginActivity(std::string_view reason,
                                      std::function<void()> refused) override;
};

}  // namespace qm5
