#include "simulator/device/qm5_model.h"

#include <algorithm>
#include <utility>

#include "firmware_image/image_signature.h"
#include "simulator/device/register_map.h"

namespace qm5 {
namespace {

// What the command register shows after a command that the device does not know.
constexpr std::array<std::uint8_t, 4> kUnknownCommand = {'!', 'C', 'M', 'D'};

// Result codes of the tasks.
constexpr std::uint8_t kSuccess = 0x0;
constexpr std::uint8_t kSfwiNotRunFirst = 0x6;
constexpr std::uint8_t kTooMuchData = 0x7;
constexpr std::uint8_t kUnknownError = 0xF;

constexpr std::uint8_t kMoreDataExpected = 0x80;
constexpr std::uint8_t kProductionKeyPresent = 0x02;

/// The answer to a read of a register whose contents follow a length byte.
ControlResult registerReply(ByteView contents, std::uint16_t length) {
  Bytes reply = {static_cast<std::uint8_t>(contents.size())};
  reply.insert(reply.end(), contents.begin(), contents.end());
  reply.resize(std::min<std::size_t>(reply.size(), length));
  return {.data = std::move(reply)};
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
  return {ControlStatus::stall};
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

// Registers

ControlResult Qm5Model::readRegister(const ControlSetup& setup) {
  if (setup.wIndex != 0) return {ControlStatus::stall};
  switch (setup.wValue) {
    case kVersionRegister:
      return readVersion(setup.wLength);
    case kCommandRegister:
      return readCommand(setup.wLength);
    case kData3Register:
      return registerReply(data_register_, setup.wLength);
    default:
      return {ControlStatus::stall};
  }
}

// The one register without a length byte.
ControlResult Qm5Model::readVersion(std::uint16_t length) const {
  Bytes reply(kVersionBytes);
  reply[0] = static_cast<std::uint8_t>(version_ & 0xFF);
  reply[1] = static_cast<std::uint8_t>(version_ >> 8);
  reply.resize(std::min<std::size_t>(reply.size(), length));
  return {.data = std::move(reply)};
}

// A task ends with the poll that sees its end. So a host that does not wait is refused at any
// speed of the bus.
ControlResult Qm5Model::readCommand(std::uint16_t length) {
  if (task_ && (hung_ || task_->polls_left > 0)) {
    if (!hung_) --task_->polls_left;
    return registerReply(Bytes(task_->name.begin(), task_->name.end()), length);
  }
  if (task_) complete(*std::exchange(task_, std::nullopt));
  return registerReply(command_shown_, length);
}

ControlResult Qm5Model::writeRegister(const ControlSetup& setup, ByteView chunk) {
  if (chunk.empty() || chunk.size() > kChunkLimit || task_) return {ControlStatus::stall};
  // Whatever comes of this write, the data before it can no longer be consumed by a task.
  if (setup.wValue == kData3Register) input_.reset();
  const bool opened =
      setup.wIndex != 0 ? openWrite(setup) : open_write_ && open_write_->address == setup.wValue;
  if (!opened) return {ControlStatus::stall};
  open_write_->bytes.insert(open_write_->bytes.end(), chunk.begin(), chunk.end());
  if (open_write_->bytes.size() < open_write_->total) return {};
  const RegisterWrite write = *std::exchange(open_write_, std::nullopt);
  if (write.bytes.size() > write.total) return {ControlStatus::stall};
  finishWrite(write);
  return {};
}

// Whether the write may be made. A write that was unfinished is given up: a command goes on
// without its data and fails, new data replaces the old.
bool Qm5Model::openWrite(const ControlSetup& setup) {
  const bool data = setup.wValue == kData3Register;
  if (!data && setup.wValue != kCommandRegister) return false;
  open_write_.reset();
  if (data ? setup.wIndex > kDataRegisterBytes : setup.wIndex != kCommandBytes) return false;
  open_write_ = RegisterWrite{setup.wValue, setup.wIndex, {}};
  return true;
}

void Qm5Model::finishWrite(const RegisterWrite& write) {
  if (write.address == kCommandRegister) return startTask(write.bytes);
  data_register_ = {};
  std::copy(write.bytes.begin(), write.bytes.end(), data_register_.begin());
  input_ = write.bytes;
}

void Qm5Model::startTask(const Bytes& command) {
  const std::string name(command.begin(), command.end());
  const std::optional<Bytes> input = std::exchange(input_, std::nullopt);
  command_shown_ = {};
  if (!isTask(name)) {
    command_shown_ = kUnknownCommand;
    return;
  }
  const auto polls = options_.busy_polls.find(name);
  task_ = BusyTask{name, input.value_or(Bytes()),
                   polls == options_.busy_polls.end() ? 0 : polls->second};
}

// Tasks

void Qm5Model::complete(const BusyTask& task) {
  if (task.name == "SFWi") {
    openUpdate();
  } else if (task.name == "SFWd") {
    reply(Bytes{writeBlock(task.input)});
  } else {
    reply(addSecureBlock(task.input));
  }
}

void Qm5Model::reply(ByteView elements) {
  data_register_ = {};
  std::copy(elements.begin(), elements.end(), data_register_.begin());
}

// Possible at any time: it is also how a host starts again after an update that went wrong.
void Qm5Model::openUpdate() {
  stage_ = Stage::payload;
  flash_.clear();
  previous_.assign(kBlockBytes, kErased);
  secure_.clear();
  accepted_ = false;
  reply(Bytes{kSuccess, 0, kProductionKeyPresent});
}

std::uint8_t Qm5Model::writeBlock(const Bytes& input) {
  if (stage_ == Stage::closed) return kSfwiNotRunFirst;
  if (stage_ == Stage::secure) return kTooMuchData;
  if (input.size() != kRepeatBytes && input.size() != kBlockBytes) return kUnknownError;
  if (flash_.size() + kBlockBytes > options_.flash_bytes) return kTooMuchData;
  if (input.size() == kBlockBytes) {
    previous_ = input;
  } else if (!std::equal(input.begin(), input.end(), previous_.begin())) {
    return kUnknownError;
  }
  flash_.insert(flash_.end(), previous_.begin(), previous_.end());
  return kSuccess;
}

// The reply of SFWs: its result, the number of the block, and the keys that the device has.
Bytes Qm5Model::addSecureBlock(const Bytes& input) {
  const auto number = static_cast<std::uint8_t>(secure_.size() / kBlockBytes);
  return {storeSecureBlock(input), number, kProductionKeyPresent};
}

std::uint8_t Qm5Model::storeSecureBlock(const Bytes& input) {
  if (stage_ == Stage::closed) return kSfwiNotRunFirst;
  if (input.size() != kBlockBytes) return kUnknownError;
  stage_ = Stage::secure;
  secure_.insert(secure_.end(), input.begin(), input.end());
  return secure_.size() < kSecureBytes ? kMoreDataExpected : verifyImage();
}

// The update ends here whatever comes of it: another attempt starts with SFWi.
std::uint8_t Qm5Model::verifyImage() {
  stage_ = Stage::closed;
  const auto key = secure_.begin() + kSecureRegionBytes;
  accepted_ = qm5::signatureHolds(Bytes(key, secure_.end()), Bytes(secure_.begin(), key), flash_);
  return accepted_ ? kSuccess : kUnknownError;
}

}  // namespace qm5
