#include "update_engine/tasks.h"

#include <string_view>

#include "device_link/command_channel.h"
#include "platform/console.h"
#include "platform/fatal.h"
#include "update_engine/byte_groups.h"

namespace qm5 {
namespace {

constexpr std::size_t kInterface = 3;

struct Task {
  std::string_view command;  // four characters
  std::size_t max_retries;
  double delay_between_retries;  // seconds
  std::size_t num_bytes_to_read;
};

constexpr Task kSFWi = {"SFWi", 15, 0.1, 6};
constexpr Task kSFWd = {"SFWd", 15, 0.1, 1};
constexpr Task kSFWs = {"SFWs", 300, 1.0, 10};

constexpr std::uint8_t kResultMask = 0x0F;

// Runs a task. Returns the whole reply, length byte first; empty when none could be read.
std::optional<Bytes> run(const Task& task, const std::optional<ByteView>& data) {
  write_4cc(task.command, data, kInterface, std::nullopt);
  wait_for_command(task.max_retries, task.delay_between_retries, kInterface);
  return read_data(task.num_bytes_to_read, kInterface, std::nullopt);
}

void requireElements(const Bytes& reply, std::size_t count) {
  if (reply.size() < count) fatal("a task's reply is shorter than what is decoded");
}

// The two-bit region here, and the three-bit match of "SFWs", are not shifted and so overlap the
// flags. Intended.
void decodeFlags(std::uint8_t flags, ReplyDictionary& reply) {
  reply.overlay_present = flags & 0x01;
  reply.prod_key_present = (flags >> 1) & 0x01;
  reply.engr_key_present = (flags >> 2) & 0x01;
  reply.new_flash_region = flags & 0x03;
}

// As in "[10, 0, 3]".
std::string listForm(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += text.empty() ? "[" : ", ";
    text += std::to_string(byte);
  }
  return text + "]";
}

}  // namespace

std::optional<ReplyDictionary> sfwi() {
  const std::optional<Bytes> bytes = run(kSFWi, std::nullopt);
  if (!bytes) return std::nullopt;
  print("sfwi: result=" + hexEncodedString(*bytes));
  requireElements(*bytes, 4);
  ReplyDictionary reply;
  // The length byte, not the first register byte, unlike the other tasks. Intended.
  reply.result = (*bytes)[0] & kResultMask;
  decodeFlags((*bytes)[3], reply);
  return reply;
}

ReplyDictionary sfwd(ByteView block) {
  const std::optional<Bytes> bytes = run(kSFWd, block);
  if (!bytes) return {};
  requireElements(*bytes, 2);
  ReplyDictionary reply;
  reply.result = (*bytes)[1] & kResultMask;
  // The whole byte here, but only bit 7 in the reply to "SFWs". Intended.
  reply.more_data_expected = (*bytes)[1] != 0 ? 1U : 0U;
  return reply;
}

std::optional<ReplyDictionary> sfws(ByteView block) {
  const std::optional<Bytes> bytes = run(kSFWs, block);
  if (!bytes) return std::nullopt;
  print("SFWs: read_back: " + listForm(*bytes));
  requireElements(*bytes, 4);
  ReplyDictionary reply;
  reply.result = (*bytes)[1] & kResultMask;
  reply.more_data_expected = (*bytes)[1] >> 7;
  reply.signature_data_block = (*bytes)[2];
  decodeFlags((*bytes)[3], reply);
  reply.hash_match = (*bytes)[3] & 0x07;
  return reply;
}

}  // namespace qm5
