// Assertions of another authenticator, assembled here by hand: surrogate attestation with the raw
// and DER encodings of the public key and of the signatures, each registered and then used once.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <nlohmann/json.hpp>

#include "corvane-rp/core/verifier.h"
#include "crypto/openssl_handles.h"
#include "foundation/byte_io.h"

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

Bytes rawPoint(EVP_PKEY* key) {
  Bytes out(65);
  size_t size = 0;
  EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, out.data(), out.size(),
                                  &size);
  out.resize(size);
  return out;
}

Bytes spki(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key, &der);
  Bytes out(der, der + size);
  OPENSSL_free(der);
  return out;
}

std::string request(std::string_view op, std::string_view challenge) {
  nlohmann::json message = {
      {"header", {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"appID", kAppID}}},
      {"challenge", challenge},
      {"policy", {{"accepted", {{{{"aaid", {kAaid}}}}}}}}};
  if (op == "Reg") message["username"] = "bob";
  return nlohmann::json::array({message}).dump();
}

std::string fcParamsFor(std::string_view challenge) {
  const nlohmann::json params = {{"appID", kAppID},
                                 {"challenge", challenge},
                                 {"facetID", kAppID},
                                 {"channelBinding", nlohmann::json::object()}};
  return Utils::base64URLSafeStringFromData(asBytes(params.dump()));
}

