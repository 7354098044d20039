// Keeps the status box of the main window up to date with what is on the bus.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "app_shell/ports/window.h"
#include "device_link/device_presence.h"

namespace qm5 {

/// Informs only: what Next does is for the update job to find out. All on the main thread.
///
/// | the box says                              | while                                          |
/// |-------------------------------------------|------------------------------------------------|
/// | No QM5 is connected.                      | none is on the bus                             |
/// | A QM5 is connected.                       | one is, and the Driver has it                  |
/// | <n> QM5s are connected. An update goes to | several are, and the Driver has one: the last  |
/// |                                           | one announced                                  |
/// | …, but it came before the updater was     | the Driver has none: it did not listen yet     |
/// |   ready. …                                | when the last one was announced                |
/// | …, but the updater followed another one,  | the Driver has none: the last one announced    |
/// |   which has left. …                       | has left, another one is still there           |
/// | …, but you may not open it. …             | none could be opened, one for want of a right  |
/// | …, but it could not be opened. …          | none could be opened                           |
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
