// Checks what a host does against the protocol, by the requests that it sent and the answers that
// it got.
//
// The state of the device plays no part: a fault of the device's own may have changed it. After
// a refused request a host may go on as if it had been taken, send it again, or start the
// register write or the task anew.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "simulator/device/control_request.h"
#include "simulator/device/register_map.h"

namespace qm5 {

/// Not thread-safe: one caller at a time.
class ProtocolChecker {
 public:
  /// Takes in one request, in the order in which they were sent. `sent` is a write's data;
  /// `answer` is what the host got, faults included.
  void observe(const ControlSetup& setup, ByteView sent, const ControlResult& answer);
  /// The power of the device has gone and come back.
  void powerCycled();

  /// What the host did against the protocol, one text per occurrence.
  const std::vector<std::string>& breaches() const { return breaches_; }
  /// What the device accepts although an update does not do it; each text once.
  const std::vector<std::string>& deviations() const { return deviations_; }

 private:
  struct RegisterWrite {
    std::uint16_t address;
    std::size_t total;
    Bytes bytes;
    bool disturbed;  // a chunk was refused: the host may send again or give up
  };
  struct SentWrite {
    ControlSetup setup;
    Bytes bytes;
  };
  struct Input {
    Bytes bytes;
    bool disturbed;  // the device may have lost it, so it is not checked
  };
  struct Task {
    std::string name;
    bool under_way = true;  // no poll has shown its end, and the host's polls aren't used up
    std::size_t polls = 0;
  };
  /// The stages of one update, in their order.
  enum class Stage { closed, payload, secure };

  void observeRead(const ControlSetup& setup, const ControlResult& answer);
  void observePoll(const ControlResult& answer);
  void observeReply(const ControlResult& answer);
  std::size_t replyBytes() const;
  void limitRead(const ControlSetup& setup, std::size_t prescribed);

  void observeWrite(const ControlSetup& setup, ByteView chunk, bool refused);
  void noteRefusal(const ControlSetup& setup, ByteView chunk);
  bool isRefusedOne(const ControlSetup& setup, ByteView chunk) const;
  void checkChunk(const ControlSetup& setup, ByteView chunk);
  bool openWrite(const ControlSetup& setup);
  void checkGivenUp(const RegisterWrite& write, bool for_data);
  void addChunk(ByteView chunk);
  void finishWrite();

  void checkTask(const std::string& name);
  void checkOpening(const std::optional<Input>& input);
  void checkBlock(const std::optional<Input>& input);
  void checkRepeat(const Bytes& start);
  void checkSecureBlock(const std::optional<Input>& input);

  void addBreach(std::string breach) { breaches_.push_back(std::move(breach)); }
  void addDeviation(std::string deviation);

  bool version_read_ = false;
  std::optional<RegisterWrite> open_write_;
  std::optional<SentWrite> refused_;  // the last write, when the device refused it unjustly
  std::optional<Input> input_;        // written to DATA3 and not yet consumed by a task
  std::optional<Task> task_;          // the last one that was started

  Stage stage_ = Stage::closed;
  // The power went while an update may have been under way. The host can't tell that from refused
  // requests, so nothing but SFWi is checked against what came before it.
  bool interrupted_ = false;
  std::size_t secure_blocks_ = 0;  // those that the device has confirmed
  Bytes confirmed_block_;          // the last whole block that the device has confirmed
  Bytes sent_block_;               // the last whole block sent; empty when it isn't known
  std::vector<std::string> breaches_;
  std::vector<std::string> deviations_;
};

}  // namespace qm5
