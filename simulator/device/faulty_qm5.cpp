#include "simulator/device/faulty_qm5.h"

#include <algorithm>
#include <utility>

namespace qm5 {
namespace {

std::optional<ControlResult> resultOf(FaultKind kind) {
  switch (kind) {
    case FaultKind::stall:
    case FaultKind::stall_on:
      return ControlResult{ControlStatus::stall};
    case FaultKind::silent:
      return ControlResult{ControlStatus::pending};
    case FaultKind::unplug:
      return ControlResult{ControlStatus::gone};
    case FaultKind::replug:
      return ControlResult{ControlStatus::gone, true};
    default:
      return std::nullopt;
  }
}

}  // namespace

void FaultyQm5::setObserver(std::function<void(const RequestRecord&)> observer) {
  const std::lock_guard lock(request_mutex_);
  observer_ = std::move(observer);
}

void FaultyQm5::addFault(Fault fault) {
  const std::lock_guard lock(mutex_);
  faults_.push_back(std::move(fault));
}

void FaultyQm5::clearFaults() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
  stalls_ = false;
  model_.recover();
}

ControlResult FaultyQm5::control(const ControlSetup& setup, ByteView data) {
  const std::lock_guard request_lock(request_mutex_);
  ControlResult result;
  RequestRecord record{std::chrono::steady_clock::now(), setup, {}, ControlStatus::ok};
  {
    const std::lock_guard lock(mutex_);
    ++request_count_;
    result = carryOut(setup, data);
    checker_.observe(setup, data, result);
    record.data = isRead(setup) ? result.data : Bytes(data.begin(), data.end());
    record.status = result.status;
    requests_.push_back(record);
  }
  if (observer_) observer_(record);
  return result;
}

ControlResult FaultyQm5::carryOut(const ControlSetup& setup, ByteView data) {
  const std::optional<Fault> fault = removeDueFault(setup);
  if (std::optional<ControlResult> answer = answerInsteadOfModel(fault)) return *answer;
  if (fault && fault->kind == FaultKind::busy_for_ever) model_.hang();
  ControlResult result = model_.control(setup, data);
  if (result.status == ControlStatus::ok) noteTask(setup, data);
  if (fault) spoilAnswer(*fault, result.data);
  return result;
}

std::optional<ControlResult> FaultyQm5::answerInsteadOfModel(const std::optional<Fault>& fault) {
  if (fault && fault->kind == FaultKind::stall_on) stalls_ = true;
  if (stalls_) return resultOf(FaultKind::stall);
  return fault ? resultOf(fault->kind) : std::nullopt;
}

void FaultyQm5::spoilAnswer(const Fault& fault, Bytes& answer) const {
  if (fault.kind == FaultKind::short_reply)
    answer.resize(answer.size() - std::min<std::size_t>(fault.value, answer.size()));
  if (fault.kind != FaultKind::result || answer.size() <= resultElement()) return;
  std::uint8_t& element = answer[resultElement()];
  element = static_cast<std::uint8_t>((element & 0xF0) | (fault.value & 0x0F));
}

std::optional<Fault> FaultyQm5::removeDueFault(const ControlSetup& setup) {
  const bool reads_reply =
      isRead(setup) && setup.wValue == kData3Register && std::exchange(reply_pending_, false);
  const auto due = std::find_if(faults_.begin(), faults_.end(),
                                [&](const Fault& fault) { return isDue(fault, reads_reply); });
  if (due == faults_.end()) return std::nullopt;
  Fault fault = std::move(*due);
  faults_.erase(due);
  return fault;
}

bool FaultyQm5::isDue(const Fault& fault, bool reads_reply) const {
  if (fault.task.empty()) return fault.number == request_count_;
  if (fault.kind == FaultKind::busy_for_ever) return false;  // noteTask() applies it
  return reads_reply && fault.task == task_ && fault.number == task_counts_.at(task_);
}

void FaultyQm5::noteTask(const ControlSetup& setup, ByteView data) {
  if (isRead(setup) || setup.wValue != kCommandRegister) return;
  task_.assign(data.begin(), data.end());
  reply_pending_ = true;
  const std::size_t number = ++task_counts_[task_];
  const auto held = std::erase_if(faults_, [&](const Fault& fault) {
    return fault.kind == FaultKind::busy_for_ever && fault.task == task_ && fault.number == number;
  });
  if (held > 0) model_.hang();
}

// Where the host looks for the result: for SFWi in the length byte, for the other tasks in the
// first byte of the register.
std::size_t FaultyQm5::resultElement() const {
  return task_ == "SFWi" ? 0 : 1;
}

void FaultyQm5::powerCycle() {
  const std::lock_guard lock(mutex_);
  stalls_ = false;
  reply_pending_ = false;
  model_.powerCycle();
  checker_.powerCycled();
}

void FaultyQm5::clearRequests() {
  const std::lock_guard lock(mutex_);
  requests_.clear();
}

std::vector<RequestRecord> FaultyQm5::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t FaultyQm5::requestCount() const {
  const std::lock_guard lock(mutex_);
  return request_count_;
}

std::uint16_t FaultyQm5::version() const {
  const std::lock_guard lock(mutex_);
  return model_.version();
}

Bytes FaultyQm5::flash() const {
  const std::lock_guard lock(mutex_);
  return model_.flash();
}

bool FaultyQm5::signatureHolds() const {
  const std::lock_guard lock(mutex_);
  return model_.signatureHolds();
}

std::vector<std::string> FaultyQm5::breaches() const {
  const std::lock_guard lock(mutex_);
  return checker_.breaches();
}

std::vector<std::string> FaultyQm5::deviations() const {
  const std::lock_guard lock(mutex_);
  return checker_.deviations();
}

}  // namespace qm5
