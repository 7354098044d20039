// The layout of a secure firmware image: four regions at fixed offsets, one behind the
// other. Nothing about the layout is read from the image itself, and the key and the
// signature are the device's to judge. Pure; any thread.
#pragma once

#include <array>
#include <cstddef>

#include "platform/bytes.h"

namespace qm5 {

// Offsets and sizes in bytes.
inline constexpr std::size_t kHeaderLength = 4;
inline constexpr std::size_t kPublicKeyStart = 4;
inline constexpr std::size_t kPublicKeyEnd = 0x184;  ///< exclusive; 384 bytes are RSA-3072
inline constexpr std::size_t kSignatureStart = 0x184;
inline constexpr std::size_t kSignatureEnd = 0x304;  ///< exclusive
inline constexpr std::size_t kPayloadStart = 0x304;
inline constexpr std::size_t kMinimumImageLength = 0x304;  ///< the payload may be empty

/// The magic that an image begins with. Integers, compared with the bytes by value.
inline constexpr std::array<std::ptrdiff_t, kHeaderLength> secureUpdateBinaryHeader = {0x01, 0x00,
                                                                                       0xEF, 0xAC};

struct ImageRegions {
  Bytes public_key;  ///< 384 bytes
  Bytes signature;   ///< 384 bytes
  ByteView payload;  ///< a view of the image, which may be large and outlives the update
};

/// Whether an image is long enough and begins with the magic; prints the reason when not.
bool validate_image(ByteView image);

/// The regions of a valid image.
ImageRegions cut_image(ByteView image);

}  // namespace qm5
