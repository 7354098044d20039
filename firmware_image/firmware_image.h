// Development firmware images: a payload that is no firmware, signed with a new key. They are
// good for the software QM5 alone. The product's own images come from its vendor.
//
// Offsets, block size and padding repeat those of update_engine/ on purpose: tests hold the
// updater against what is built here, so an error there must not come in here.
#pragma once

#include <cstddef>

#include "platform/bytes.h"

namespace qm5 {

/// Where the regions of an image start, in bytes; the payload reaches to the image's end.
inline constexpr std::size_t kImagePublicKeyStart = 4;
inline constexpr std::size_t kImageSignatureStart = 388;
inline constexpr std::size_t kImagePayloadStart = 772;

/// Returns `size` bytes, the same at every call. The first block of 64 bytes is all 0xFF; later
/// blocks are random, repeat the one before, or are all 0xFF. So an update takes every branch of
/// the flow.
Bytes developmentPayload(std::size_t size);

/// What the flash holds after an update: the payload, padded with 0xFF to whole blocks of 64
/// bytes.
Bytes flashContents(ByteView payload);

/// Builds the whole image: magic, RSA-3072 modulus (384 bytes, big-endian), signature (RSA-PSS
/// over SHA-256 of flashContents(payload), salt of 32 bytes, MGF1 with SHA-256), payload. Each
/// call makes a new key pair, which takes up to a second, and drops the private key. Fatal when
/// OpenSSL fails.
Bytes buildImage(ByteView payload);

}  // namespace qm5
