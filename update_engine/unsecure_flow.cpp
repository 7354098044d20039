#include "update_engine/unsecure_flow.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/fatal.h"
#include "platform/system_log.h"
#include "platform/text.h"
#include "update_engine/byte_groups.h"
#include "update_engine/result_codes.h"
#include "update_engine/tasks.h"

namespace qm5 {
namespace {

constexpr std::size_t kChunkSize = 64;  // the size of the device's data register
constexpr std::uint8_t kErased = 0xFF;  // what a chunk is filled up with
// What stands for a chunk that repeats the one before it: its first bytes.
constexpr std::size_t kRepeatedBlockSize = 4;
constexpr double kPauseBeforeRetry = 0.1;  // seconds

std::string hexadecimal(std::size_t value) {
  return "0x" + upperHex(value);
}

// Which codes are named here follows the opening task alone, not SFWdReturnCode: 9, 10 and
// 13 have names there and are unknown here, 5 the other way round. Meant to be so.
bool isKnownOpeningFailure(std::size_t result) {
  return (result >= 4 && result <= 8) || result == 15;
}

bool openUpdate(const ProgressCallback& progress) {
  const std::optional<ReplyDictionary> reply = sfwi();
  if (!reply) {
    print("SFWi failed. Returned None");
    return false;
  }
  if (progress) progress("Sending SFWi data", 1.0);
  const std::size_t result = required(resultOf(*reply), "an opening reply without a result");
  print("SFWi returned: " + hexadecimal(result));
  if (result == 0) return true;
  print("SFWi Failed with task_result: " +
        (isKnownOpeningFailure(result) ? hexadecimal(result) : "FAIL_UNKNOWN_ERROR"));
  return false;
}

// The whole-number percentage at which chunk `i` is reported. At most 100: `i` reaches the
// count of whole chunks only at a last, incomplete one.
double percentage(std::size_t i, std::size_t length) {
  const std::size_t whole_chunks = length / kChunkSize;
  if (whole_chunks == 0) fatal("progress of less than one chunk");
  const std::size_t percent = i * 100 / whole_chunks;  // rounded down
  return static_cast<double>(percent);
}

std::string failureText(const std::optional<std::size_t>& result) {
  if (!result) return "no result";
  if (const auto code = SFWdReturnCodeFromRawValue(*result)) return std::string(textForm(*code));
  return hexadecimal(*result);
}

// Sends one block, and once more after a pause when it was not taken. Only the second
// attempt's reason is told.
bool writeBlock(ByteView block) {
  const std::optional<std::size_t> first = resultOf(sfwd(block));
  if (first == 0) return true;
  if (!first) print("No sfwd return");
  processClock().sleep(kPauseBeforeRetry);
  print("retry sfwd again");
  const std::optional<std::size_t> second = resultOf(sfwd(block));
  if (second == 0) return true;
  print("SFWd Failed with task_result: " + failureText(second));
  return false;
}

// Grouped by itself, so that an update needs no second copy of the image.
Bytes chunkAt(ByteView data, std::size_t i) {
  const ByteView rest = data.subspan(i * kChunkSize);
  return std::move(grouper(rest.first(std::min(kChunkSize, rest.size())), kErased, kChunkSize)[0]);
}

}  // namespace

bool common_update(Driver&, ByteView update_data, const ProgressCallback& progress) {
  log("Sending SFWi for unsecure_update flow");
  if (!openUpdate(progress)) return false;

  Bytes previous(kChunkSize, kErased);
  for (std::size_t i = 0; i * kChunkSize < update_data.size(); ++i) {
    const std::string number = std::to_string(i);
    if (progress) progress("Writing SFWd chunk:" + number, percentage(i, update_data.size()));
    print("Writing SFWd chunk " + number);
    Bytes chunk = chunkAt(update_data, i);
    ByteView block = chunk;
    if (chunk == previous) {
      // Sent all the same, despite the line: the device takes four bytes for a repetition.
      print("Not sending this chunk, same as last");
      block = block.first(kRepeatedBlockSize);
    }
    if (!writeBlock(block)) return false;
    previous = std::move(chunk);
  }
  return true;
}

}  // namespace qm5
