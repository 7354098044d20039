// Checks the signature of an image with the key that comes with the image.
#pragma once

#include "platform/bytes.h"

namespace qm5 {

/// Returns whether `signature` (384 bytes) is an RSA-PSS signature (SHA-256, MGF1 with SHA-256,
/// salt of 32 bytes) of `message` under `modulus` (384 bytes, big-endian) and the exponent
/// 65537. Bytes that are no key or no signature at all give false.
bool signatureHolds(const Bytes& modulus, const Bytes& signature, const Bytes& message);

}  // namespace qm5
