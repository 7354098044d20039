// The types of every payload, reply and image: bytes that are owned, and bytes that are viewed.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace qm5 {

/// Owns its bytes.
using Bytes = std::vector<std::uint8_t>;
/// Refers to bytes that someone else owns and keeps for as long as the view is used.
using ByteView = std::span<const std::uint8_t>;

}  // namespace qm5
