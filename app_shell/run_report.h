// Tells in the main window why the last run failed, and offers its lines.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app_shell/ports/window.h"
#include "update_run/failure_reason.h"

namespace qm5 {

/// Held by a std::shared_ptr. All on the main thread.
class RunReport : public std::enable_shared_from_this<RunReport> {
 public:
  /// Reports in the box "runStatus" and with the button "btnDetails" of that window. Fatal without
  /// one of them, as soon as there is something to show.
  void showIn(const std::shared_ptr<Window>& main_window);
  /// Tells why the run failed; nothing when it did not.
  void runEnded(RunRecord record);
  /// Takes back what was told of the last run.
  void clear();

 private:
  void show(StatusKind kind, const std::string& reason);
  void showDetails();

  std::weak_ptr<Window> window_;
  std::weak_ptr<StatusIndicator> status_;
  std::weak_ptr<Button> details_;
  std::vector<std::string> lines_;
};

}  // namespace qm5
