#include "corvane-rp/core/ec_keys.h"

#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <memory>

#include "corvane-rp/core/assertion_parser.h"

namespace corvane::rp {
namespace {

constexpr size_t kRawPointSize = 65;
constexpr size_t kRawSignatureSize = 64;

Error failure(std::string message) {
  ERR_clear_error();
  return Error::corvane(1, std::move(message));
}

using EcdsaSigPtr = OpensslPtr<ECDSA_SIG, ECDSA_SIG_free>;

bool isP256(EVP_PKEY* key) {
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_EC) return false;
  char group[64] = {};
  size_t length = 0;
  return EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                        &length) == 1 &&
         std::string_view(group, length) == "prime256v1";
}

// The point is on the curve and not the point at infinity.
bool publicKeyChecks(EVP_PKEY* key) {
  PkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  return context && EVP_PKEY_public_check(context.get()) == 1;
}

}  // namespace

Result<PkeyPtr> parsePublicKeyDer(ByteView der) {
  const unsigned char* cursor = der.data();
  PkeyPtr key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der.size())));
  if (!key) return failure("not a DER SubjectPublicKeyInfo");
  if (cursor != der.data() + der.size()) return failure("bytes after the SubjectPublicKeyInfo");
  if (!isP256(key.get())) return failure("not a P-256 key");
  Result<Bytes> again = publicKeyDer(key.get());
  if (!again || !std::equal(again->begin(), again->end(), der.begin(), der.end())) {
    return failure("the SubjectPublicKeyInfo is not in its canonical DER form");
  }
  if (!publicKeyChecks(key.get())) return failure("the point is not on P-256");
  return key;
}

Result<PkeyPtr> parsePublicKey(ByteView bytes, uint16_t algorithm) {
  if (algorithm == kKeyEccX962Der) return parsePublicKeyDer(bytes);
  if (algorithm != kKeyEccX962Raw) {
    return failure("public-key algorithm " + std::to_string(algorithm) + " is not P-256");
  }
  if (bytes.size() != kRawPointSize || bytes[0] != 0x04) {
    return failure("a raw key is the 65-byte uncompressed point, not " +
                   std::to_string(bytes.size()) + " bytes");
  }
  ParamBldPtr builder(OSSL_PARAM_BLD_new());
  if (!builder ||
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0) !=
          1 ||
      OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, bytes.data(),
                                       bytes.size()) != 1) {
    return failure("cannot build the key");
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  PkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* raw = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return failure("the point is not on P-256");
  }
  PkeyPtr key(raw);
  if (!publicKeyChecks(key.get())) return failure("the point is not on P-256");
  return key;
}

Result<Bytes> publicKeyDer(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int length = i2d_PUBKEY(key, &der);
  if (length <= 0) return failure("cannot encode the key");
  Bytes out(der, der + length);
  OPENSSL_free(der);
  return out;
}

Result<void> verifySignature(EVP_PKEY* key, uint16_t algorithm, ByteView message,
                             ByteView signature) {
  Bytes der;
  if (algorithm == kSignSecp256r1EcdsaSha256Raw) {
    if (signature.size() != kRawSignatureSize) {
      return failure("a raw signature is 64 bytes, not " + std::to_string(signature.size()));
    }
    EcdsaSigPtr sig(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(signature.data(), 32, nullptr);
    BIGNUM* s = BN_bin2bn(signature.data() + 32, 32, nullptr);
    if (!sig || !r || !s || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
      BN_free(r);
      BN_free(s);
      return failure("cannot read the raw signature");
    }
    unsigned char* encoded = nullptr;
    const int length = i2d_ECDSA_SIG(sig.get(), &encoded);
    if (length <= 0) return failure("cannot read the raw signature");
    der.assign(encoded, encoded + length);
    OPENSSL_free(encoded);
  } else if (algorithm == kSignSecp256r1EcdsaSha256Der) {
    // OpenSSL refuses a DER signature that does not re-encode to the same bytes.
    der.assign(signature.begin(), signature.end());
  } else {
    return failure("signature algorithm " + std::to_string(algorithm) + " is not P-256 ECDSA");
  }
  MdCtxPtr context(EVP_MD_CTX_new());
  if (!context || EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
    return failure("cannot verify with this key");
  }
  if (EVP_DigestVerify(context.get(), der.data(), der.size(), message.data(), message.size()) !=
      1) {
    return failure("the signature does not verify");
  }
  return {};
}

Result<std::vector<X509Ptr>> readPemCertificates(std::string_view pem) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  std::vector<X509Ptr> out;
  while (bio) {
    X509Ptr certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!certificate) break;
    out.push_back(std::move(certificate));
  }
  if (out.empty()) return failure("no certificate in the PEM text");
  ERR_clear_error();
  return out;
}

Result<X509Ptr> parseCertificateDer(ByteView der) {
  const unsigned char* cursor = der.data();
  X509Ptr certificate(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  if (!certificate) return failure("not a DER certificate");
  if (cursor != der.data() + der.size()) return failure("bytes after the certificate");
  // A certificate that does not encode back to its own bytes was altered outside the signed part.
  unsigned char* again = nullptr;
  const int length = i2d_X509(certificate.get(), &again);
  const bool same = length > 0 && static_cast<size_t>(length) == der.size() &&
                    std::equal(der.begin(), der.end(), again);
  OPENSSL_free(again);
  if (!same) return failure("the certificate is not in its canonical DER form");
  return certificate;
}

Result<void> verifyChain(X509* leaf, const std::vector<X509Ptr>& intermediates,
                         const std::vector<X509Ptr>& roots) {
  X509StorePtr store(X509_STORE_new());
  if (!store) return failure("cannot make a certificate store");
  for (const X509Ptr& root : roots) X509_STORE_add_cert(store.get(), root.get());
  struct StackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
  };
  std::unique_ptr<STACK_OF(X509), StackFree> untrusted(sk_X509_new_null());
  for (const X509Ptr& certificate : intermediates) {
    if (untrusted) sk_X509_push(untrusted.get(), certificate.get());
  }
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context || !untrusted ||
      X509_STORE_CTX_init(context.get(), store.get(), leaf, untrusted.get()) != 1) {
    return failure("cannot set up the chain check");
  }
  if (X509_verify_cert(context.get()) != 1) {
    const int code = X509_STORE_CTX_get_error(context.get());
    return failure(std::string("the certificate does not chain to the root: ") +
                   X509_verify_cert_error_string(code));
  }
  return {};
}

}  // namespace corvane::rp
