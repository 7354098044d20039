#include "update_run/power_cycle_check.h"

#include <utility>

#include "device_link/customer_version.h"
#include "device_link/driver.h"
#include "platform/clock.h"

namespace qm5 {
namespace {

constexpr double kSettleTime = 1.0;  // seconds in which a QM5 that came starts up

constexpr std::string_view kRepeat = " Start the updater again and repeat the update.";
constexpr std::string_view kAnotherOne =
    "The QM5 came back, but another QM5 was connected too. Connect one QM5 alone.";
constexpr std::string_view kNoThread =
    "The QM5 came back, but the computer had no thread left to ask it.";

std::optional<std::uint64_t> usedId() {
  const auto used = global_driver ? global_driver->deviceInfo() : std::nullopt;
  return used ? std::optional(used->id) : std::nullopt;
}

}  // namespace

std::shared_ptr<PowerCycleCheck> PowerCycleCheck::follow(OnMain on_main) {
  std::shared_ptr<PowerCycleCheck> check(new PowerCycleCheck(std::move(on_main)));
  // The bus reports on threads of its own, and may outlast the window.
  const auto onMain = [weak = std::weak_ptr(check), on_main = check->on_main_](auto step) {
    on_main([weak, step] {
      if (const auto kept = weak.lock()) step(*kept);
    });
  };
  NotificationCenter& center = NotificationCenter::defaultCenter();
  check->arrivals_.emplace(center.addObserver(USBDeviceExamined, [onMain](
                                                                     const Notification& posted) {
    const auto* id = objectValue<std::uint64_t>(posted, "id");
    const auto* result = objectValue<IOReturn>(posted, "result");
    const auto* location = objectValue<std::string>(posted, "location");
    // One that left while it was examined has no removal.
    if (id == nullptr || result == nullptr || *result == kIOReturnNoDevice) return;
    const Arrival arrival{*id, location != nullptr ? *location : "", *result == kIOReturnSuccess};
    onMain([arrival](PowerCycleCheck& kept) { kept.noteArrival(arrival); });
  }));
  check->removals_.emplace(
      center.addObserver(USBDeviceDisconnected, [onMain](const Notification& posted) {
        const auto* id = objectValue<std::uint64_t>(posted, "id");
        if (id == nullptr) return;
        onMain([left = *id](PowerCycleCheck& kept) { kept.noteRemoval(left); });
      }));
  return check;
}

void PowerCycleCheck::begin(Finish finish) {
  finish_ = std::move(finish);
  const DeviceState& device = finish_.device;
  location_ = device.used ? device.location : newest_location_;
  if (!device.used) return waitForReturn();
  phase_ = Phase::present;
  id_ = *device.used;
}

void PowerCycleCheck::noteArrival(const Arrival& arrival) {
  if (arrival.was_announced) newest_location_ = arrival.location;
  // The Driver may have had it before this.
  if (phase_ == Phase::present && arrival.id == id_) location_ = arrival.location;
  const bool same_port =
      location_.empty() || arrival.location.empty() || arrival.location == location_;
  // Its removal may have been reported already.
  if (phase_ != Phase::away || !same_port || gone_.contains(arrival.id)) return;
  phase_ = Phase::back;
  id_ = arrival.id;
  finish_.show(PowerCycle::awaited, "The QM5 is back. Its version is being read.");
  if (!finish_.submit([self = shared_from_this(), id = arrival.id] { self->ask(id); }))
    showWhyNotAsked(kNoThread);
}

void PowerCycleCheck::noteRemoval(std::uint64_t id) {
  gone_.insert(id);
  if (id == id_ && (phase_ == Phase::present || phase_ == Phase::back)) waitForReturn();
}

void PowerCycleCheck::waitForReturn() {
  phase_ = Phase::away;
  finish_.show(
      PowerCycle::awaited,
      "The QM5 is off, unplugged or at another USB port. Waiting for it at the port it had.");
}

// On the queue of the update jobs.
void PowerCycleCheck::ask(std::uint64_t id) {
  processClock().sleep(kSettleTime);
  // An id is never given twice: this is the QM5 that came, and it has not left since.
  const std::optional<std::uint64_t> used = usedId();
  std::optional<std::string> version;  // stays empty where it is there, but can't be opened
  if (used == id) version = read_customer_version();
  on_main_([self = shared_from_this(), id, version, has_another = used && used != id] {
    // Where it has left meanwhile, the next arrival counts.
    if (self->phase_ != Phase::back || id != self->id_) return;
    if (has_another) return self->showWhyNotAsked(kAnotherOne);
    self->showVersion(version);
  });
}

void PowerCycleCheck::showWhyNotAsked(std::string_view reason) {
  phase_ = Phase::answered;
  finish_.show(PowerCycle::unconfirmed, std::string(reason).append(kRepeat));
}

void PowerCycleCheck::showVersion(const std::optional<std::string>& version) {
  phase_ = Phase::answered;
  // These stay, so they are true even when the QM5 leaves once more.
  std::string text = "The QM5 came back and ";
  if (version == finish_.expected_version) {
    text.append("reported version ").append(*version).append(". The update is complete.");
    return finish_.show(PowerCycle::confirmed, text);
  }
  if (version) {
    text.append("still reported version ").append(*version).append(", not ");
    text.append(finish_.expected_version);
  } else {
    text.append("did not report its version");
  }
  finish_.show(PowerCycle::unconfirmed, text.append(".").append(kRepeat));
}

}  // namespace qm5
