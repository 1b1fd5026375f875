// TlvHelper: both assertions against golden bytes written out from the tag table, parsed back
// independently and verified with OpenSSL (attestation signature and certificate chain, user
// signature), the encoders' boundaries and the edge cases the relying party depends on.
#include "authenticator/tlv_helper.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <tuple>

#include "crypto/attestation_material.h"
#include "crypto/openssl_handles.h"
#include "foundation/byte_io.h"
#include "storage/keychain_rig.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using testing::KeychainRig;
using testing::StoreKind;

Bytes hex(std::string_view text) {
  return Utils::hexString2NSData(text);
}
Bytes copy(ByteView bytes) {
  return Bytes(bytes.begin(), bytes.end());
}

X509Ptr pemCertificate(std::string_view name) {
  const std::string pem = testing::readFile(testing::resourcesDir() / "attestation" / name);
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509Ptr cert(bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr);
  BIO_free(bio);
  return cert;
}

Bytes derOf(X509* cert) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(cert, &der);
  Bytes out(der, der + std::max(length, 0));
  OPENSSL_free(der);
  return out;
}

// Hand-assembled bytes: hex text plus little-endian lengths and spliced runs.
struct Golden {
  Bytes bytes;
  Golden& h(std::string_view text) {
    const Bytes part = hex(text);
    bytes.insert(bytes.end(), part.begin(), part.end());
    return *this;
  }
  Golden& le16(size_t value) {
    bytes.push_back(static_cast<uint8_t>(value));
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    return *this;
  }
  Golden& raw(ByteView run) {
    bytes.insert(bytes.end(), run.begin(), run.end());
    return *this;
  }
};

constexpr std::string_view kAaidHex = "3046334423 30303032";  // "0F3D#0002"
constexpr std::string_view kHashHex =
    "A0A1A2A3A4A5A6A7A8A9AAABACADAEAF B0B1B2B3B4B5B6B7B8B9BABBBCBDBEBF";
constexpr std::string_view kTcHashHex =
    "C0C1C2C3C4C5C6C7C8C9CACBCCCDCECF D0D1D2D3D4D5D6D7D8D9DADBDCDDDEDF";
constexpr std::string_view kKeyIdHex = "30313233343536373839616263646566";  // "0123456789abcdef"
// DER SubjectPublicKeyInfo of the P-256 point G.
constexpr std::string_view kPublicKeyHex =
    "3059301306072A8648CE3D020106082A8648CE3D030107034200 04"
    "6B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296"
    "4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5";
constexpr std::string_view kNonce = "Ab3dE5g7";

AssertionFields fixedFields() {
  AssertionFields fields;
  fields.aaid = "0F3D#0002";
  fields.finalChallengeHash = hex(kHashHex);
  fields.keyID = "0123456789abcdef";
  fields.base64UrlKeyID = "not-encoded";
  fields.publicKey = hex(kPublicKeyHex);
  fields.signCounter = 70000;
  fields.regCounter = 65537;
  fields.exts = {{"registered_uuid", "abc", true}, {"match_model", std::nullopt, std::nullopt}};
  fields.isTxAuth = true;
  fields.tcHash = hex(kTcHashHex);
  return fields;
}

// The extensions of fixedFields(), as both assertions carry them.
void addGoldenExtensions(Golden& g) {
  g.h("113E 1A00")                                     // TAG_EXTENSION, 26
      .h("132E 0F00 72656769737465726564 5F75756964")  // TAG_EXTENSION_ID "registered_uuid"
      .h("142E 0300 616263")                           // TAG_EXTENSION_DATA "abc"
      .h("123E 1300")                                  // TAG_EXTENSION_NON_CRITICAL, 19
      .h("132E 0B00 6D617463685F6D6F64656C")           // TAG_EXTENSION_ID "match_model"
      .h("142E 0000");                                 // TAG_EXTENSION_DATA, empty
}

