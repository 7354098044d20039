#include "simulator/image_signature.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <memory>

namespace qm5 {
namespace {

constexpr unsigned long kExponent = 65537;  // the layout has no room for another one
constexpr int kSaltBytes = 32;

struct Free {
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(OSSL_PARAM* parameters) const { OSSL_PARAM_free(parameters); }
  void operator()(OSSL_PARAM_BLD* builder) const { OSSL_PARAM_BLD_free(builder); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

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
  EVP_PKEY_CTX* padding = nullptr;  // belongs to `context`
  const bool holds =
      key && EVP_DigestVerifyInit(context.get(), &padding, EVP_sha256(), nullptr, key.get()) == 1 &&
      EVP_PKEY_CTX_set_rsa_padding(padding, RSA_PKCS1_PSS_PADDING) > 0 &&
      EVP_PKEY_CTX_set_rsa_pss_saltlen(padding, kSaltBytes) > 0 &&
      EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                       message.size()) == 1;
  // The thread may be one that the process ends without joining: nothing of the library's,
  // a wrong signature's reason included, is to stay with it.
  OPENSSL_thread_stop();
  return holds;
}

}  // namespace qm5
