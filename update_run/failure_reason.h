// Why a run failed, in a sentence, as far as the host knows.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "update_run/update_run.h"

namespace qm5 {

/// What became first of the QM5 that was there when a run started, or came first during it.
enum class DeviceChange {
  none,
  left,     ///< it was disconnected; it may be back by now
  another,  ///< another one was connected while it was there
};

/// What a run leaves behind.
struct RunRecord {
  Outcome outcome = Outcome::updated;
  std::vector<std::string> lines;  ///< what the process wrote during the run
  DeviceChange device = DeviceChange::none;
};

/// The line of a run that could not be started: one with Outcome::updateFailed.
inline constexpr std::string_view kNoThreadLine =
    "The update can't run: the computer has no thread left.";

/// Runs it with its lines recorded, as runUpdate() does otherwise; where memory runs out, the run
/// has failed. Fatal while another run is recorded.
RunRecord runRecorded(const UpdateRun& run);

/// Whether the run failed for want of an image: there was none, or what there was is none. Nothing
/// was written to the QM5 then. Any thread.
bool failedByImage(const RunRecord& record);

/// A sentence that stays true after the run, without line feeds; empty for a run that did not
/// fail: Outcome::updated, Outcome::upToDate and Outcome::updateDue. It calls the image the
/// package's unless `image_file` names it. Any thread.
std::string failureReason(const RunRecord& record, std::string_view image_file = {});

}  // namespace qm5
