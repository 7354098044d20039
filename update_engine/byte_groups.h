// Cuts bytes into groups and writes bytes as text. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/bytes.h"

namespace qm5 {

/// Copies `data` into consecutive groups of `size` bytes; the last one is filled up with `pad`.
/// Returns no groups when `data` is empty or `size` is negative. Fatal when `size` is 0.
std::vector<Bytes> grouper(ByteView data, std::uint8_t pad, std::ptrdiff_t size);

/// Two lower-case hexadecimal digits per byte, in order, without separators.
std::string hexEncodedString(ByteView data);

}  // namespace qm5