// The registration assertion of fixedFields() with this attestation signature and certificate.
Bytes regGolden(ByteView signature, ByteView certificate) {
  Golden g;
  g.h("013E").le16(256 + signature.size() + certificate.size());  // TAG_UAFV1_REG_ASSERTION
  g.h("033E F000");                                               // TAG_UAFV1_KRD, 240
  g.h("0B2E 0900").h(kAaidHex);                                   // TAG_AAID
  g.h("0E2E 0700 0100 01 0200 0101");  // TAG_ASSERTION_INFO: v1, mode 1, ECDSA DER, X9.62 DER
  g.h("0A2E 2000").h(kHashHex);        // TAG_FINAL_CHALLENGE_HASH
  g.h("092E 1000").h(kKeyIdHex);       // TAG_KEYID
  g.h("0D2E 0800 70110000 01000000");  // TAG_COUNTERS: 70000 and 65537, low 16 bits
  g.h("0C2E 5B00").h(kPublicKeyHex);   // TAG_PUB_KEY, 91
  addGoldenExtensions(g);
  g.h("073E").le16(8 + signature.size() + certificate.size());  // TAG_ATTESTATION_BASIC_FULL
  g.h("062E").le16(signature.size()).raw(signature);            // TAG_SIGNATURE
  g.h("052E").le16(certificate.size()).raw(certificate);        // TAG_ATTESTATION_CERT
  return g.bytes;
}

// The sign assertion of fixedFields() (signCounter 0x12345678) with this signature.
Bytes authGolden(ByteView signature) {
  Golden g;
  g.h("023E").le16(195 + signature.size());  // TAG_UAFV1_AUTH_ASSERTION
  g.h("043E BB00");                          // TAG_UAFV1_SIGNED_DATA, 187
  g.h("0B2E 0900").h(kAaidHex);              // TAG_AAID
  g.h("0E2E 0500 0100 02 0200");             // TAG_ASSERTION_INFO: v1, mode 2 (transaction)
  g.h("0F2E 0800 4162336445356737");         // TAG_AUTHENTICATOR_NONCE "Ab3dE5g7"
  g.h("0A2E 2000").h(kHashHex);              // TAG_FINAL_CHALLENGE_HASH
  g.h("102E 2000").h(kTcHashHex);            // TAG_TRANSACTION_CONTENT_HASH
  g.h("092E 1000").h(kKeyIdHex);             // TAG_KEYID
  g.h("0D2E 0400 78560000");                 // TAG_COUNTERS: 0x12345678, low 16 bits
  addGoldenExtensions(g);
  g.h("062E").le16(signature.size()).raw(signature);  // TAG_SIGNATURE
  return g.bytes;
}

// The TAG_SIGNATURE value that starts at `offset`, read by hand.
Bytes signatureAt(ByteView data, size_t offset) {
  if (data.size() < offset + 4 || data[offset] != 0x06 || data[offset + 1] != 0x2E) return {};
  const size_t length = data[offset + 2] | (data[offset + 3] << 8);
  if (data.size() < offset + 4 + length) return {};
  return copy(data.subspan(offset + 4, length));
}

Bytes decode(const std::string& text) {
  std::optional<Bytes> bytes = Utils::decodeBase64Url(text);
  EXPECT_TRUE(bytes && Utils::isBase64urlString(text));
  return bytes.value_or(Bytes());
}

class TlvHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rig_.opened());
    ASSERT_TRUE(certificate_ && root_);
    publicKey_ = rig_.keychain->generate256EcKeyPair("pub", kTag).value_or(Bytes());
    ASSERT_EQ(publicKey_.size(), 91u);
  }
  static constexpr std::string_view kTag = "app.0F3D#0002.PRI.user";

  KeychainRig rig_{StoreKind::fake};
  WhiteboxAttestationKeySource source_;
  Keychain attesting_{rig_.items(), rig_.keys, rig_.biometry, rig_.configuration, &source_};
  TlvHelper helper_{attesting_, [] { return std::string(kNonce); }};
  X509Ptr certificate_ = pemCertificate("attestation.pem");
  X509Ptr root_ = pemCertificate("root.pem");
  Bytes publicKey_;
};

TEST_F(TlvHelperTest, RegistrationAssertionMatchesGolden) {
  const Bytes certificate = derOf(certificate_.get());
  const Bytes assertion = decode(helper_.getRegAssertions(fixedFields(), kTag));
  const Bytes signature = signatureAt(assertion, 4 + 244 + 4);
  ASSERT_GE(signature.size(), 8u);
  EXPECT_EQ(assertion, regGolden(signature, certificate));

  const Bytes data = helper_.getRegAssertionData(fixedFields(), kTag);
  EXPECT_EQ(data, copy(ByteView(regGolden(signatureAt(data, 244 + 4), certificate)).subspan(4)));
  EXPECT_EQ(TlvHelper::getKrdData(fixedFields()), copy(ByteView(assertion).subspan(8, 240)));

  // Without an attestation key the signature element is empty and the rest is unchanged.
  TlvHelper withoutAttestation(*rig_.keychain);
  EXPECT_EQ(decode(withoutAttestation.getRegAssertions(fixedFields(), kTag)),
            regGolden({}, certificate));
}

