#include "firmware_image/image_signature.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>

#include "firmware_image/openssl_objects.h"

namespace qm5 {
namespace {

constexpr unsigned long kExponent = 65537;  // the image holds the modulus alone

Owned<EVP_PKEY> publicKey(const Bytes& modulus) {
  const Owned<BIGNUM> number(BN_bin2bn(modulus.data(), static_cast<int>(modulus.size()), nullptr));
  const Owned<OSSL_PARAM_BLD> builder(OSSL_PARAM_BLD_new());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, number.get());
  OSSL_PARAM_BLD_push_ulong(builder.get(), OSSL_PKEY_PARAM_RSA_E, kExponent);
  const Owned<OSSL_PARAM> parameters(OSSL_PARAM_BLD_to_param(builder.get()));
  const Owned<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  EVP_PKEY_fromdata_init(context.get());
  EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get());
  return Owned<EVP_PKEY>(key);
}

}  // namespace

bool signatureHolds(const Bytes& modulus, const Bytes& signature, const Bytes& message) {
  const Owned<EVP_PKEY> key = publicKey(modulus);
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* padding = nullptr;  // owned by `context`
  const bool holds =
      key && EVP_DigestVerifyInit(context.get(), &padding, EVP_sha256(), nullptr, key.get()) == 1 &&
      setPssPadding(padding) &&
      EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                       message.size()) == 1;
  // The process may end without joining this thread. OpenSSL's memory for it, error texts
  // included, is freed here so that leak checkers don't report it.
  OPENSSL_thread_stop();
  return holds;
}

}  // namespace qm5
