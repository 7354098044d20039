// The line of the main window that tells what is on the bus, live.
#pragma once

#include <memory>
#include <optional>

#include "app_shell/toolkit.h"
#include "device_link/bus_presence.h"

namespace qm5 {

/// Informs only: what Next does is the update job's to find out. All on the main thread.
class BusStatus {
 public:
  /// Follows the bus from now on. Call it before the Driver is made.
  static std::shared_ptr<BusStatus> follow();
  /// Shows the state in `line` from now on.
  void showIn(std::shared_ptr<StatusLine> line);

 private:
  BusStatus() = default;
  void show();

  std::shared_ptr<StatusLine> line_;
  std::optional<BusPresence> presence_;
};

}  // namespace qm5
