// Development firmware images: a made-up payload, signed with a key made for the occasion.
// The product's own images come from its vendor and never pass through here.
#pragma once

#include <cstddef>

#include "platform/bytes.h"

namespace qm5 {

/// Where an image's regions lie, in bytes from its start; the payload runs to its end.
inline constexpr std::size_t kImagePublicKeyStart = 4;
inline constexpr std::size_t kImageSignatureStart = 388;
inline constexpr std::size_t kImagePayloadStart = 772;

/// `size` bytes, the same ones at every call: noise, of which the first block of 64 bytes
/// is all 0xFF and later stretches are runs of equal blocks and of 0xFF, so that an
/// update of it takes every branch of the flow.
Bytes developmentPayload(std::size_t size);

/// What the device holds after an update: the payload filled up with 0xFF to whole blocks
/// of 64 bytes.
Bytes flashContents(ByteView payload);

/// The whole image: magic, RSA-3072 modulus (384 bytes, big-endian), signature (RSA-PSS
/// over SHA-256 of flashContents(payload), salt of 32 bytes, MGF1 with SHA-256), payload.
/// Makes a new key pair at every call, which takes a good part of a second, and forgets
/// its private half. Fatal when the cryptographic library fails.
Bytes buildImage(ByteView payload);

}  // namespace qm5
