// What a QM5 says to the host in an update of the small image, request by request, and what the
// person must be told of it. Nothing here knows what the host makes of it.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/device/faulty_qm5.h"
#include "simulator/device/register_map.h"
#include "support/whole_app.h"
#include "update_engine/result_codes.h"

namespace qm5::test {

inline const std::string kFinish = "Firmware update successful!";
inline constexpr std::size_t kPayloadBlocks = 4;
inline constexpr std::size_t kBlocks = 16;  // with those of the signature and the key

class Conversation {
 public:
  using Reply = std::optional<unsigned int>;  ///< its result; none: there was no reply
  enum class Stage { looking, opening, payload, secure, sent, failed };

  void note(const RequestRecord& record) {
    const auto& [time, setup, data, status] = record;
    const bool is_ok = status == ControlStatus::ok;
    has_left = has_left || status == ControlStatus::gone || status == ControlStatus::pending;
    const auto byte = [&bytes = record.data](std::size_t i) {
      return i < bytes.size() ? bytes[i] : 0u;
    };
    if (isRead(setup) && setup.wValue == kVersionRegister && ++version_reads == 1 && is_ok) {
      stage = Stage::opening;
      for (const unsigned int digit : {byte(1) >> 4, byte(1) & 15u, byte(0) >> 4, byte(0) & 15u})
        version += "0123456789ABCDEF"[digit];
    }
    // What decides of a reply: the low half of one byte, 0 where the reply is too short.
    if (isRead(setup) && setup.wValue == kData3Register)
      reply(is_ok ? Reply(byte(setup.wLength == 7 ? 0 : 1) & 15u) : Reply());
  }
  /// What the person must be told. `is_gone`: there is no device any more, so that the host may
  /// have asked it in vain.
  Outcome outcome(bool is_gone) const {
    const bool ended = stage == Stage::sent || stage == Stage::failed || stage == Stage::looking;
    if (unasked_ > 0 || (!ended && !is_gone)) return {"not as these replies want it", "", ""};
    if (stage == Stage::sent) return {kFinish, "", ""};
    if (stage == Stage::looking)
      return {"Get customer version error !", "", qm5() + "did not report its version."};
    return failure(ended ? refusal_ : Reply());
  }

  Stage stage = Stage::looking;
  std::size_t taken = 0;  ///< blocks that it has taken, by what it said
  std::size_t version_reads = 0;
  std::string version;    ///< that it reported first
  bool has_left = false;  ///< in the middle of a request

 private:
  /// How the update ends at a task: with a reply that isn't 0, or with none. % is the code as
  /// the line shows it, # its number, @ the region of the image.
  struct Rule {
    std::string_view task;
    bool replied;
    const char* lines;
    const char* reason;
  };
  static constexpr Rule kRules[] = {
      {"SFWi", false, "SFWi failed. Returned None;Flash failed.;",
       "gave no reply when the update was opened."},
      {"SFWi", true, "SFWi Failed with task_result: %;Flash failed.;",
       "refused to open the update, with code #."},
      {"SFWd", false, "SFWd Failed with task_result: no result;Flash failed.;",
       "gave no reply to a block of the @."},
      {"SFWd", true, "SFWd Failed with task_result: %;Flash failed.;",
       "refused a block of the @ with code %."},
      {"SFWs", false, "sfws_return during sending signature is None;",
       "gave no reply to a block of the @."},
      {"SFWs", true, "SFWs signature sending failed: #;", "refused a block of the @ with code #."},
  };

  void reply(Reply result) {
    const bool is_asked = stage == Stage::opening || isWriting();
    if (!is_asked) {
      ++unasked_;
    } else if (result == 0u) {
      if (isWriting()) ++taken;
      has_refused_ = false;
      stage = taken < kPayloadBlocks ? Stage::payload
              : taken < kBlocks      ? Stage::secure
                                     : Stage::sent;
      if (stage != Stage::sent) task_ = stage == Stage::payload ? "SFWd" : "SFWs";
    } else if (stage != Stage::payload || std::exchange(has_refused_, true)) {  // tried once more
      stage = Stage::failed;
      refusal_ = result;
    }
  }
  bool isWriting() const { return stage == Stage::payload || stage == Stage::secure; }

  Outcome failure(Reply result) const {
    const std::string number = std::string("0x") + "0123456789ABCDEF"[result.value_or(0)];
    const std::string region = taken < kPayloadBlocks ? "firmware"
                               : taken < 10           ? "signature"
                                                      : "public key";
    const auto filled = [&](std::string text) {
      for (const auto& [mark, by] : std::map<char, std::string>{
               {'%', codeInLine(result.value_or(0), number)}, {'#', number}, {'@', region}})
        if (const auto at = text.find(mark); at != text.npos) text.replace(at, 1, by);
      return text;
    };
    const auto& rule = *std::find_if(std::begin(kRules), std::end(kRules), [&](const Rule& known) {
      return known.task == task_ && known.replied == result.has_value();
    });
    return {"Flash firmware error", filled(rule.lines), qm5() + filled(rule.reason)};
  }
  std::string codeInLine(unsigned int code, const std::string& number) const {
    if (task_ == "SFWi") return code < 4 || (code > 8 && code < 15) ? "FAIL_UNKNOWN_ERROR" : number;
    const auto named = SFWdReturnCodeFromRawValue(code);
    return named ? std::string(textForm(*named)) : number;
  }
  std::string qm5() const {
    return has_left ? "The QM5 was disconnected during the update; it " : "The QM5 ";
  }

  std::string_view task_ = "SFWi";  // the one under way, or that failed
  bool has_refused_ = false;        // the block under way, once
  Reply refusal_;
  std::size_t unasked_ = 0;  // replies that the host should not have asked for
};

}  // namespace qm5::test
