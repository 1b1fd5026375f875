// Assertions of another authenticator, assembled here by hand: surrogate attestation with the raw
// and DER encodings of the public key and of the signatures, each registered and then used once.
#include <gtest/gtest.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <nlohmann/json.hpp>

#include "corvane-rp/core/verifier.h"
#include "crypto/openssl_handles.h"

namespace corvane::rp {
namespace {

constexpr std::string_view kAaid = "ABCD#0001";
constexpr std::string_view kAppID = "https://rp.example.test/facets.json";

Bytes derSignature(EVP_PKEY* key, ByteView message) {
  MdCtxPtr context(EVP_MD_CTX_new());
  size_t size = 0;
  EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key);
  EVP_DigestSign(context.get(), nullptr, &size, message.data(), message.size());
  Bytes out(size);
  EVP_DigestSign(context.get(), out.data(), &size, message.data(), message.size());
  out.resize(size);
  return out;
}

Bytes rawSignature(EVP_PKEY* key, ByteView message) {
  const Bytes der = derSignature(key, message);
  const unsigned char* cursor = der.data();
  ECDSA_SIG* sig = d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(der.size()));
  Bytes out(64);
  BN_bn2binpad(ECDSA_SIG_get0_r(sig), out.data(), 32);
  BN_bn2binpad(ECDSA_SIG_get0_s(sig), out.data() + 32, 32);
  ECDSA_SIG_free(sig);
  return out;
}

// A certificate for `subject` issued by `issuer` with `issuerKey` (self-signed when `issuer` is
// null).
X509Ptr certificate(EVP_PKEY* subject, const char* name, EVP_PKEY* issuerKey, X509* issuer,
                    bool ca) {
  X509Ptr cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer ? issuer : cert.get()));
  X509_set_pubkey(cert.get(), subject);
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  X509ExtensionPtr constraints(X509V3_EXT_conf_nid(nullptr, &context, NID_basic_constraints,
                                                   ca ? "critical,CA:TRUE" : "CA:FALSE"));
  X509_add_ext(cert.get(), constraints.get(), -1);
  X509_sign(cert.get(), issuerKey, EVP_sha256());
  return cert;
}

// The DER form of a certificate or of a public key (its SubjectPublicKeyInfo), by `encode`
// (i2d_X509, i2d_PUBKEY).
template <typename T>
Bytes der(const T* object, int (*encode)(const T*, unsigned char**)) {
  unsigned char* out = nullptr;
  const int size = encode(object, &out);
  Bytes bytes(out, out + size);
  OPENSSL_free(out);
  return bytes;
}

// The uncompressed point, which ends the SubjectPublicKeyInfo of a P-256 key.
Bytes rawPoint(EVP_PKEY* key) {
  const Bytes spki = der(key, i2d_PUBKEY);
  return Bytes(spki.end() - 65, spki.end());
}

std::string pem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

nlohmann::json header(std::string_view op) {
  return {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"appID", kAppID}};
}

// Every request carries the challenge "c", and every response these fcParams.
std::string request(std::string_view op) {
  nlohmann::json message = {{"header", header(op)},
                            {"challenge", "c"},
                            {"policy", {{"accepted", {{{{"aaid", {kAaid}}}}}}}}};
  if (op == "Reg") message["username"] = "bob";
  return nlohmann::json::array({message}).dump();
}