TEST_F(TlvHelperTest, SignAssertionMatchesGolden) {
  AssertionFields fields = fixedFields();
  fields.signCounter = 0x12345678;
  const Bytes assertion = decode(helper_.getAuthAssertions(fields, kTag));
  const Bytes signature = signatureAt(assertion, 4 + 191);
  ASSERT_GE(signature.size(), 8u);
  EXPECT_EQ(assertion, authGolden(signature));
  const Bytes data = helper_.getAuthAssertionData(fields, kTag);
  EXPECT_EQ(data, copy(ByteView(authGolden(signatureAt(data, 191))).subspan(4)));
  EXPECT_EQ(helper_.getAuthSignedData(fields), copy(ByteView(assertion).subspan(8, 187)));

  // A key that is missing or cannot sign gives an empty signature element.
  EXPECT_EQ(decode(helper_.getAuthAssertions(fields, "no.such.tag")), authGolden({}));
  rig_.keys.failSign(true);
  EXPECT_EQ(decode(helper_.getAuthAssertions(fields, kTag)), authGolden({}));
}

// Reads an element that must come next and have this tag; its value.
Bytes expectElement(ByteReader& reader, uint16_t tag) {
  std::optional<ByteReader> value = reader.readElement(tag);
  EXPECT_TRUE(value) << "missing element " << std::hex << tag;
  return value ? copy(value->rest()) : Bytes();
}

void expectExtensions(ByteReader& reader) {
  for (const auto& [tag, id, data] : {std::tuple<uint16_t, std::string, std::string>{
                                          tlv::TAG_EXTENSION, "registered_uuid", "abc"},
                                      {tlv::TAG_EXTENSION_NON_CRITICAL, "match_model", ""}}) {
    std::optional<ByteReader> extension = reader.readElement(tag);
    ASSERT_TRUE(extension);
    EXPECT_EQ(expectElement(*extension, tlv::TAG_EXTENSION_ID), TlvHelper::getBytes(id));
    EXPECT_EQ(expectElement(*extension, tlv::TAG_EXTENSION_DATA), TlvHelper::getBytes(data));
    EXPECT_TRUE(extension->empty());
  }
  EXPECT_TRUE(reader.empty());
}

bool verifiesWithCertificate(X509* cert, ByteView message, ByteView signature) {
  MdCtxPtr context(EVP_MD_CTX_new());
  return context &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                              X509_get0_pubkey(cert)) == 1 &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

