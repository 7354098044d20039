// The software QM5 without faults: host-interface registers, assembly of register writes,
// firmware-update tasks, flash, and the check of the image's signature. No bus, no clock.
//
// It answers whatever is against the protocol as a careful device would: by a stall, or by the
// result code of a task. After any of it, an update that starts with SFWi works again. What the
// host did wrong, ProtocolChecker tells.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/device/control_request.h"
#include "simulator/device/register_map.h"

namespace qm5 {

/// Not thread-safe: one caller at a time.
class Qm5Model {
 public:
  struct Options {
    std::uint16_t version = 0x4201;      ///< reported until an update has taken effect
    std::uint16_t new_version = 0x4208;  ///< reported after an accepted update
    std::size_t flash_bytes = std::size_t{1024} * 1024;  ///< longest payload that is accepted
    /// Per task name: how many reads of the command register show the task as busy before it
    /// ends. A task that isn't named ends with the first read.
    std::map<std::string, std::size_t, std::less<>> busy_polls = {};
  };

  Qm5Model() : Qm5Model(Options()) {}
  explicit Qm5Model(Options options);

  /// Carries out one control request. `data` is what a write sends.
  ControlResult control(const ControlSetup& setup, ByteView data);

  /// Switches the power off and on. Whatever was under way is forgotten and the flash stays. The
  /// firmware in the flash is started, and its version reported from now on, only when the
  /// device has accepted it; otherwise the firmware that ran before goes on.
  void powerCycle();
  /// Has the task under way, or else the next one, stay busy until the next power cycle or
  /// recover().
  void hang() { hung_ = true; }
  /// Ends a hang; the task that it held is dropped.
  void recover();

  std::uint16_t version() const { return version_; }
  /// What the blocks of the last update have written so far.
  const Bytes& flash() const { return flash_; }
  /// Whether the device has accepted what the flash holds: the signature that came with it is
  /// right.
  bool signatureHolds() const { return accepted_; }

 private:
  struct RegisterWrite {
    std::uint16_t address;
    std::size_t total;
    Bytes bytes;
  };
  struct BusyTask {
    std::string name;
    Bytes input;  // empty when no data was written, or not all of it
    std::size_t polls_left;
  };
  /// The stages of one update, in their order.
  enum class Stage { closed, payload, secure };

  ControlResult readRegister(const ControlSetup& setup);
  ControlResult readVersion(std::uint16_t length) const;
  ControlResult readCommand(std::uint16_t length);
  ControlResult writeRegister(const ControlSetup& setup, ByteView chunk);
  bool openWrite(const ControlSetup& setup);
  void finishWrite(const RegisterWrite& write);
  void startTask(const Bytes& command);

  void complete(const BusyTask& task);
  void reply(ByteView elements);
  void openUpdate();
  std::uint8_t writeBlock(const Bytes& input);
  Bytes addSecureBlock(const Bytes& input);
  std::uint8_t storeSecureBlock(const Bytes& input);
  std::uint8_t verifyImage();

  Options options_;
  std::uint16_t version_;
  bool hung_ = false;
  std::optional<RegisterWrite> open_write_;
  std::optional<BusyTask> task_;
  std::array<std::uint8_t, kCommandBytes> command_shown_{};  // while no task is busy
  std::array<std::uint8_t, kDataRegisterBytes> data_register_{};
  std::optional<Bytes> input_;  // written to DATA3 and not yet consumed by a task

  Stage stage_ = Stage::closed;
  Bytes flash_;
  Bytes previous_;  // the last block that came whole
  Bytes secure_;    // signature and key, as far as they have come
  bool accepted_ = false;
};

}  // namespace qm5
