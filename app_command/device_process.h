// One of several QM5s, which a process of its own updates: this program once more, with the port of
// that QM5 as the only one.
#pragma once

#include <QProcess>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "app_command/options.h"
#include "app_command/report.h"

namespace qm5 {

/// Main thread unless a function says otherwise.
class DeviceProcess final : private UpdateEvents {
 public:
  /// What all processes share, and keep.
  struct Shared {
    const CommandOptions& options;
    int bus_claim;  ///< descriptor of the lock on the bus, which each process inherits
    Report& report;
    std::set<std::string, std::less<>> common_notes = {};  ///< that have been reported
    std::function<void()> changed;  ///< a process has finished its update, or has ended
  };

  DeviceProcess(std::string device, Shared& shared);

  /// Call it once. Where the process can't be started, the update has failed.
  void start();

  /// Asks it to end, as a signal does: during an update it ends after that.
  void requestEnd();

  /// Kills it and reports that the person has ended it, unless it has ended already. Any thread.
  void endAtOnce();

  /// Whether its end would cut off an update. Any thread.
  bool isUpdating() const;

  /// Empty until it has ended. Any thread.
  std::optional<ExitStatus> status() const;

 private:
  void note(const Subject& subject, std::string_view text) override;
  void updating(const Subject& subject) override;
  void progressed(const Subject& subject, const Progress& progress) override;
  void confirming(const Subject& subject, const Verdict& update) override;
  void ended(const Subject& subject, const Verdict& verdict) override;

  void readLines(QProcess::ProcessChannel channel);
  void processEnded();
  bool isUpdatingLocked() const;
  void concludeLocked(const Verdict& verdict);

  Shared& shared_;
  const std::string device_;
  QProcess process_;

  mutable std::mutex mutex_;  // guards what follows
  Subject subject_;
  bool has_updated_ = false;
  std::optional<Verdict> verdict_;    // the process's own
  std::optional<ExitStatus> status_;  // once the outcome has been reported
  qint64 id_ = 0;                     // of the process; 0 before its start
};

}  // namespace qm5
