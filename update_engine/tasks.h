// The firmware-update tasks of the QM5's controller. Each function sends its task on host interface
// 3, polls until the task has ended, reads the reply and decodes it. All block; update job only.
// None retries. A task that takes too long is not reported: what the data register holds then is
// decoded as the reply. docs/protocol.md describes the replies.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string_view>

#include "platform/bytes.h"

namespace qm5 {

/// A decoded reply: values by name, which is a literal. "result" is the task's 4-bit result code.
/// Empty only when sfwd() got no reply.
using ReplyDictionary = std::map<std::string_view, std::size_t>;

/// The value under "result"; empty when the reply has none.
std::optional<std::size_t> resultOf(const ReplyDictionary& reply);

/// "SFWi": opens an update. Empty when no reply could be read. Polls for up to 1.5 s.
std::optional<ReplyDictionary> sfwi();

/// "SFWd": writes one block of the payload. Returns an empty dictionary when no reply could be
/// read, where the other tasks return no value. Polls for up to 1.5 s.
ReplyDictionary sfwd(ByteView block);

/// "SFWs": sends one block of the signature or of the public key. Empty when no reply could be
/// read. Polls for up to 300 s.
std::optional<ReplyDictionary> sfws(ByteView block);

}  // namespace qm5
