// A QM5 on which things go wrong on cue: the model, with faults at chosen requests or
// tasks, and a log of everything that was asked of it. Any thread; requests are carried
// out one after the other.
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

#include "simulator/control_request.h"
#include "simulator/qm5_model.h"

namespace qm5 {

enum class FaultKind {
  stall,          ///< this request is refused
  stall_on,       ///< this request and all after it, until the device is plugged in again
  result,         ///< the low nibble of the reply's result element becomes `value`
  short_reply,    ///< the reply lacks its last `value` bytes
  silent,         ///< no answer, ever
  busy_for_ever,  ///< no task ends any more, until the device is plugged in again
  unplug,         ///< the device leaves in the middle of this request
  replug,         ///< the same, and it comes back a moment later
};

/// A fault happens once: at the control request of that number, or at the task of that
/// number among those of its name. At a task means at the first read of its reply, except
/// that busy_for_ever holds the task itself. Numbers count from 1.
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

  /// Called after each request and before its result goes out, in the order of requests and
  /// never twice at a time: it may hold the request, count it, or unplug the device, but not
  /// make a request.
  void setObserver(std::function<void(const RequestRecord&)> observer);
  /// Requests and tasks are counted from the start, not from this call.
  void addFault(Fault fault);
  /// Forgets all faults, and what lasts of those that have happened.
  void clearFaults();

  ControlResult control(const ControlSetup& setup, ByteView data) override;
  void powerCycle() override;

  std::vector<RequestRecord> requests() const;
  /// Forgets them; they are counted on all the same.
  void clearRequests();
  std::size_t requestCount() const;

  // The device as it is now.
  std::uint16_t version() const;
  Bytes flash() const;
  bool signatureHolds() const;
  std::vector<std::string> breaches() const;

 private:
  ControlResult carryOut(const ControlSetup& setup, ByteView data);
  std::optional<Fault> takeFault(const ControlSetup& setup);
  bool isDue(const Fault& fault, bool reads_reply) const;
  void noteTask(const ControlSetup& setup, ByteView data);
  std::size_t resultElement() const;

  std::mutex request_mutex_;  // held for a whole request; taken before mutex_
  std::function<void(const RequestRecord&)> observer_;
  mutable std::mutex mutex_;  // guards what follows
  Qm5Model model_;
  std::vector<Fault> faults_;
  bool stalls_ = false;
  std::size_t request_count_ = 0;
  std::map<std::string, std::size_t, std::less<>> task_counts_;
  std::string task_;            // the last one that was started
  bool reply_pending_ = false;  // its reply has not been read yet
  std::vector<RequestRecord> requests_;
};

}  // namespace qm5
