#include "simulator/device/protocol_checker.h"

#include <algorithm>
#include <utility>

namespace qm5 {
namespace {

/// How the host handles a task: the bytes of its reply, the length byte included, and the polls
/// after which it stops waiting for the end.
struct TaskRules {
  std::size_t reply_bytes;
  std::size_t polls;
};
constexpr std::size_t kLongestReply = 11;

TaskRules rulesOf(std::string_view task) {
  if (task == "SFWi") return {7, 15};
  if (task == "SFWd") return {2, 15};
  return {kLongestReply, 300};
}

bool isSame(const ControlSetup& left, const ControlSetup& right) {
  return left.wValue == right.wValue && left.wIndex == right.wIndex &&
         left.wLength == right.wLength;
}

/// An empty block is one that nothing is known of.
bool mayStartWith(const Bytes& block, const Bytes& start) {
  return block.empty() || std::equal(start.begin(), start.end(), block.begin());
}

}  // namespace

void ProtocolChecker::observe(const ControlSetup& setup, ByteView sent,
                              const ControlResult& answer) {
  if (setup.bmRequestType == kVendorRead && setup.bRequest == kRegisterRead) {
    observeRead(setup, answer);
  } else if (setup.bmRequestType == kVendorWrite && setup.bRequest == kRegisterWrite) {
    observeWrite(setup, sent, answer.status != ControlStatus::ok);
  } else {
    std::string breach = "unknown request 0x";
    addBreach(breach.append(upperHexByte(setup.bmRequestType))
                  .append("/0x")
                  .append(upperHexByte(setup.bRequest)));
  }
}

void ProtocolChecker::powerCycled() {
  interrupted_ = stage_ != Stage::closed;
  if (task_) task_->under_way = false;
  if (open_write_) open_write_->disturbed = true;
  if (input_) input_->disturbed = true;
}

void ProtocolChecker::addDeviation(std::string deviation) {
  const auto known = std::find(deviations_.begin(), deviations_.end(), deviation);
  if (known == deviations_.end()) deviations_.push_back(std::move(deviation));
}

// Reads

void ProtocolChecker::observeRead(const ControlSetup& setup, const ControlResult& answer) {
  if (setup.wIndex != 0) return addBreach("read with an index of " + std::to_string(setup.wIndex));
  switch (setup.wValue) {
    case kVersionRegister:
      version_read_ = true;
      return limitRead(setup, kVersionBytes);
    case kCommandRegister:
      limitRead(setup, kCommandBytes + 1);
      return observePoll(answer);
    case kData3Register:
      limitRead(setup, replyBytes());
      return observeReply(answer);
    default:
      return addBreach("read of unknown " + registerName(setup.wValue));
  }
}

// While the power was off, the host may have started a task that the device never heard of. So
// after that, as before the first task, the reply may be that of any task.
std::size_t ProtocolChecker::replyBytes() const {
  return task_ && !interrupted_ ? rulesOf(task_->name).reply_bytes : kLongestReply;
}

void ProtocolChecker::limitRead(const ControlSetup& setup, std::size_t prescribed) {
  if (setup.wLength <= prescribed) return;
  std::string text = "a read of " + std::to_string(setup.wLength);
  addDeviation(text.append(" bytes of ")
                   .append(registerName(setup.wValue))
                   .append(" instead of ")
                   .append(std::to_string(prescribed)));
}

// The host takes a task as ended when the first two characters of its name are zeros, which is
// also what it sees in place of bytes that the device did not send.
void ProtocolChecker::observePoll(const ControlResult& answer) {
  if (!task_) return;
  const auto shown = [&](std::size_t at) {
    return at < answer.data.size() && answer.data[at] != 0;
  };
  const bool ended = answer.status == ControlStatus::ok && !shown(1) && !shown(2);
  if (ended || ++task_->polls >= rulesOf(task_->name).polls) task_->under_way = false;
}

void ProtocolChecker::observeReply(const ControlResult& answer) {
  // A reply that is cut short may be taken either way, so it confirms nothing.
  const bool good =
      answer.status == ControlStatus::ok && answer.data.size() >= 2 && (answer.data[1] & 0x0F) == 0;
  if (!task_ || !good) return;
  if (task_->name == "SFWd") confirmed_block_ = sent_block_;
  if (task_->name != "SFWs" || stage_ != Stage::secure) return;
  if (++secure_blocks_ == kSecureBytes / kBlockBytes) stage_ = Stage::closed;
}

// Register writes

void ProtocolChecker::observeWrite(const ControlSetup& setup, ByteView chunk, bool refused) {
  if (chunk.empty() || chunk.size() > kChunkLimit)
    return addBreach("a chunk of " + std::to_string(chunk.size()) + " bytes");
  const bool sent_again = isRefusedOne(setup, chunk);
  const std::size_t breaches_before = breaches_.size();
  if (!sent_again) checkChunk(setup, chunk);
  refused_.reset();
  if (refused && breaches_.size() == breaches_before) noteRefusal(setup, chunk);
  if (task_ && sent_again && setup.wValue == kCommandRegister) task_->under_way = !refused;
}

// A write was refused through no fault of the host.
void ProtocolChecker::noteRefusal(const ControlSetup& setup, ByteView chunk) {
  refused_ = SentWrite{setup, Bytes(chunk.begin(), chunk.end())};
  if (open_write_) open_write_->disturbed = true;
  if (task_ && setup.wValue == kCommandRegister) task_->under_way = false;
}

bool ProtocolChecker::isRefusedOne(const ControlSetup& setup, ByteView chunk) const {
  return refused_ && isSame(refused_->setup, setup) &&
         std::equal(chunk.begin(), chunk.end(), refused_->bytes.begin(), refused_->bytes.end());
}

void ProtocolChecker::checkChunk(const ControlSetup& setup, ByteView chunk) {
  const std::string name = registerName(setup.wValue);
  if (task_ && task_->under_way)
    return addBreach(name + " written while " + task_->name + " is busy");
  if (setup.wValue == kData3Register) input_.reset();
  if (setup.wIndex != 0) {
    if (openWrite(setup)) addChunk(chunk);
    return;
  }
  if (open_write_ && open_write_->address == setup.wValue) return addChunk(chunk);
  if (!interrupted_) addBreach("a chunk for " + name + " without a total before it");
}

// Returns whether a write has been opened.
bool ProtocolChecker::openWrite(const ControlSetup& setup) {
  const bool data = setup.wValue == kData3Register;
  const std::string name = registerName(setup.wValue);
  if (!data && setup.wValue != kCommandRegister) {
    addBreach("write to unknown " + name);
    return false;
  }
  const std::optional<RegisterWrite> given_up = std::exchange(open_write_, std::nullopt);
  if (data ? setup.wIndex > kDataRegisterBytes : setup.wIndex != kCommandBytes) {
    addBreach("a total of " + std::to_string(setup.wIndex) + " bytes for " + name);
    return false;
  }
  if (given_up) checkGivenUp(*given_up, data);
  open_write_ = RegisterWrite{setup.wValue, setup.wIndex, {}, false};
  return true;
}

// A write was not finished before the next one.
void ProtocolChecker::checkGivenUp(const RegisterWrite& write, bool for_data) {
  if (!write.disturbed) {
    addBreach(for_data ? "a new total while a write is unfinished"
                       : "a command before its data is complete");
  } else if (!for_data) {
    input_ = Input{write.bytes, true};
  }
}

void ProtocolChecker::addChunk(ByteView chunk) {
  RegisterWrite& write = *open_write_;
  const std::size_t missing = write.total - write.bytes.size();
  const std::size_t fits = std::min(missing, kChunkLimit);
  if (chunk.size() < fits && !write.disturbed) {
    std::string text = "a chunk of " + std::to_string(chunk.size());
    addDeviation(text.append(" bytes where ").append(std::to_string(fits)).append(" fit"));
  }
  write.bytes.insert(write.bytes.end(), chunk.begin(), chunk.end());
  if (chunk.size() < missing) return;
  if (chunk.size() == missing) return finishWrite();
  if (!write.disturbed)
    addBreach("more bytes than the announced total of " + std::to_string(write.total));
  open_write_.reset();
}

void ProtocolChecker::finishWrite() {
  RegisterWrite write = *std::exchange(open_write_, std::nullopt);
  if (write.address == kData3Register) {
    input_ = Input{std::move(write.bytes), false};
  } else {
    checkTask(std::string(write.bytes.begin(), write.bytes.end()));
  }
}

// Tasks

void ProtocolChecker::checkTask(const std::string& name) {
  const std::optional<Input> input = std::exchange(input_, std::nullopt);
  if (!isTask(name)) return addBreach("unknown command " + name);
  task_ = Task{name};
  if (name == "SFWi") return checkOpening(input);
  if (interrupted_) return;
  if (name == "SFWd") return checkBlock(input);
  checkSecureBlock(input);
}

void ProtocolChecker::checkOpening(const std::optional<Input>& input) {
  if (!version_read_) addDeviation("SFWi without a read of the version before it");
  if (input && !input->disturbed) addDeviation("a block of data before SFWi");
  stage_ = Stage::payload;
  interrupted_ = false;
  secure_blocks_ = 0;
  confirmed_block_.assign(kBlockBytes, kErased);
  sent_block_ = confirmed_block_;
}

void ProtocolChecker::checkBlock(const std::optional<Input>& input) {
  if (stage_ == Stage::closed) return addBreach("SFWd before SFWi");
  if (stage_ == Stage::secure) return addBreach("SFWd after SFWs");
  if (!input) return addBreach("SFWd without data");
  const Bytes& block = input->bytes;
  if (input->disturbed) {
    sent_block_.clear();
  } else if (block.size() == kRepeatBytes) {
    checkRepeat(block);
  } else if (block.size() == kBlockBytes) {
    if (block == confirmed_block_) addDeviation("SFWd sends a repeated block whole");
    sent_block_ = block;
  } else {
    addBreach("SFWd with " + std::to_string(block.size()) + " bytes");
  }
}

void ProtocolChecker::checkRepeat(const Bytes& start) {
  if (mayStartWith(confirmed_block_, start)) {
    sent_block_ = confirmed_block_;
  } else if (!mayStartWith(sent_block_, start)) {
    addBreach("SFWd repeats a block that was not the previous one");
  }
}

void ProtocolChecker::checkSecureBlock(const std::optional<Input>& input) {
  if (stage_ == Stage::closed) return addBreach("SFWs before SFWi");
  if (!input) return addBreach("SFWs without data");
  if (input->bytes.size() != kBlockBytes && !input->disturbed)
    return addBreach("SFWs with " + std::to_string(input->bytes.size()) + " bytes");
  stage_ = Stage::secure;
}

}  // namespace qm5
