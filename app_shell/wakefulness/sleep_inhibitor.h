// Keeps the computer awake: through logind on Linux, through IOKit on macOS.
#pragma once

#include "app_shell/ports/wakefulness.h"

namespace qm5 {

/// While a token is held, idleness does not put the computer to sleep; on Linux neither do
/// closing the lid and other programs, where logind decides about those.
class SleepInhibitor : public Wakefulness {
 public:
  std::shared_ptr<void> beginActivity(std::string_view reason,
                                      std::function<void()> refused) override;
};

}  // namespace qm5
