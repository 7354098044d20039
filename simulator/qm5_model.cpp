#include "simulator/qm5_model.h"

#include <algorithm>
#include <utility>

#include "platform/text.h"
#include "simulator/image_signature.h"

namespace qm5 {
namespace {

constexpr std::uint8_t kVendorWrite = 0x40;  // host to device, vendor, device
constexpr std::uint8_t kVendorRead = 0xC0;   // device to host, vendor, device
constexpr std::uint8_t kRegisterWrite = 0xFD;
constexpr std::uint8_t kRegisterRead = 0xFE;

constexpr std::uint16_t kVersionRegister = 0x06;
constexpr std::uint16_t kCommandRegister = 0x1E;
constexpr std::uint16_t kData3Register = 0x1F;
constexpr std::size_t kVersionReplyBytes = 9;
constexpr std::size_t kCommandBytes = 4;
constexpr std::size_t kChunkLimit = 8;  // what the controller takes a request

constexpr std::size_t kBlock = 64;
constexpr std::size_t kRepeat = 4;  // the bytes that stand for the previous block
constexpr std::size_t kSecureRegion = 384;
constexpr std::size_t kSecureBytes = 2 * kSecureRegion;        // signature, then key
constexpr std::size_t kFlashBytes = std::size_t{1024} * 1024;  // one bank
constexpr std::uint8_t kErased = 0xFF;
constexpr std::array<std::uint8_t, 4> kUnknownCommand = {'!', 'C', 'M', 'D'};

// Result codes of the tasks.
constexpr std::uint8_t kSuccess = 0x0;
constexpr std::uint8_t kSfwiNotRunFirst = 0x6;
constexpr std::uint8_t kTooMuchData = 0x7;
constexpr std::uint8_t kUnknownError = 0xF;

constexpr std::uint8_t kMoreDataExpected = 0x80;
constexpr std::uint8_t kProductionKeyPresent = 0x02;

bool isKnown(std::string_view task) {
  return task == "SFWi" || task == "SFWd" || task == "SFWs";
}

std::string registerName(std::uint16_t address) {
  return "register 0x" + upperHex(address);
}

/// What the host gets of a register that leads with its length byte.
ControlResult registerReply(ByteView contents, std::uint16_t length) {
  Bytes reply = {static_cast<std::uint8_t>(contents.size())};
  reply.insert(reply.end(), contents.begin(), contents.end());
  reply.resize(std::min<std::size_t>(reply.size(), length));
  return {ControlStatus::ok, std::move(reply)};
}

}  // namespace

Qm5Model::Qm5Model(Options options) : options_(std::move(options)), version_(options_.version) {}

ControlResult Qm5Model::control(const ControlSetup& setup, ByteView data) {
  if (setup.bmRequestType == kVendorRead && setup.bRequest == kRegisterRead) {
    return readRegister(setup);
  }
  if (setup.bmRequestType == kVendorWrite && setup.bRequest == kRegisterWrite) {
    return writeRegister(setup, data);
  }
  return refuse("unknown request 0x" + upperHexByte(setup.bmRequestType) + "/0x" +
                upperHexByte(setup.bRequest));
}

void Qm5Model::powerCycle() {
  hung_ = false;
  task_.reset();
  open_write_.reset();
  input_.reset();
  command_shown_ = {};
  data_register_ = {};
  stage_ = Stage::closed;
  if (accepted_) version_ = options_.new_version;
}

void Qm5Model::recover() {
  if (hung_) task_.reset();
  hung_ = false;
}

ControlResult Qm5Model::refuse(std::string breach) {
  breaches_.push_back(std::move(breach));
  return {ControlStatus::stall};
}

// Registers

ControlResult Qm5Model::readRegister(const ControlSetup& setup) {
  if (setup.wIndex != 0) return refuse("read with an index of " + std::to_string(setup.wIndex));
  switch (setup.wValue) {
    case kVersionRegister: {
      // The one register without a length byte.
      Bytes reply(kVersionReplyBytes);
      reply[0] = static_cast<std::uint8_t>(version_ & 0xFF);
      reply[1] = static_cast<std::uint8_t>(version_ >> 8);
      reply.resize(std::min<std::size_t>(reply.size(), setup.wLength));
      return {ControlStatus::ok, std::move(reply)};
    }
    case kCommandRegister:
      return readCommand(setup.wLength);
    case kData3Register:
      return registerReply(data_register_, setup.wLength);
    default:
      return refuse("read of unknown " + registerName(setup.wValue));
  }
}

// A task ends with the poll that sees it end, so that a host that does not wait for it is
// found out whatever the speed of the bus.
ControlResult Qm5Model::readCommand(std::uint16_t length) {
  if (task_ && (hung_ || task_->polls_left > 0)) {
    if (!hung_) --task_->polls_left;
    return registerReply(Bytes(task_->name.begin(), task_->name.end()), length);
  }
  if (task_) complete(*std::exchange(task_, std::nullopt));
  return registerReply(command_shown_, length);
}

ControlResult Qm5Model::writeRegister(const ControlSetup& setup, ByteView chunk) {
  if (chunk.empty() || chunk.size() > kChunkLimit) {
    return refuse("a chunk of " + std::to_string(chunk.size()) + " bytes");
  }
  if (task_)
    return refuse(registerName(setup.wValue) + " written while " + task_->name + " is busy");
  // Whatever comes of this write, the one before it is no longer what a task may consume.
  if (setup.wValue == kData3Register) input_.reset();
  if (setup.wIndex == 0 && (!open_write_ || open_write_->address != setup.wValue)) {
    return refuse("a chunk for " + registerName(setup.wValue) + " without a total before it");
  }
  if (setup.wIndex != 0) {
    ControlResult opened = openWrite(setup);
    if (opened.status != ControlStatus::ok) return opened;
  }
  open_write_->bytes.insert(open_write_->bytes.end(), chunk.begin(), chunk.end());
  if (open_write_->bytes.size() > open_write_->total) {
    const std::string announced = std::to_string(open_write_->total);
    open_write_.reset();
    return refuse("more bytes than the announced total of " + announced);
  }
  return open_write_->bytes.size() == open_write_->total ? finishWrite() : ControlResult{};
}

ControlResult Qm5Model::openWrite(const ControlSetup& setup) {
  const bool data = setup.wValue == kData3Register;
  if (!data && setup.wValue != kCommandRegister) {
    return refuse("write to unknown " + registerName(setup.wValue));
  }
  if (data ? setup.wIndex > kDataRegisterBytes : setup.wIndex != kCommandBytes) {
    open_write_.reset();
    return refuse("a total of " + std::to_string(setup.wIndex) + " bytes for " +
                  registerName(setup.wValue));
  }
  // The host has given the unfinished write up. A command goes on without its data and
  // fails; anything else starts over.
  if (open_write_ && !data) {
    breaches_.push_back("a command before its data is complete");
  } else if (open_write_) {
    breaches_.push_back("a new total while a write is unfinished");
  }
  open_write_ = RegisterWrite{setup.wValue, setup.wIndex, {}};
  return {};
}

ControlResult Qm5Model::finishWrite() {
  const RegisterWrite write = *std::exchange(open_write_, std::nullopt);
  if (write.address == kCommandRegister) return startTask(write.bytes);
  data_register_ = {};
  std::copy(write.bytes.begin(), write.bytes.end(), data_register_.begin());
  input_ = write.bytes;
  return {};
}

ControlResult Qm5Model::startTask(const Bytes& command) {
  const std::string name(command.begin(), command.end());
  const std::optional<Bytes> input = std::exchange(input_, std::nullopt);
  if (!isKnown(name)) {
    breaches_.push_back("unknown command " + name);
    command_shown_ = kUnknownCommand;
    return {};
  }
  command_shown_ = {};
  const auto polls = options_.busy_polls.find(name);
  task_ = BusyTask{name, input.value_or(Bytes()), input.has_value(),
                   polls == options_.busy_polls.end() ? 0 : polls->second};
  return {};
}

// Tasks

void Qm5Model::complete(const BusyTask& task) {
  if (task.name == "SFWi") {
    openUpdate();
  } else if (task.name == "SFWd") {
    reply(Bytes{writeBlock(task)});
  } else {
    takeSecureBlock(task);
  }
}

void Qm5Model::reply(ByteView elements) {
  data_register_ = {};
  std::copy(elements.begin(), elements.end(), data_register_.begin());
}

std::uint8_t Qm5Model::failTask(std::uint8_t code, std::string breach) {
  breaches_.push_back(std::move(breach));
  return code;
}

// Always possible: it is also the way out of an update that went wrong.
void Qm5Model::openUpdate() {
  stage_ = Stage::payload;
  flash_.clear();
  previous_.assign(kBlock, kErased);
  secure_.clear();
  accepted_ = false;
  reply(Bytes{kSuccess, 0, kProductionKeyPresent});
}

std::uint8_t Qm5Model::writeBlock(const BusyTask& task) {
  if (stage_ == Stage::closed) return failTask(kSfwiNotRunFirst, "SFWd before SFWi");
  if (stage_ == Stage::secure) return failTask(kTooMuchData, "SFWd after SFWs");
  if (!task.input_complete) return failTask(kUnknownError, "SFWd without data");
  if (flash_.size() + kBlock > kFlashBytes) return kTooMuchData;
  if (task.input.size() == kRepeat) return repeatPrevious(task.input);
  if (task.input.size() != kBlock) {
    return failTask(kUnknownError, "SFWd with " + std::to_string(task.input.size()) + " bytes");
  }
  previous_ = task.input;
  flash_.insert(flash_.end(), previous_.begin(), previous_.end());
  return kSuccess;
}

std::uint8_t Qm5Model::repeatPrevious(const Bytes& start) {
  if (!std::equal(start.begin(), start.end(), previous_.begin())) {
    return failTask(kUnknownError, "SFWd repeats a block that was not the previous one");
  }
  flash_.insert(flash_.end(), previous_.begin(), previous_.end());
  return kSuccess;
}

void Qm5Model::takeSecureBlock(const BusyTask& task) {
  const auto number = static_cast<std::uint8_t>(secure_.size() / kBlock);
  reply(Bytes{judgeSecureBlock(task), number, kProductionKeyPresent});
}

std::uint8_t Qm5Model::judgeSecureBlock(const BusyTask& task) {
  if (stage_ == Stage::closed) return failTask(kSfwiNotRunFirst, "SFWs before SFWi");
  if (!task.input_complete) return failTask(kUnknownError, "SFWs without data");
  if (task.input.size() != kBlock) {
    return failTask(kUnknownError, "SFWs with " + std::to_string(task.input.size()) + " bytes");
  }
  stage_ = Stage::secure;
  secure_.insert(secure_.end(), task.input.begin(), task.input.end());
  return secure_.size() < kSecureBytes ? kMoreDataExpected : judgeImage();
}

// The update ends here either way: another attempt starts with SFWi.
std::uint8_t Qm5Model::judgeImage() {
  stage_ = Stage::closed;
  const auto key = secure_.begin() + kSecureRegion;
  accepted_ = qm5::signatureHolds(Bytes(key, secure_.end()), Bytes(secure_.begin(), key), flash_);
  return accepted_ ? kSuccess : kUnknownError;
}

}  // namespace qm5
