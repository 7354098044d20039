#include "update_run/failure_reason.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>

#include "platform/line_recorder.h"
#include "platform/notification_center.h"
#include "platform/system_log.h"

namespace qm5 {
namespace {

/// What a line of the update engine says of a failure: the update itself returns only true or
/// false. In `reason`, # stands for the rest of the line, and @ for the region that was sent.
struct KnownLine {
  std::string_view beginning;
  std::string_view reason;
};

// "SFWi returned" stands for a failure of "SFWi", whose own line leaves out most codes.
constexpr std::string_view kNoMemory = "not enough memory";
constexpr std::array kKnownLines = {
    KnownLine{kNoMemory, "The computer has not enough memory for the update."},
    KnownLine{kNoThreadLine, "The computer had no thread left for the update."},
    KnownLine{"Invalid binary file. Binary file length:",
              "The firmware file of this package is no image, as it has only # bytes; "
              "nothing was written to the QM5."},
    KnownLine{"Invalid binary header.",
              "The firmware file of this package is no image, as it begins like none; "
              "nothing was written to the QM5."},
    KnownLine{"SFWi failed. Returned None", "The QM5 gave no reply when the update was opened."},
    KnownLine{"SFWi returned: ", "The QM5 refused to open the update, with code #."},
    KnownLine{"SFWd Failed with task_result: no result",
              "The QM5 gave no reply to a block of the @."},
    KnownLine{"SFWd Failed with task_result: ", "The QM5 refused a block of the @ with code #."},
    KnownLine{"sfws_return during sending signature is None",
              "The QM5 gave no reply to a block of the @."},
    KnownLine{"SFWs signature sending failed: ", "The QM5 refused a block of the @ with code #."},
};

/// The lines with which the update engine begins to send a region.
struct Region {
  std::string_view first_line;
  std::string_view name;
};
constexpr std::array kRegions = {
    Region{"Initiating SFWs completion, sending signature", "public key"},
    Region{"Sending SFWs chunk_number=0", "signature"},
    Region{"Writing SFWd chunk 0", "firmware"},
};

constexpr std::string_view kPackagedImage = "The firmware file of this package ";
constexpr std::string_view kDevice = "The QM5 ";
constexpr std::string_view kDeviceThatLeft = "The QM5 was disconnected during the update; it ";
constexpr std::string_view kAnotherDevice = "Another QM5 was connected during the update. ";

std::string_view regionOf(const std::vector<std::string>& lines) {
  for (const auto& [first_line, name] : kRegions) {
    if (std::find(lines.rbegin(), lines.rend(), first_line) != lines.rend()) return name;
  }
  return "firmware";  // so many blocks that its first line has been left out
}

void replace(std::string& text, char mark, std::string_view by) {
  if (const std::size_t at = text.find(mark); at != text.npos) text.replace(at, 1, by);
}

// The last line that is known counts: an update ends with the line of its failure.
std::string reasonInLines(const std::vector<std::string>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    for (const auto& [beginning, reason] : kKnownLines) {
      if (!line->starts_with(beginning)) continue;
      std::string text(reason);
      replace(text, '@', regionOf(lines));
      replace(text, '#', std::string_view(*line).substr(beginning.size()));
      return text;
    }
  }
  return "The update did not succeed.";
}

std::string reasonOf(const RunRecord& record) {
  switch (record.outcome) {
    case Outcome::noDevice:
      return "The updater found no QM5 that it could use.";
    case Outcome::noVersion:
      return "The QM5 did not report its version.";
    case Outcome::noImage:
      return "The firmware file of this package is missing or could not be read; "
             "nothing was written to the QM5.";
    case Outcome::updateFailed:
      return reasonInLines(record.lines);
    case Outcome::upToDate:
    case Outcome::updateDue:
    case Outcome::updated:
      break;
  }
  return {};
}

/// Follows the bus for as long as a run lasts. The ids at its start and end would not do: when
/// they differ, the first QM5 need not have left.
class DeviceOfRun {
 public:
  // The Driver hears of each change first: what it has not heard of yet comes here later.
  explicit DeviceOfRun(const Driver& link)
      : connected_(NotificationCenter::defaultCenter().addObserver(
            USBDeviceConnected,
            [this](const Notification& posted) {
              if (const auto* device = objectValue<USBDevice>(posted, "device"))
                noteArrival(device->id);
            })),
        disconnected_(NotificationCenter::defaultCenter().addObserver(
            USBDeviceDisconnected, [this](const Notification& posted) {
              if (const auto* id = objectValue<std::uint64_t>(posted, "id")) noteRemoval(*id);
            })) {
    const std::lock_guard lock(mutex_);
    const std::optional<USBDevice> device = link.deviceInfo();
    if (device && !id_) id_ = device->id;
  }

  DeviceChange change() const {
    const std::lock_guard lock(mutex_);
    return change_;
  }

 private:
  void noteArrival(std::uint64_t id) {
    const std::lock_guard lock(mutex_);
    if (!id_) id_ = id;
    if (id != id_ && change_ == DeviceChange::none) change_ = DeviceChange::another;
  }
  void noteRemoval(std::uint64_t id) {
    const std::lock_guard lock(mutex_);
    if (id == id_ && change_ == DeviceChange::none) change_ = DeviceChange::left;
  }

  mutable std::mutex mutex_;         // guards what follows
  std::optional<std::uint64_t> id_;  // empty: none has been there yet
  DeviceChange change_ = DeviceChange::none;
  const NotificationCenter::Registration connected_;
  const NotificationCenter::Registration disconnected_;
};

// A run that gets no memory half-way ends like one that the QM5 refuses: the next one may get it.
Outcome runUntilMemoryIsOut(const UpdateRun& run) try {
  return runUpdate(run);
} catch (const std::bad_alloc&) {
  log(kNoMemory);
  return Outcome::updateFailed;
}

}  // namespace

RunRecord runRecorded(const UpdateRun& run) {
  const LineRecorder recorder;
  const DeviceOfRun device(run.link);
  const Outcome outcome = runUntilMemoryIsOut(run);
  return {outcome, recorder.lines(), device.change()};
}

bool failedByImage(const RunRecord& record) {
  return reasonOf(record).starts_with(kPackagedImage);
}

std::string failureReason(const RunRecord& record, std::string_view image_file) {
  std::string reason = reasonOf(record);
  if (reason.starts_with(kPackagedImage) && !image_file.empty())
    reason.replace(0, kPackagedImage.size() - 1, image_file);
  if (!reason.starts_with(kDevice)) return reason;
  if (record.device == DeviceChange::left) reason.replace(0, kDevice.size(), kDeviceThatLeft);
  if (record.device == DeviceChange::another) reason.insert(0, kAnotherDevice);
  return reason;
}

}  // namespace qm5
