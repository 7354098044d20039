#include "update_engine/unsecure_flow.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <vector>

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
constexpr std::uint8_t kErased = 0xFF;  // fills up the last chunk
// A chunk that repeats the one before it is sent as its first bytes only.
constexpr std::size_t kRepeatedBlockSize = 4;
constexpr double kPauseBeforeRetry = 0.1;  // seconds

std::string hexadecimal(std::size_t value) {
  return "0x" + upperHex(value);
}

// The codes that the opening task's failure line shows as a number. They differ from
// SFWdReturnCode: 9, 10 and 13 have names there but are unknown here, and 5 the reverse. Intended.
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
  const std::size_t result = required(reply->result, "an opening reply without a result");
  print("SFWi returned: " + hexadecimal(result));
  if (result == 0) return true;
  print("SFWi Failed with task_result: " +
        (isKnownOpeningFailure(result) ? hexadecimal(result) : "FAIL_UNKNOWN_ERROR"));
  return false;
}

// The percentage at which chunk `i` is reported: a whole number, rounded down. At most 100, as `i`
// equals the count of whole chunks only at a last, incomplete one.
double percentage(std::size_t i, std::size_t length) {
  constexpr std::size_t kMost = std::numeric_limits<std::ptrdiff_t>::max();
  const std::size_t whole_chunks = length / kChunkSize;
  if (whole_chunks == 0) fatal("progress of less than one chunk");
  if (i > kMost / 100) fatal("progress of more chunks than a percentage can count");
  const std::size_t percent = i * 100 / whole_chunks;
  return static_cast<double>(percent);
}

std::string failureText(const std::optional<std::size_t>& result) {
  if (!result) return "no result";
  if (const auto code = SFWdReturnCodeFromRawValue(*result)) return std::string(textForm(*code));
  return hexadecimal(*result);
}

// Sends one block, and once more after a pause when the device did not take it. Only the second
// attempt's failure is printed.
bool writeBlock(ByteView block) {
  const std::optional<std::size_t> first = sfwd(block).result;
  if (first == 0) return true;
  if (!first) print("No sfwd return");
  processClock().sleep(kPauseBeforeRetry);
  print("retry sfwd again");
  const std::optional<std::size_t> second = sfwd(block).result;
  if (second == 0) return true;
  print("SFWd Failed with task_result: " + failureText(second));
  return false;
}

}  // namespace

std::size_t chunk_count(ByteView update_data) {
  return (update_data.size() + kChunkSize - 1) / kChunkSize;
}

bool common_update(Driver&, ByteView update_data, const ProgressCallback& progress) {
  log("Sending SFWi for unsecure_update flow");
  if (!openUpdate(progress)) return false;

  // Whole chunks are sent as they lie in the image, so that an update needs no second copy of it.
  const std::size_t whole_chunks = update_data.size() / kChunkSize;
  const std::vector<Bytes> incomplete =
      grouper(update_data.subspan(whole_chunks * kChunkSize), kErased, kChunkSize);
  const Bytes erased(kChunkSize, kErased);
  ByteView previous = erased;
  for (std::size_t i = 0; i < chunk_count(update_data); ++i) {
    const std::string number = std::to_string(i);
    if (progress) progress("Writing SFWd chunk:" + number, percentage(i, update_data.size()));
    print("Writing SFWd chunk " + number);
    const ByteView chunk = i < whole_chunks ? update_data.subspan(i * kChunkSize, kChunkSize)
                                            : ByteView(incomplete[0]);
    ByteView block = chunk;
    if (std::equal(chunk.begin(), chunk.end(), previous.begin())) {
      // Despite the line, a task is sent: its four bytes tell the device to repeat the chunk.
      print("Not sending this chunk, same as last");
      block = block.first(kRepeatedBlockSize);
    }
    if (!writeBlock(block)) return false;
    previous = chunk;
  }
  return true;
}

}  // namespace qm5
