#include "update_run/update_run.h"

#include "device_link/customer_version.h"
#include "platform/clock.h"
#include "platform/system_log.h"
#include "update_engine/image_layout.h"
#include "update_engine/secure_flow.h"
#include "update_engine/unsecure_flow.h"

namespace qm5 {
namespace {

// Lets the progress window appear, and the monitor find a QM5 that has just been plugged in.
constexpr double kStartDelay = 1.0;  // seconds

constexpr std::string_view kSignaturePadding = "pss";
constexpr bool kAutoReboot = false;  // the update engine ignores it

constexpr std::string_view kCheckConnection =
    "There is no QM5 connected!\nCheck your QM5 connection then try again.";

}  // namespace

Outcome runUpdate(const UpdateRun& run) {
  processClock().sleep(kStartDelay);
  log("check if device exist.");
  if (!run.link.usb_find()) {
    log("str_NO_DMC");
    return Outcome::noDevice;
  }
  const std::optional<std::string> version = read_customer_version();
  run.version = version.value_or("");
  if (!version) {
    log("Get customer version error.");
    return Outcome::noVersion;
  }
  log("Device found. Out customer version: " + run.version);
  if (run.version == run.target_version) return Outcome::upToDate;
  if (run.only_check) return Outcome::updateDue;
  if (!run.image) return Outcome::noImage;
  const bool updated =
      secure_update_binary(run.link, *run.image, run.progress, kSignaturePadding, kAutoReboot);
  return updated ? Outcome::updated : Outcome::updateFailed;
}

std::size_t chunksOf(const std::optional<Bytes>& image) {
  if (!image || image->size() < kPayloadStart) return 0;
  return chunk_count(ByteView(*image).subspan(kPayloadStart));
}

OutcomeText textOf(Outcome outcome, std::string_view version, std::string_view target_version) {
  switch (outcome) {
    case Outcome::noDevice:
      return {"No QM5 device !", std::string(kCheckConnection)};
    case Outcome::noVersion:
      return {"Get customer version error !", std::string(kCheckConnection)};
    case Outcome::upToDate:
      return {"QM5 no need to update !",
              "Current QM5 version: " + std::string(version) + "\nNo need to update."};
    case Outcome::noImage:
      return {"QM5 firmware update data error!",
              "Attached binary file data error.\nPlease download this program and try again."};
    case Outcome::updateFailed:
      return {"Flash firmware error", "Flash ti dmc firmware error, please try again."};
    case Outcome::updateDue:
      return {"QM5 needs an update !", std::string("Current QM5 version: ")
                                           .append(version)
                                           .append("\nAn update to version ")
                                           .append(target_version)
                                           .append(" would be written.")};
    case Outcome::updated:
      break;
  }
  return {"Firmware update successful!",
          std::string("New version(QM5 v.")
              .append(target_version)
              .append(")\nPlease power cycle your QM5 to apply\nthe new firmware.")};
}

}  // namespace qm5
