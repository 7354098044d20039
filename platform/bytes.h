// An array of unsigned 8-bit values: every payload, reply and image.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace qm5 {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

}  // namespace qm5
