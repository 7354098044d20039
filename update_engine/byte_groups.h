// Bytes cut into groups, and bytes as text. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/bytes.h"

namespace qm5 {

/// `data` in consecutive groups of `size` bytes, the last one filled up with `pad`. No
/// groups when `data` is empty or `size` negative; fatal when `size` is 0.
std::vector<Bytes> grouper(ByteView data, std::uint8_t pad, std::ptrdiff_t size);

/// Two lower-case hexadecimal digits a byte, in order, nothing between.
std::string hexEncodedString(ByteView data);

}  // namespace qm5
