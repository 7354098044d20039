// The three firmware-update tasks of the QM5's controller: each is issued on host
// interface 3, waited for, and its reply decoded. All block, never on the main thread.
// None retries, and none reports a task that took too long: its reply is decoded as it is.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "platform/bytes.h"

namespace qm5 {

/// A decoded reply. "result" is the task's 4-bit result code; empty only for a missing
/// reply of sfwd().
using ReplyDictionary = std::map<std::string, std::size_t, std::less<>>;

/// The value under "result"; empty for a reply without it.
std::optional<std::size_t> resultOf(const ReplyDictionary& reply);

/// Opens an update. Empty when no reply could be read. Up to 1.5 s.
std::optional<ReplyDictionary> sfwi();

/// Writes one block of image data. An empty dictionary when no reply could be read, where
/// the other two have no value: callers tell the cases apart by it. Up to 1.5 s.
ReplyDictionary sfwd(ByteView block);

/// Writes one block of secure data. Empty when no reply could be read. Up to 300 s.
std::optional<ReplyDictionary> sfws(ByteView block);

}  // namespace qm5
