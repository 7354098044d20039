// One run of the update job, without a window: looks for the QM5, reads and compares its version,
// checks that there is an image, and updates. Decides how the run ends and which text the user
// gets.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "device_link/driver.h"
#include "platform/bytes.h"
#include "update_engine/progress.h"

namespace qm5 {

/// How a run ended.
enum class Outcome {
  updated,       ///< every task of the update was answered without a failure
  noDevice,      ///< no QM5 was attached
  noVersion,     ///< the QM5 did not report its version
  upToDate,      ///< the QM5 reports the target version already; nothing was written
  noImage,       ///< the QM5 reports another version, but there is no image
  updateFailed,  ///< the image was refused or a task failed; the console has the reason
  updateDue,     ///< the QM5 reports another version, and the run was to find out that alone
};

/// What a run needs. All that it refers to outlives the run.
struct UpdateRun {
  Driver& link;
  const std::optional<Bytes>& image;  ///< the whole image; empty when it could not be loaded
  std::string_view target_version;    ///< the image's version; compared for equality only
  const ProgressCallback& progress;   ///< called on the run's thread
  /// Receives the version that the QM5 reports, before the first call of `progress`. Unchanged when
  /// no QM5 is attached; empty when the version can't be read.
  std::string& version;
  bool only_check = false;  ///< ends the run where the update would begin
};

/// Why the computer is to stay awake during a run, as the desktop may show it.
inline constexpr std::string_view kActivityReason = "The firmware of a QM5 is being updated.";

/// How many chunks an update with that image writes.
std::size_t chunksOf(const std::optional<Bytes>& image);

/// Carries out one run and returns how it ended. Blocks for as long as that takes; update job only.
/// Can be called again after any outcome.
Outcome runUpdate(const UpdateRun& run);

/// The title and the message of what the user gets.
struct OutcomeText {
  std::string title;
  std::string message;
};

/// The texts for an outcome. `version` is what the QM5 reported, `target_version` the image's. Any
/// thread.
OutcomeText textOf(Outcome outcome, std::string_view version, std::string_view target_version);

/// Whether the outcome is reported through the main queue. Only a missing image is reported
/// directly from the job's thread. Intended.
constexpr bool passesThroughMainQueue(Outcome outcome) {
  return outcome != Outcome::noImage;
}

}  // namespace qm5
