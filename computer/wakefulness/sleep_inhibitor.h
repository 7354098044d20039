// Keeps the computer awake and the session open: through logind and the session manager on Linux,
// through IOKit on macOS.
#pragma once

#include "computer/wakefulness.h"

namespace qm5 {

/// While a token is held, idleness does not put the computer to sleep. On Linux, where logind
/// decides about that, it is neither put to sleep nor shut down by the lid, the keys for power and
/// sleep, and programs of the person at the machine, and the session manager holds back a log-out.
class SleepInhibitor : public Wakefulness {
 public:
  std::shared_ptr<void> beginActivity(std::string_view reason,
                                      std::function<void()> refused) override;
};

}  // namespace qm5