const std::string kFcParams = Utils::base64URLSafeStringFromData(
    asBytes(R"({"appID":"https://rp.example.test/facets.json","challenge":"c",)"
            R"("facetID":"https://rp.example.test/facets.json","channelBinding":{}})"));

std::string response(std::string_view op, ByteView assertion) {
  const nlohmann::json message = {
      {"header", header(op)},
      {"fcParams", kFcParams},
      {"assertions",
       {{{"assertionScheme", "UAFV1TLV"},
         {"assertion", Utils::base64URLSafeStringFromData(assertion)}}}}};
  return nlohmann::json::array({message}).dump();
}

struct Encoding {
  const char* name;
  uint16_t keyAlgorithm;
  uint16_t signatureAlgorithm;
};

// A TLV element (tag and length little-endian, then the value), and values laid end to end.
Bytes tlv(uint16_t tag, ByteView value) {
  Bytes out = {static_cast<uint8_t>(tag), static_cast<uint8_t>(tag >> 8),
               static_cast<uint8_t>(value.size()), static_cast<uint8_t>(value.size() >> 8)};
  out.insert(out.end(), value.begin(), value.end());
  return out;
}
Bytes cat(std::initializer_list<ByteView> parts) {
  Bytes out;
  for (ByteView part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

class ForeignAuthenticator {
 public:
  explicit ForeignAuthenticator(Encoding encoding) : encoding_(encoding) {}

  Bytes registration(ByteView publicKey) {
    const Bytes krd = tlv(
        0x3E03, cat({head(true), tlv(0x2E0A, Utils::sha256BackData(kFcParams)), tlv(0x2E09, keyID_),
                     tlv(0x2E0D, Bytes(8, 0)),  // sign and registration counters
                     tlv(0x2E0C, publicKey)}));
    if (!attestationKey_) return tlv(0x3E01, cat({krd, tlv(0x3E08, tlv(0x2E06, sign(krd)))}));
    // Basic full: the attestation key signs, its certificate (and chain) follow.
    Bytes full = tlv(0x2E06, derSignature(attestationKey_, krd));
    for (const Bytes& certificate : chain_) full = cat({full, tlv(0x2E05, certificate)});
    return tlv(0x3E01, cat({krd, tlv(0x3E07, full)}));
  }
  RegistrationOutcome verifiedRegistration(ByteView publicKey, const TrustSettings& trust = {}) {
    RegistrationOutcome reg;
    verifyRegistration(request("Reg"), response("Reg", registration(publicKey)), trust, reg);
    return reg;
  }

  // A sign assertion with the sign counter 1.
  Bytes signing() {
    const Bytes data =
        tlv(0x3E04, cat({head(false), tlv(0x2E0F, asBytes("0123456789abcdef")),
                         tlv(0x2E0A, Utils::sha256BackData(kFcParams)), tlv(0x2E10, {}),
                         tlv(0x2E09, keyID_), tlv(0x2E0D, Bytes{1, 0, 0, 0})}));
    return tlv(0x3E02, cat({data, tlv(0x2E06, sign(data))}));
  }

  EVP_PKEY* key() const { return key_.get(); }
  // Attest with basic full: `key` signs (DER), `chain` is the certificate list, leaf first.
  void attestWith(EVP_PKEY* key, std::vector<Bytes> chain) {
    attestationKey_ = key;
    chain_ = std::move(chain);
  }

 private:
  // The AAID and the assertion information (with the key's encoding in a registration).
  Bytes head(bool registration) const {
    const uint16_t sig = encoding_.signatureAlgorithm, key = encoding_.keyAlgorithm;
    Bytes info = {1, 0, 1, static_cast<uint8_t>(sig), static_cast<uint8_t>(sig >> 8)};
    if (registration)
      info.insert(info.end(), {static_cast<uint8_t>(key), static_cast<uint8_t>(key >> 8)});
    return cat({tlv(0x2E0B, asBytes(kAaid)), tlv(0x2E0E, info)});
  }
  Bytes sign(ByteView message) {
    return encoding_.signatureAlgorithm == 0x0001 ? rawSignature(key_.get(), message)
                                                  : derSignature(key_.get(), message);
  }

  Encoding encoding_;
  EVP_PKEY* attestationKey_ = nullptr;
  std::vector<Bytes> chain_;
  PkeyPtr key_{EVP_EC_gen("P-256")};
  Bytes keyID_ = Utils::randomBytesWithLength(32).value_or(Bytes(32));
};

TEST(ForeignAssertionTest, SurrogateAttestationInEveryEncodingRegistersAndSigns) {
  const Encoding encodings[] = {{"raw key, raw signature", 0x0100, 0x0001},
                                {"raw key, DER signature", 0x0100, 0x0002},
                                {"DER key, raw signature", 0x0101, 0x0001},
                                {"DER key, DER signature", 0x0101, 0x0002}};
  for (const Encoding& encoding : encodings) {
    SCOPED_TRACE(encoding.name);
    ForeignAuthenticator authenticator(encoding);
    const RegistrationOutcome reg = authenticator.verifiedRegistration(
        encoding.keyAlgorithm == 0x0100 ? rawPoint(authenticator.key())
                                        : der(authenticator.key(), i2d_PUBKEY));
    ASSERT_TRUE(reg.report.ok()) << reg.report.text();
    ASSERT_EQ(reg.registrations.size(), 1u);
    // Whatever the authenticator sent, the record keeps the SubjectPublicKeyInfo.
    EXPECT_EQ(reg.registrations[0].publicKey, der(authenticator.key(), i2d_PUBKEY));
    EXPECT_EQ(reg.registrations[0].username, "bob");

    AuthenticationOutcome auth;
    verifyAuthentication(request("Auth"), response("Auth", authenticator.signing()),
                         reg.registrations, {}, auth);
    ASSERT_TRUE(auth.report.ok()) << auth.report.text();
    ASSERT_EQ(auth.updated.size(), 1u);
    EXPECT_EQ(auth.updated[0].signCounter, 1u);
  }
}

// Basic full attestation through an intermediate CA: the chain the element carries reaches the
// root; without the intermediate, or under another root, it does not.
TEST(ForeignAssertionTest, BasicFullWithAnIntermediateChainsToTheRoot) {
  PkeyPtr rootKey(EVP_EC_gen("P-256"));
  PkeyPtr intermediateKey(EVP_EC_gen("P-256"));
  PkeyPtr attestationKey(EVP_EC_gen("P-256"));
  X509Ptr root = certificate(rootKey.get(), "Root", rootKey.get(), nullptr, true);
  X509Ptr intermediate =
      certificate(intermediateKey.get(), "Intermediate", rootKey.get(), root.get(), true);
  X509Ptr leaf = certificate(attestationKey.get(), "Attestation", intermediateKey.get(),
                             intermediate.get(), false);
  PkeyPtr otherKey(EVP_EC_gen("P-256"));
  X509Ptr otherRoot = certificate(otherKey.get(), "Root", otherKey.get(), nullptr, true);
  const Bytes leafDer = der(leaf.get(), i2d_X509),
              intermediateDer = der(intermediate.get(), i2d_X509);
  struct Row {
    const char* name;
    std::vector<Bytes> chain;
    X509* root;
    const char* failingCheck;
  } rows[] = {
      {"leaf and intermediate", {leafDer, intermediateDer}, root.get(), "none"},
      {"leaf alone", {leafDer}, root.get(), "attestation.chain"},
      {"another root", {leafDer, intermediateDer}, otherRoot.get(), "attestation.chain"},
      {"intermediate first", {intermediateDer, leafDer}, root.get(), "attestation.signature"},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    ForeignAuthenticator authenticator({"DER", 0x0101, 0x0002});
    authenticator.attestWith(attestationKey.get(), row.chain);
    TrustSettings trust;
    trust.attestationRootsPem = pem(row.root);
    const RegistrationOutcome reg =
        authenticator.verifiedRegistration(der(authenticator.key(), i2d_PUBKEY), trust);
    EXPECT_EQ(reg.report.firstFailure().value_or("none"), row.failingCheck) << reg.report.text();
  }
}

TEST(ForeignAssertionTest, RefusesKeysOffTheCurveOrOfTheWrongSize) {
  ForeignAuthenticator authenticator({"raw", 0x0100, 0x0001});
  Bytes offCurve = rawPoint(authenticator.key());
  offCurve[64] ^= 0x01;
  Bytes shortPoint = rawPoint(authenticator.key());
  shortPoint.pop_back();
  for (const Bytes& key : {offCurve, shortPoint}) {
    const RegistrationOutcome reg = authenticator.verifiedRegistration(key);
    EXPECT_EQ(reg.report.firstFailure().value_or("none"), "publicKey") << reg.report.text();
    EXPECT_TRUE(reg.registrations.empty());
  }
}

}  // namespace
}  // namespace corvane::rp
