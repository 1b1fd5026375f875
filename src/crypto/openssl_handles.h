// Owning handles for OpenSSL objects: each frees its object with the matching OpenSSL call when it
// goes out of scope. BIGNUMs are freed with BN_clear_free, which wipes them first.
#pragma once

#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace corvane {

template <typename T, void (*Free)(T*)>
struct OpensslFree {
  void operator()(T* object) const { Free(object); }
};
template <typename T, void (*Free)(T*)>
using OpensslPtr = std::unique_ptr<T, OpensslFree<T, Free>>;

using PkeyPtr = OpensslPtr<EVP_PKEY, EVP_PKEY_free>;
using PkeyCtxPtr = OpensslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using MdCtxPtr = OpensslPtr<EVP_MD_CTX, EVP_MD_CTX_free>;
using CipherCtxPtr = OpensslPtr<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using BnPtr = OpensslPtr<BIGNUM, BN_clear_free>;
using ParamBldPtr = OpensslPtr<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using ParamPtr = OpensslPtr<OSSL_PARAM, OSSL_PARAM_free>;
using GroupPtr = OpensslPtr<EC_GROUP, EC_GROUP_free>;
using PointPtr = OpensslPtr<EC_POINT, EC_POINT_free>;
using BioPtr = OpensslPtr<BIO, BIO_free_all>;
using X509Ptr = OpensslPtr<X509, X509_free>;
using X509ExtensionPtr = OpensslPtr<X509_EXTENSION, X509_EXTENSION_free>;
using X509StorePtr = OpensslPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpensslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;

}  // namespace corvane
