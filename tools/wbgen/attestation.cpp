#include "wbgen/attestation.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "corvane/secret_bytes.h"
#include "crypto/aes_wb_helper.h"
#include "crypto/attestation_material.h"
#include "crypto/openssl_handles.h"

namespace wbgen {

namespace {

using corvane::BioPtr;
using corvane::BnPtr;
using corvane::PkeyPtr;
using corvane::X509ExtensionPtr;
using corvane::X509Ptr;
using corvane::X509StoreCtxPtr;
using corvane::X509StorePtr;

constexpr std::string_view kRootName = "Corvane Development Attestation Root (DEVELOPMENT ONLY)";
constexpr std::string_view kAttestationName = "Corvane Development Attestation (DEVELOPMENT ONLY)";
constexpr long kValidDays = 20 * 365 + 5;  // 20 years, leap days included
constexpr size_t kPointSize = 65;
constexpr size_t kScalarSize = 32;

PkeyPtr newP256Key() {
  static char kCurve[] = "P-256";
  return PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kCurve));
}

// 04 || X || Y || D of a P-256 key pair.
std::optional<corvane::SecretBytes> x963Form(EVP_PKEY* key) {
  corvane::SecretBytes raw(kPointSize + kScalarSize);
  auto bytes = raw.mutableSecret();
  size_t pointLength = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, bytes.data(),
                                      kPointSize, &pointLength) != 1 ||
      pointLength != kPointSize || bytes[0] != 0x04) {
    return std::nullopt;
  }
  BIGNUM* scalar = nullptr;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &scalar) != 1) return std::nullopt;
  BnPtr owned(scalar);
  if (BN_bn2binpad(owned.get(), bytes.data() + kPointSize, static_cast<int>(kScalarSize)) !=
      static_cast<int>(kScalarSize)) {
    return std::nullopt;
  }
  return raw;
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

// A v3 certificate for `subjectKey` named `commonName`, signed with SHA-256 by `issuerKey`.
// `issuer` is null for a self-signed certificate.
X509Ptr makeCertificate(EVP_PKEY* subjectKey, std::string_view commonName, X509* issuer,
                        EVP_PKEY* issuerKey, bool authority) {
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1) return nullptr;
  // A positive random 127-bit serial number.
  std::array<uint8_t, 16> serialBytes{};
  if (RAND_bytes(serialBytes.data(), static_cast<int>(serialBytes.size())) != 1) return nullptr;
  serialBytes[0] = static_cast<uint8_t>((serialBytes[0] & 0x7f) | 0x40);
  BnPtr serial(BN_bin2bn(serialBytes.data(), static_cast<int>(serialBytes.size()), nullptr));
  if (!serial || BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) == nullptr) {
    return nullptr;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(commonName.data()),
                                 static_cast<int>(commonName.size()), -1, 0) != 1) {
    return nullptr;
  }
  X509* signer = issuer != nullptr ? issuer : cert.get();
  if (X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)) != 1 ||
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) == nullptr ||
      X509_time_adj_ex(X509_getm_notAfter(cert.get()), static_cast<int>(kValidDays), 0, nullptr) ==
          nullptr ||
      X509_set_pubkey(cert.get(), subjectKey) != 1) {
    return nullptr;
  }
  const bool extensionsAdded =
      addExtension(cert.get(), signer, NID_basic_constraints,
                   authority ? "critical,CA:TRUE" : "critical,CA:FALSE") &&
      addExtension(cert.get(), signer, NID_key_usage,
                   authority ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature") &&
      addExtension(cert.get(), signer, NID_subject_key_identifier, "hash") &&
      addExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
  if (!extensionsAdded || X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

std::optional<std::string> pem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) return std::nullopt;
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  if (size <= 0 || data == nullptr) return std::nullopt;
  return std::string(data, static_cast<size_t>(size));
}

bool verifies(X509* root, X509* leaf) {
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  return store && context && X509_STORE_add_cert(store.get(), root) == 1 &&
         X509_STORE_CTX_init(context.get(), store.get(), leaf, nullptr) == 1 &&
         X509_verify_cert(context.get()) == 1;
}

}  // namespace

std::optional<AttestationMaterial> makeAttestationMaterial(std::string* error) {
  auto fail = [error](std::string_view message) -> std::optional<AttestationMaterial> {
    if (error != nullptr) *error = std::string(message);
    return std::nullopt;
  };
  PkeyPtr attestationKey = newP256Key();
  if (!attestationKey) return fail("P-256 key generation failed");
  std::optional<corvane::SecretBytes> raw = x963Form(attestationKey.get());
  if (!raw) return fail("cannot export the attestation key");
  std::optional<std::string> keyHex = corvane::encipherWithBuiltinTables(raw->exposeSecret());
  if (!keyHex) return fail("the library's built-in table set is unusable");
  // The library will decipher exactly this text; make sure it gives the key back.
  const auto deciphered = corvane::AesWBHelper::decryptAesWB(*keyHex, raw->size());
  if (!deciphered || !(*deciphered == *raw)) return fail("enciphered key does not decipher back");

  // The root key signs the two certificates and is freed on return; it is never written.
  {
    PkeyPtr rootKey = newP256Key();
    if (!rootKey) return fail("P-256 key generation failed");
    X509Ptr root = makeCertificate(rootKey.get(), kRootName, nullptr, rootKey.get(), true);
    if (!root) return fail("cannot make the root certificate");
    X509Ptr leaf =
        makeCertificate(attestationKey.get(), kAttestationName, root.get(), rootKey.get(), false);
    if (!leaf) return fail("cannot make the attestation certificate");
    if (!verifies(root.get(), leaf.get())) return fail("attestation certificate does not verify");
    AttestationMaterial material;
    auto rootPem = pem(root.get());
    auto leafPem = pem(leaf.get());
    if (!rootPem || !leafPem) return fail("cannot write PEM");
    material.rootPem = std::move(*rootPem);
    material.attestationPem = std::move(*leafPem);
    material.keyHex = std::move(*keyHex);
    return material;
  }
}

}  // namespace wbgen
