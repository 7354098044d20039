// The software QM5 with faults at chosen requests or tasks, a record of all requests, and a
// check of the host that sent them. Any thread; requests are carried out one after the other.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "simulator/device/control_request.h"
#include "simulator/device/protocol_checker.h"
#include "simulator/device/qm5_model.h"

namespace qm5 {

enum class FaultKind {
  stall,          ///< this request is refused
  stall_on,       ///< this request and all after it are refused, until the next power cycle
  result,         ///< the low nibble of the reply's result element becomes `value`
  short_reply,    ///< the reply lacks its last `value` bytes
  silent,         ///< this request is never answered
  busy_for_ever,  ///< no task ends any more, until the next power cycle
  unplug,         ///< the device leaves in the middle of this request
  replug,         ///< the device leaves and comes back a moment later
};

/// A fault happens once: at the control request of that number, or at the task of that number
/// among those of its name. A fault of a task happens at the first read of the task's reply, but
/// for busy_for_ever, which keeps the task itself from ending. Numbers count from 1.
struct Fault {
  FaultKind kind = FaultKind::stall;
  std::string task = {};  ///< empty: `number` counts requests
  std::size_t number = 1;
  std::uint8_t value = 0;
};

struct RequestRecord {
  std::chrono::steady_clock::time_point time;
  ControlSetup setup;
  Bytes data;  ///< sent, or received
  ControlStatus status;
};

class FaultyQm5 final : public ControlEndpoint {
 public:
  FaultyQm5() = default;
  explicit FaultyQm5(Qm5Model model) : model_(std::move(model)) {}

  /// Sets what is called after each request, before the host gets the answer: in the order of
  /// the requests, on their threads, one call at a time. It may wait or unplug the device, but
  /// must not make a request.
  void setObserver(std::function<void(const RequestRecord&)> observer);
  /// The fault's number counts from the first request or task of all, not from this call.
  void addFault(Fault fault);
  /// Forgets all faults, and ends those that last.
  void clearFaults();

  ControlResult control(const ControlSetup& setup, ByteView data) override;
  void powerCycle() override;

  std::vector<RequestRecord> requests() const;
  /// Empties the record. The count of requests goes on.
  void clearRequests();
  std::size_t requestCount() const;

  // The device as it is now.
  std::uint16_t version() const;
  Bytes flash() const;
  bool signatureHolds() const;

  /// What the host has done against the protocol so far, one text per occurrence. Nothing that a
  /// fault or a loss of power explains is among it.
  std::vector<std::string> breaches() const;
  /// What the host has done that the device accepts although an update does not do it; each text
  /// once.
  std::vector<std::string> deviations() const;

 private:
  ControlResult carryOut(const ControlSetup& setup, ByteView data);
  std::optional<ControlResult> answerInsteadOfModel(const std::optional<Fault>& fault);
  void spoilAnswer(const Fault& fault, Bytes& answer) const;
  std::optional<Fault> removeDueFault(const ControlSetup& setup);
  bool isDue(const Fault& fault, bool reads_reply) const;
  void noteTask(const ControlSetup& setup, ByteView data);
  std::size_t resultElement() const;

  std::mutex request_mutex_;  // held for a whole request; taken before mutex_
  std::function<void(const RequestRecord&)> observer_;
  mutable std::mutex mutex_;  // guards what follows
  Qm5Model model_;
  ProtocolChecker checker_;
  std::vector<Fault> faults_;
  bool stalls_ = false;
  std::size_t request_count_ = 0;
  std::map<std::string, std::size_t, std::less<>> task_counts_;
  std::string task_;            // the last one that was started
  bool reply_pending_ = false;  // its reply has not been read yet
  std::vector<RequestRecord> requests_;
};

}  // namespace qm5
