// The firmware-update tasks of the QM5's controller. Each function sends its task on host interface
// 3, polls until the task has ended, reads the reply and decodes it. All block; update job only.
// None retries. A task that takes too long is not reported: what the data register holds then is
// decoded as the reply. docs/protocol.md describes the replies.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/bytes.h"

namespace qm5 {

/// A decoded reply: those of its values that the task's reply has. One is made for each block, so
/// it needs no memory from the heap. Without any value only when sfwd() got no reply.
struct ReplyDictionary {
  std::optional<std::size_t> result = std::nullopt;  // the task's 4-bit result code
  std::optional<std::size_t> more_data_expected = std::nullopt;
  std::optional<std::size_t> signature_data_block = std::nullopt;
  std::optional<std::size_t> overlay_present = std::nullopt;
  std::optional<std::size_t> prod_key_present = std::nullopt;
  std::optional<std::size_t> engr_key_present = std::nullopt;
  std::optional<std::size_t> new_flash_region = std::nullopt;
  std::optional<std::size_t> hash_match = std::nullopt;

  bool operator==(const ReplyDictionary&) const = default;
};

/// "SFWi": opens an update. Empty when no reply could be read. Polls for up to 1.5 s.
std::optional<ReplyDictionary> sfwi();

/// "SFWd": writes one block of the payload. Returns a dictionary without values when no reply could
/// be read, where the other tasks return no dictionary. Polls for up to 1.5 s.
ReplyDictionary sfwd(ByteView block);

/// "SFWs": sends one block of the signature or of the public key. Empty when no reply could be
/// read. Polls for up to 300 s.
std::optional<ReplyDictionary> sfws(ByteView block);

}  // namespace qm5
