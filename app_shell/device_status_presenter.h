// Keeps the status box of the main window up to date with what is on the bus.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "app_shell/ports/window.h"
#include "device_link/device_presence.h"

namespace qm5 {

/// Shows what update_run/device_state_text.h says. Informs only: what Next does is for the update
/// job to find out. All on the main thread.
class DeviceStatusPresenter {
 public:
  /// Follows the bus from now on. Call it before the Driver is made, so that no arrival is
  /// missed.
  static std::shared_ptr<DeviceStatusPresenter> follow();
  /// Shows the state in `indicator`, now and after each change for as long as its window holds it.
  /// Fatal without an indicator.
  void showIn(const std::shared_ptr<StatusIndicator>& indicator);
  /// Has `changed` called after each change too.
  void setChanged(std::function<void()> changed);

  /// What is on the bus now.
  DeviceState state() const;

 private:
  DeviceStatusPresenter() = default;
  void show();

  std::weak_ptr<StatusIndicator> indicator_;
  std::function<void()> changed_ = [] {};
  std::optional<DevicePresence> presence_;
};

}  // namespace qm5
