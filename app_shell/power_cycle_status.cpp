#include "app_shell/power_cycle_status.h"

#include <utility>

namespace qm5 {
namespace {

StatusKind kindOf(PowerCycle state) {
  switch (state) {
    case PowerCycle::awaited:
      return StatusKind::information;
    case PowerCycle::confirmed:
      return StatusKind::good;
    case PowerCycle::unconfirmed:
      break;
  }
  return StatusKind::caution;
}

}  // namespace

PowerCycleCheck::Show powerCycleStatus(std::shared_ptr<Window> dialog,
                                       std::weak_ptr<StatusIndicator> fallback) {
  return [dialog = std::move(dialog), fallback = std::move(fallback),
          shown_in = std::weak_ptr<StatusIndicator>()](PowerCycle state,
                                                       std::string_view text) mutable {
    if (shown_in.expired()) shown_in = dialog->growStatusIndicator();
    if (shown_in.expired()) shown_in = fallback;
    if (const auto indicator = shown_in.lock()) indicator->setStatus(kindOf(state), text);
  };
}

}  // namespace qm5