TEST_F(TlvHelperTest, RegistrationAssertionParsesAndVerifiesAgainstTheRoot) {
  const AssertionFields fields = fixedFields();
  const Bytes assertion = decode(helper_.getRegAssertions(fields, kTag));
  ByteReader top(assertion);
  std::optional<ByteReader> reg = top.readElement(tlv::TAG_UAFV1_REG_ASSERTION);
  ASSERT_TRUE(reg && top.empty());
  std::optional<TlvElement> krdElement = reg->readElement();
  ASSERT_TRUE(krdElement && krdElement->tag == tlv::TAG_UAFV1_KRD);
  ByteReader krd = krdElement->value;
  EXPECT_EQ(expectElement(krd, tlv::TAG_AAID), TlvHelper::getBytes(*fields.aaid));
  EXPECT_EQ(expectElement(krd, tlv::TAG_ASSERTION_INFO), hex("01000102000101"));
  EXPECT_EQ(expectElement(krd, tlv::TAG_FINAL_CHALLENGE_HASH), *fields.finalChallengeHash);
  EXPECT_EQ(expectElement(krd, tlv::TAG_KEYID), TlvHelper::getBytes(*fields.keyID));
  const Bytes counterBytes = expectElement(krd, tlv::TAG_COUNTERS);
  ByteReader counters(counterBytes);
  EXPECT_EQ(counters.readU32(), 70000u & 0xFFFF);
  EXPECT_EQ(counters.readU32(), 65537u & 0xFFFF);
  EXPECT_TRUE(counters.empty());
  EXPECT_EQ(expectElement(krd, tlv::TAG_PUB_KEY), *fields.publicKey);
  expectExtensions(krd);

  std::optional<ByteReader> attestation = reg->readElement(tlv::TAG_ATTESTATION_BASIC_FULL);
  ASSERT_TRUE(attestation && reg->empty());
  const Bytes signature = expectElement(*attestation, tlv::TAG_SIGNATURE);
  const Bytes der = expectElement(*attestation, tlv::TAG_ATTESTATION_CERT);
  EXPECT_TRUE(attestation->empty());
  const unsigned char* cursor = der.data();
  X509Ptr carried(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  ASSERT_TRUE(carried);
  EXPECT_EQ(cursor, der.data() + der.size());

  // The signature covers the whole KRD element, header included, and nothing else.
  EXPECT_TRUE(verifiesWithCertificate(carried.get(), krdElement->whole, signature));
  EXPECT_FALSE(verifiesWithCertificate(carried.get(), krdElement->whole.subspan(4), signature));

  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  ASSERT_TRUE(store && context && X509_STORE_add_cert(store.get(), root_.get()) == 1);
  ASSERT_EQ(X509_STORE_CTX_init(context.get(), store.get(), carried.get(), nullptr), 1);
  EXPECT_EQ(X509_verify_cert(context.get()), 1)
      << X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

TEST_F(TlvHelperTest, SignAssertionParsesAndVerifiesWithTheUserKey) {
  AssertionFields fields = fixedFields();
  fields.isTxAuth = false;
  fields.tcHash.reset();
  const Bytes assertion = decode(helper_.getAuthAssertions(fields, kTag));
  ByteReader top(assertion);
  std::optional<ByteReader> auth = top.readElement(tlv::TAG_UAFV1_AUTH_ASSERTION);
  ASSERT_TRUE(auth && top.empty());
  std::optional<TlvElement> signedElement = auth->readElement();
  ASSERT_TRUE(signedElement && signedElement->tag == tlv::TAG_UAFV1_SIGNED_DATA);
  ByteReader data = signedElement->value;
  EXPECT_EQ(expectElement(data, tlv::TAG_AAID), TlvHelper::getBytes(*fields.aaid));
  EXPECT_EQ(expectElement(data, tlv::TAG_ASSERTION_INFO), hex("0100010200"));
  EXPECT_EQ(expectElement(data, tlv::TAG_AUTHENTICATOR_NONCE), TlvHelper::getBytes(kNonce));
  EXPECT_EQ(expectElement(data, tlv::TAG_FINAL_CHALLENGE_HASH), *fields.finalChallengeHash);
  EXPECT_EQ(expectElement(data, tlv::TAG_TRANSACTION_CONTENT_HASH), Bytes());
  EXPECT_EQ(expectElement(data, tlv::TAG_KEYID), TlvHelper::getBytes(*fields.keyID));
  EXPECT_EQ(expectElement(data, tlv::TAG_COUNTERS), hex("70110000"));
  expectExtensions(data);
  const Bytes signature = expectElement(*auth, tlv::TAG_SIGNATURE);
  EXPECT_TRUE(auth->empty());

  EXPECT_TRUE(testing::verifies(publicKey_, signedElement->whole, signature));
  EXPECT_FALSE(testing::verifies(publicKey_, signedElement->whole.subspan(4), signature));
  // The surrogate form signs with the same user key.
  const Bytes surrogate = helper_.getAttestationBasicSurrogate(signedElement->whole, kTag);
  ByteReader surrogateReader(surrogate);
  EXPECT_TRUE(testing::verifies(publicKey_, signedElement->whole,
                                expectElement(surrogateReader, tlv::TAG_SIGNATURE)));
  EXPECT_TRUE(surrogateReader.empty());
  EXPECT_EQ(helper_.getAttestationBasicSurrogate(signedElement->whole, "missing"), hex("062E0000"));
}

TEST(TlvEncodersTest, KnownAnswers) {
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  struct Case {
    uint64_t value;
    std::string_view u8, u16, u32;
  };
  const Case cases[] = {
      {0, "00", "0000", "00000000"},      {1, "01", "0100", "01000000"},
      {0xFF, "FF", "FF00", "FF000000"},   {0x100, "00", "0001", "00010000"},
      {0xFFFF, "FF", "FFFF", "FFFF0000"}, {0x10000, "00", "0000", "00000000"},
      {70000, "70", "7011", "70110000"},  {0x12345678, "78", "7856", "78560000"},
      {kMax, "FF", "FFFF", "FFFF0000"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TlvHelper::encodeIntUint8(c.value), hex(c.u8)) << c.value;
    EXPECT_EQ(TlvHelper::encodeIntUint16(c.value), hex(c.u16)) << c.value;
    EXPECT_EQ(TlvHelper::encodeIntUint32(c.value), hex(c.u32)) << c.value;
  }
  EXPECT_EQ(TlvHelper::getCounters(70000, 65536, true), hex("70110000 00000000"));
  EXPECT_EQ(TlvHelper::getCounters(70000, 5, false), hex("70110000"));

  // Mode 2 only for a transaction outside registration; the key algorithm only in registration.
  EXPECT_EQ(TlvHelper::makeAssertionInfo(true, false), hex("0100 01 0200 0101"));
  EXPECT_EQ(TlvHelper::makeAssertionInfo(true, true), hex("0100 01 0200 0101"));
  EXPECT_EQ(TlvHelper::makeAssertionInfo(false, false), hex("0100 01 0200"));
  EXPECT_EQ(TlvHelper::makeAssertionInfo(false, true), hex("0100 02 0200"));

  EXPECT_EQ(TlvHelper::getBytes("\xC3\xA9t\xC3\xA9"), hex("C3A974C3A9"));
  EXPECT_EQ(TlvHelper::getExtensionData({"id", "d", true}), hex("132E 0200 6964 142E 0100 64"));
  EXPECT_EQ(TlvHelper::getExtensionData({}), hex("132E 0000 142E 0000"));
}

TEST(TlvEncodersTest, RandomStringWithLength) {
  for (int64_t count : {std::numeric_limits<int64_t>::min(), int64_t{-1}, int64_t{0}}) {
    EXPECT_EQ(TlvHelper::randomStringWithLength(count), "");
  }
  const std::string text = TlvHelper::randomStringWithLength(6200);
  ASSERT_EQ(text.size(), 6200u);
  const std::set<char> seen(text.begin(), text.end());
  EXPECT_EQ(std::string(seen.begin(), seen.end()),
            "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST_F(TlvHelperTest, EdgeCasesTheRelyingPartyDependsOn) {
  // Absent fields are empty values and zero counters; without extensions the KRD ends with the
  // public key and the signed data with the counters.
  for (const std::optional<std::vector<Extension>>& exts :
       {std::optional<std::vector<Extension>>(), std::optional(std::vector<Extension>())}) {
    AssertionFields empty;
    empty.exts = exts;
    EXPECT_EQ(TlvHelper::getKrdData(empty), hex("0B2E0000 0E2E0700 01000102000101 0A2E0000 092E0000"
                                                "0D2E0800 0000000000000000 0C2E0000"));
    // Absent tcHash still writes its element, with length 0.
    EXPECT_EQ(helper_.getAuthSignedData(empty),
              hex("0B2E0000 0E2E0500 0100010200 0F2E0800 4162336445356737 0A2E0000 102E0000"
                  "092E0000 0D2E0400 00000000"));
  }
  // The counters keep the low 16 bits only.
  AssertionFields fields = fixedFields();
  for (const auto& [counter, expected] : {std::pair<uint64_t, std::string_view>{70000, "70110000"},
                                          {65536, "00000000"},
                                          {65535, "FFFF0000"}}) {
    fields.signCounter = counter;
    const Bytes krd = TlvHelper::getKrdData(fields);
    ByteReader reader(krd);
    for (uint16_t tag :
         {tlv::TAG_AAID, tlv::TAG_ASSERTION_INFO, tlv::TAG_FINAL_CHALLENGE_HASH, tlv::TAG_KEYID}) {
      expectElement(reader, tag);
    }
    EXPECT_EQ(expectElement(reader, tlv::TAG_COUNTERS), hex(std::string(expected) + "01000000"));
  }
  // Two sign assertions from one dictionary differ in nonce and signature.
  TlvHelper randomNonces(attesting_);
  const Bytes first = randomNonces.getAuthAssertionData(fields, kTag);
  const Bytes second = randomNonces.getAuthAssertionData(fields, kTag);
  const size_t nonceAt = 4 + 13 + 9 + 4;
  ASSERT_TRUE(first.size() > nonceAt + 8 && second.size() > nonceAt + 8);
  const std::string nonce(first.begin() + nonceAt, first.begin() + nonceAt + 8);
  EXPECT_EQ(
      nonce.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"),
      std::string::npos);
  EXPECT_NE(nonce, std::string(second.begin() + nonceAt, second.begin() + nonceAt + 8));
  EXPECT_NE(signatureAt(first, 191), signatureAt(second, 191));
}

}  // namespace
}  // namespace corvane
