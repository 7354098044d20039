#include "firmware_image/firmware_image.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <array>
#include <random>

#include "firmware_image/openssl_objects.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {0x01, 0x00, 0xEF, 0xAC};
constexpr std::size_t kBlock = 64;       // data bytes of one task
constexpr unsigned int kKeyBits = 3072;  // fills the 384-byte regions of the layout
constexpr std::size_t kKeyBytes = kKeyBits / 8;
constexpr std::uint8_t kErased = 0xFF;  // what erased flash reads

void check(bool good) {
  if (!good) fatal("OpenSSL failed to sign the image");
}

Bytes modulus(const EVP_PKEY* key) {
  BIGNUM* number = nullptr;
  check(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &number) == 1);
  const Owned<BIGNUM> owned(number);
  Bytes bytes(kKeyBytes);
  check(BN_bn2binpad(number, bytes.data(), static_cast<int>(bytes.size())) > 0);
  return bytes;
}

Bytes signature(EVP_PKEY* key, const Bytes& message) {
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* padding = nullptr;  // owned by `context`
  check(EVP_DigestSignInit(context.get(), &padding, EVP_sha256(), nullptr, key) == 1);
  check(setPssPadding(padding));
  Bytes bytes(kKeyBytes);
  std::size_t length = bytes.size();
  check(EVP_DigestSign(context.get(), bytes.data(), &length, message.data(), message.size()) == 1);
  check(length == bytes.size());
  return bytes;
}

void append(Bytes& image, ByteView region) {
  image.insert(image.end(), region.begin(), region.end());
}

}  // namespace

Bytes developmentPayload(std::size_t size) {
  constexpr std::size_t kPattern = 16;  // blocks after which the pattern starts again
  std::mt19937 noise(4208);             // gives the same numbers with every standard library
  Bytes payload(size);
  for (std::size_t at = 0; at < size; ++at) {
    const std::size_t in_pattern = at / kBlock % kPattern;
    const bool erased = at < kBlock || in_pattern == 13 || in_pattern == 14;
    const bool repeats = in_pattern >= 5 && in_pattern < 9;
    const auto drawn = static_cast<std::uint8_t>(noise());
    payload[at] = erased ? kErased : repeats ? payload[at - kBlock] : drawn;
  }
  return payload;
}

Bytes flashContents(ByteView payload) {
  Bytes contents(payload.begin(), payload.end());
  contents.resize((contents.size() + kBlock - 1) / kBlock * kBlock, kErased);
  return contents;
}

Bytes buildImage(ByteView payload) {
  const Owned<EVP_PKEY> key(EVP_RSA_gen(kKeyBits));
  check(key != nullptr);
  Bytes image(kMagic.begin(), kMagic.end());
  append(image, modulus(key.get()));
  append(image, signature(key.get(), flashContents(payload)));
  append(image, payload);
  return image;
}

}  // namespace qm5
