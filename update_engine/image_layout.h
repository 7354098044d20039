// The layout of a secure firmware image: four regions at fixed offsets, without gaps. No offset or
// length is read from the image itself. The host checks the length and the magic only; the device
// checks the key and the signature. Any thread.
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

/// The magic at the start of an image. Signed integers, compared with the bytes by value.
inline constexpr std::array<std::ptrdiff_t, kHeaderLength> secureUpdateBinaryHeader = {0x01, 0x00,
                                                                                       0xEF, 0xAC};

struct ImageRegions {
  Bytes public_key;  ///< 384 bytes
  Bytes signature;   ///< 384 bytes
  ByteView payload;  ///< a view into the image: not copied, as it may be large
};

/// Returns whether the image is long enough and begins with the magic; prints one line when not.
bool validate_image(ByteView image);

/// Cuts an image that validate_image() has accepted. `image` outlives the result.
ImageRegions cut_image(ByteView image);

}  // namespace qm5
