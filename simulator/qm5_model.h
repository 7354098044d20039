// The software QM5 by itself: host-interface registers, chunk assembly, firmware-update
// tasks, flash, and the judgement of the image. No bus, no clock, no threads: one caller
// at a time.
//
// It is strict. Whatever a host does against the protocol is kept as a breach, one text
// each, and answered as a careful device would: by a stall, or by a task's result code.
// After any of it, an update that starts with SFWi works again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/control_request.h"

namespace qm5 {

class Qm5Model {
 public:
  struct Options {
    std::uint16_t version = 0x4201;      ///< reported until an update has taken effect
    std::uint16_t new_version = 0x4208;  ///< reported after an accepted update
    /// How many reads of the command register still show a task before it is done, by the
    /// task's name; none when it isn't named.
    std::map<std::string, std::size_t, std::less<>> busy_polls = {};
  };

  Qm5Model() : Qm5Model(Options()) {}
  explicit Qm5Model(Options options);

  /// Carries out one control request. `data` is what a write sends.
  ControlResult control(const ControlSetup& setup, ByteView data);

  /// Takes the power away and gives it back: whatever was under way is forgotten, the flash
  /// stays, and an accepted image takes effect.
  void powerCycle();
  /// Has the task under way, or else the next one, stay busy until the next power cycle or
  /// recover().
  void hang() { hung_ = true; }
  /// Ends a hang; the task that it held is dropped.
  void recover();

  std::uint16_t version() const { return version_; }
  /// What the payload stage has written so far.
  const Bytes& flash() const { return flash_; }
  /// Whether the flash holds an image that the device has accepted.
  bool signatureHolds() const { return accepted_; }
  const std::vector<std::string>& breaches() const { return breaches_; }

 private:
  static constexpr std::size_t kDataRegisterBytes = 64;

  struct RegisterWrite {
    std::uint16_t address;
    std::size_t total;
    Bytes bytes;
  };
  struct BusyTask {
    std::string name;
    Bytes input;
    bool input_complete;
    std::size_t polls_left;
  };
  /// The stages of one update, in their order.
  enum class Stage { closed, payload, secure };

  ControlResult readRegister(const ControlSetup& setup);
  ControlResult readCommand(std::uint16_t length);
  ControlResult writeRegister(const ControlSetup& setup, ByteView chunk);
  ControlResult openWrite(const ControlSetup& setup);
  ControlResult finishWrite();
  ControlResult startTask(const Bytes& command);
  ControlResult refuse(std::string breach);

  void complete(const BusyTask& task);
  void reply(ByteView elements);
  std::uint8_t failTask(std::uint8_t code, std::string breach);
  void openUpdate();
  std::uint8_t writeBlock(const BusyTask& task);
  std::uint8_t repeatPrevious(const Bytes& start);
  void takeSecureBlock(const BusyTask& task);
  std::uint8_t judgeSecureBlock(const BusyTask& task);
  std::uint8_t judgeImage();

  Options options_;
  std::uint16_t version_;
  bool hung_ = false;
  std::optional<RegisterWrite> open_write_;
  std::optional<BusyTask> task_;
  std::array<std::uint8_t, 4> command_shown_{};  // zeros, or why the last one didn't run
  std::array<std::uint8_t, kDataRegisterBytes> data_register_{};
  std::optional<Bytes> input_;  // written to DATA3 and not yet consumed by a task

  Stage stage_ = Stage::closed;
  Bytes flash_;
  Bytes previous_;  // the last block that came whole
  Bytes secure_;    // signature and key, as far as they have come
  bool accepted_ = false;
  std::vector<std::string> breaches_;
};

}  // namespace qm5
