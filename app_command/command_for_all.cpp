#include "app_command/command_for_all.h"

#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "app_command/hang_up.h"
#include "update_run/target_version.h"

namespace qm5 {
namespace {

// In which those that are connected together come, one after the other.
constexpr std::chrono::seconds kGatherTime{1};

}  // namespace

CommandForAll::CommandForAll(CommandOptions options, Report& report, int bus_claim)
    : options_(std::move(options)),
      report_(report),
      shared_{.options = options_,
              .bus_claim = bus_claim,
              .report = report_,
              .changed = [this] { main_queue_.async([this] { processChanged(); }); }},
      ports_([this] { main_queue_.async([this] { deviceArrived(); }); }) {
  timer_.setSingleShot(true);
  QObject::connect(&timer_, &QTimer::timeout, [this] { startProcesses(); });
}

void CommandForAll::start() {
  main_queue_.async([this] {
    if (!options_.wait) return timer_.start(kGatherTime);
    report_.note({}, "Waiting for a QM5.");
    if (!std::isinf(*options_.wait))
      end_of_wait_.setRemainingTime(std::chrono::milliseconds(std::llround(*options_.wait * 1000)));
    ports_.locations().empty() ? wait() : deviceArrived();
  });
}

void CommandForAll::wait() {
  if (!end_of_wait_.isForever()) timer_.start(static_cast<int>(end_of_wait_.remainingTime()));
}

void CommandForAll::deviceArrived() {
  if (processes_.empty()) timer_.start(kGatherTime);
}

void CommandForAll::startProcesses() {
  const std::vector<std::string> devices = ports_.locations();
  if (devices.empty() && options_.wait && !end_of_wait_.hasExpired()) return wait();
  if (devices.empty()) {
    const std::lock_guard lock(mutex_);
    return QCoreApplication::exit(concludeLocked(noDeviceVerdict()));
  }
  holdHangUps();
  {
    const std::lock_guard lock(mutex_);
    for (const std::string& each : devices)
      processes_.push_back(std::make_unique<DeviceProcess>(each, shared_));
  }
  for (const auto& each : processes_) each->start();
}

void CommandForAll::processChanged() {
  if (isUpdating()) return;
  prompt_.withdraw(report_);
  const auto has_ended = [](const auto& each) { return each->status().has_value(); };
  if (std::all_of(processes_.begin(), processes_.end(), has_ended))
    return QCoreApplication::exit(endAtOnce());
  releaseHangUps();
}

void CommandForAll::requestEnd(std::function<void()> declined) {
  main_queue_.async([this, declined = std::move(declined)] { handleEndRequest(declined); });
}

void CommandForAll::handleEndRequest(const std::function<void()>& declined) {
  const bool is_asked = isUpdating() && prompt_.ask(report_, [this, declined](bool quit) {
    quit ? QCoreApplication::exit(endAtOnce()) : declined();
  });
  if (is_asked) return;
  if (processes_.empty()) return QCoreApplication::exit(endAtOnce());
  for (const auto& each : processes_) each->requestEnd();
}

bool CommandForAll::isUpdating() const {
  return std::any_of(processes_.begin(), processes_.end(),
                     [](const auto& each) { return each->isUpdating(); });
}

int CommandForAll::endAtOnce() {
  const std::lock_guard lock(mutex_);
  report_.answered();  // as nobody will answer any more
  if (processes_.empty()) return concludeLocked(endedVerdict(false));
  ExitStatus status = ExitStatus::upToDate;
  for (const auto& each : processes_) {
    each->endAtOnce();
    status = graver(status, each->status().value_or(ExitStatus::failed));
  }
  return static_cast<int>(status);
}

// Without any process. Called with the mutex held.
int CommandForAll::concludeLocked(const Verdict& verdict) {
  if (!status_) {
    status_ = verdict.status;
    report_.ended({.target_version = options_.target.value_or(std::string(kTargetVersion))},
                  verdict);
  }
  return static_cast<int>(*status_);
}

}  // namespace qm5
