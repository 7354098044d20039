// How the command ends: the exit status and what a person and a program are told.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "device_link/device_presence.h"
#include "update_run/failure_reason.h"

namespace qm5 {

/// The outcome of an update that has succeeded, of which the power cycle was not seen.
inline constexpr std::string_view kUnconfirmed = "unconfirmed";

enum class ExitStatus {
  upToDate = 0,
  failed = 1,
  usage = 2,
  noDevice = 3,
  notPermitted = 4,
  busInUse = 5,
  noImage = 6,
  ended = 7,
  updateDue = 10,
};

struct Verdict {
  std::string outcome;  ///< as docs/qm5-update.schema.json lists them
  ExitStatus status;
  std::vector<std::string> lines;  ///< for a person
};

/// What a run was about.
struct RunSubject {
  std::string_view version;         ///< what the QM5 reported
  std::string_view target_version;  ///< what the image brings
  std::string_view image_file;      ///< empty: the packaged image
  std::string_view image_error;     ///< why it could not be loaded; empty when it was
  const DeviceState& bus;           ///< after the run
  std::string_view place;           ///< the only port that counts; empty: all do
};

Verdict verdictOf(const RunRecord& record, const RunSubject& subject);

/// Why none of the QM5s on the bus can be used.
std::vector<std::string> unusableLines(const DeviceState& bus);

/// There is no QM5.
Verdict noDeviceVerdict();

/// The person has ended it; `is_cut_off`: in the middle of an update.
Verdict endedVerdict(bool is_cut_off);

/// The same when the update was done, but not confirmed yet.
Verdict endedUnconfirmedVerdict();

/// The process for the QM5 has ended without a word; `is_cut_off`: in the middle of an update.
Verdict lostProcessVerdict(bool is_cut_off);

/// What the check after the power cycle has said; `text` says which.
Verdict confirmedVerdict(std::string_view text);
Verdict unconfirmedVerdict(std::string_view text);

/// What is on the bus has been listed: that many QM5s; `place`: the only port that counts, or
/// empty.
Verdict listedVerdict(std::size_t count, const std::string& place);

/// Another process has the bus.
Verdict busInUseVerdict(const std::string& process);

/// Which of two is the exit status where several QM5s are updated at once.
ExitStatus graver(ExitStatus one, ExitStatus other);

}  // namespace qm5
