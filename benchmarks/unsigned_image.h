// An image that the host takes and any device but a ReadyQm5 would refuse: without a key and a
// signature, in no time and of any size.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "firmware_image/firmware_image.h"
#include "platform/bytes.h"

namespace qm5 {

/// `blocks` blocks of 64 bytes, none of which repeats the one before, behind `before` zeros.
inline Bytes newBlocks(std::size_t blocks, std::size_t before = 0) {
  constexpr std::size_t kBlock = 64;
  Bytes bytes(before + blocks * kBlock);
  for (std::size_t i = before; i < bytes.size(); ++i)
    bytes[i] = static_cast<std::uint8_t>((i - before) / kBlock);
  return bytes;
}

inline Bytes unsignedImage(std::size_t blocks) {
  constexpr std::array<std::uint8_t, 4> kMagic = {0x01, 0x00, 0xEF, 0xAC};
  Bytes image = newBlocks(blocks, kImagePayloadStart);
  std::copy(kMagic.begin(), kMagic.end(), image.begin());
  return image;
}

}  // namespace qm5