std::string response(std::string_view op, const std::string& fcParams, ByteView assertion) {
  const nlohmann::json message = {
      {"header", {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"appID", kAppID}}},
      {"fcParams", fcParams},
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

// A certificate for `subject` issued by `issuer` with `issuerKey` (self-signed when null).
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

Bytes der(X509* cert) {
  unsigned char* out = nullptr;
  const int size = i2d_X509(cert, &out);
  Bytes bytes(out, out + size);
  OPENSSL_free(out);
  return bytes;
}

std::string pem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

class ForeignAuthenticator {
 public:
  explicit ForeignAuthenticator(Encoding encoding) : encoding_(encoding) {}

  Bytes registration(const std::string& fcParams, ByteView publicKey) {
    ByteWriter krd;
    {
      ByteWriter::Element e = krd.openElement(0x3E03);
      krd.addElement(0x2E0B, asBytes(kAaid));
      ByteWriter info;
      info.addU16(1);
      info.addU8(1);
      info.addU16(encoding_.signatureAlgorithm);
      info.addU16(encoding_.keyAlgorithm);
      krd.addElement(0x2E0E, info.bytes());
      krd.addElement(0x2E0A, Utils::sha256BackData(fcParams));
      krd.addElement(0x2E09, keyID_);
      ByteWriter counters;
      counters.addU32(0);
      counters.addU32(0);
      krd.addElement(0x2E0D, counters.bytes());
      krd.addElement(0x2E0C, publicKey);
    }
    ByteWriter out;
    {
      ByteWriter::Element reg = out.openElement(0x3E01);
      out.addBytes(krd.bytes());
      if (attestationKey_) {
        // Basic full: the attestation key signs, its certificate (and chain) follow.
        ByteWriter::Element full = out.openElement(0x3E07);
        out.addElement(0x2E06, derSignature(attestationKey_, krd.bytes()));
        for (const Bytes& certificate : chain_) out.addElement(0x2E05, certificate);
      } else {
        ByteWriter::Element surrogate = out.openElement(0x3E08);
        out.addElement(0x2E06, sign(krd.bytes()));
      }
    }
    return out.finish().value_or(Bytes());
  }

  Bytes signing(const std::string& fcParams, uint32_t counter) {
    ByteWriter data;
    {
      ByteWriter::Element e = data.openElement(0x3E04);
      data.addElement(0x2E0B, asBytes(kAaid));
      ByteWriter info;
      info.addU16(1);
      info.addU8(1);
      info.addU16(encoding_.signatureAlgorithm);
      data.addElement(0x2E0E, info.bytes());
      data.addElement(0x2E0F, asBytes("0123456789abcdef"));
      data.addElement(0x2E0A, Utils::sha256BackData(fcParams));
      data.addElement(0x2E10, {});
      data.addElement(0x2E09, keyID_);
      ByteWriter counters;
      counters.addU32(counter);
      data.addElement(0x2E0D, counters.bytes());
    }
    ByteWriter out;
    {
      ByteWriter::Element auth = out.openElement(0x3E02);
      out.addBytes(data.bytes());
      out.addElement(0x2E06, sign(data.bytes()));
    }
    return out.finish().value_or(Bytes());
  }

  EVP_PKEY* key() const { return key_.get(); }
  // Attest with basic full: `key` signs (DER), `chain` is the certificate list, leaf first.
  void attestWith(EVP_PKEY* key, std::vector<Bytes> chain) {
    attestationKey_ = key;
    chain_ = std::move(chain);
  }

 private:
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
    const Bytes publicKey =
        encoding.keyAlgorithm == 0x0100 ? rawPoint(authenticator.key()) : spki(authenticator.key());
    const std::string fcReg = fcParamsFor("reg-challenge");
    RegistrationOutcome reg;
    verifyRegistration(request("Reg", "reg-challenge"),
                       response("Reg", fcReg, authenticator.registration(fcReg, publicKey)), {},
                       reg);
    ASSERT_TRUE(reg.report.ok()) << reg.report.text();
    ASSERT_EQ(reg.registrations.size(), 1u);
    // Whatever the authenticator sent, the record keeps the SubjectPublicKeyInfo.
    EXPECT_EQ(reg.registrations[0].publicKey, spki(authenticator.key()));
    EXPECT_EQ(reg.registrations[0].username, "bob");

    const std::string fcAuth = fcParamsFor("auth-challenge");
    AuthenticationOutcome auth;
    verifyAuthentication(request("Auth", "auth-challenge"),
                         response("Auth", fcAuth, authenticator.signing(fcAuth, 1)),
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
  struct Row {
    const char* name;
    std::vector<Bytes> chain;
    std::string roots;
    const char* failingCheck;  // null: verifies
  } rows[] = {
      {"leaf and intermediate",
       {der(leaf.get()), der(intermediate.get())},
       pem(root.get()),
       nullptr},
      {"leaf alone", {der(leaf.get())}, pem(root.get()), "attestation.chain"},
      {"another root",
       {der(leaf.get()), der(intermediate.get())},
       pem(otherRoot.get()),
       "attestation.chain"},
      {"intermediate first",
       {der(intermediate.get()), der(leaf.get())},
       pem(root.get()),
       "attestation.signature"},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    ForeignAuthenticator authenticator({"DER", 0x0101, 0x0002});
    authenticator.attestWith(attestationKey.get(), row.chain);
    const std::string fc = fcParamsFor("c");
    TrustSettings trust;
    trust.attestationRootsPem = row.roots;
    RegistrationOutcome reg;
    verifyRegistration(
        request("Reg", "c"),
        response("Reg", fc, authenticator.registration(fc, spki(authenticator.key()))), trust, reg);
    EXPECT_EQ(reg.report.firstFailure().value_or("none"),
              row.failingCheck ? row.failingCheck : "none")
        << reg.report.text();
  }
}

TEST(ForeignAssertionTest, RefusesKeysOffTheCurveOrOfTheWrongSize) {
  ForeignAuthenticator authenticator({"raw", 0x0100, 0x0001});
  Bytes offCurve = rawPoint(authenticator.key());
  offCurve[64] ^= 0x01;
  Bytes shortPoint = rawPoint(authenticator.key());
  shortPoint.pop_back();
  for (const Bytes& key : {offCurve, shortPoint}) {
    const std::string fc = fcParamsFor("c");
    RegistrationOutcome reg;
    verifyRegistration(request("Reg", "c"),
                       response("Reg", fc, authenticator.registration(fc, key)), {}, reg);
    EXPECT_EQ(reg.report.firstFailure().value_or("none"), "publicKey") << reg.report.text();
    EXPECT_TRUE(reg.registrations.empty());
  }
}

}  // namespace
}  // namespace corvane::rp
