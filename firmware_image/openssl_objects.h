// Owning pointers to OpenSSL's objects, and the padding of image signatures. For this folder only.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <memory>

namespace qm5 {

struct FreeOpenSslObject {
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(OSSL_PARAM* parameters) const { OSSL_PARAM_free(parameters); }
  void operator()(OSSL_PARAM_BLD* builder) const { OSSL_PARAM_BLD_free(builder); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeOpenSslObject>;

/// Sets RSA-PSS with a salt of 32 bytes, which is as long as the hash. Returns whether OpenSSL
/// took it.
inline bool setPssPadding(EVP_PKEY_CTX* context) {
  constexpr int kSaltBytes = 32;
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) > 0 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, kSaltBytes) > 0;
}

}  // namespace qm5
