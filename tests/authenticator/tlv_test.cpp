// TlvHelper: both assertions against hand-written golden bytes, parsed back independently and
// verified with OpenSSL (attestation signature and chain, user signature), and the encoders.
#include "authenticator/tlv_helper.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <string>

#include "crypto/attestation_material.h"
#include "crypto/openssl_handles.h"
#include "foundation/byte_io.h"
#include "storage/keychain_rig.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

Bytes hex(std::string_view text) {
  return Utils::hexString2NSData(text);
}
Bytes copy(ByteView bytes) {
  return Bytes(bytes.begin(), bytes.end());
}

X509Ptr pemCertificate(std::string_view name) {
  const std::string pem = testing::readFile(testing::resourcesDir() / "attestation" / name);
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

// Hand-assembled bytes: hex text, little-endian 16-bit lengths and spliced runs.
struct Golden {
  Bytes bytes;
  Golden& h(std::string_view text) { return raw(hex(text)); }
  Golden& le16(size_t value) { return raw(Bytes{uint8_t(value), uint8_t(value >> 8)}); }
  Golden& raw(ByteView run) {
    bytes.insert(bytes.end(), run.begin(), run.end());
    return *this;
  }
};

constexpr std::string_view kHash =
    "A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3B4B5B6B7B8B9BABBBCBDBEBF";
constexpr std::string_view kTcHash =
    "C0C1C2C3C4C5C6C7C8C9CACBCCCDCECFD0D1D2D3D4D5D6D7D8D9DADBDCDDDEDF";
// DER SubjectPublicKeyInfo of the P-256 point G.
constexpr std::string_view kPublicKey =
    "3059301306072A8648CE3D020106082A8648CE3D030107034200046B17D1F2E12C4247F8BCE6E563A440F2"
    "77037D812DEB33A0F4A13945D898C2964FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51"
    "F5";
// AAID "0F3D#0002" ... KEYID "0123456789abcdef"; the extensions with tags 3E11 then 3E12.
const std::string kAaid = "0B2E 0900 3046334423 30303032";
const std::string kKeyId = "092E 1000 30313233343536373839616263646566";
const std::string kExtensions =
    "113E 1A00 132E 0F00 72656769737465726564 5F75756964 142E 0300 616263"
    "123E 1300 132E 0B00 6D617463685F6D6F64656C 142E 0000";

AssertionFields fixedFields() {
  AssertionFields fields;
  fields.aaid = "0F3D#0002";
  fields.finalChallengeHash = hex(kHash);
  fields.keyID = "0123456789abcdef";
  fields.base64UrlKeyID = "not-encoded";
  fields.publicKey = hex(kPublicKey);
  fields.signCounter = 70000;
  fields.regCounter = 65537;
  fields.exts = {{"registered_uuid", "abc", true}, {"match_model", std::nullopt, std::nullopt}};
  fields.isTxAuth = true;
  fields.tcHash = hex(kTcHash);
  return fields;
}

// The signature value after the 06 2E tag at `offset`.
Bytes signatureAt(ByteView data, size_t offset) {
  if (data.size() < offset + 4 || data[offset] != 0x06 || data[offset + 1] != 0x2E) return {};
  const size_t length = data[offset + 2] | (data[offset + 3] << 8);
  return data.size() < offset + 4 + length ? Bytes() : copy(data.subspan(offset + 4, length));
}

Bytes decode(const std::string& text) {
  EXPECT_TRUE(Utils::isBase64urlString(text));
  return Utils::decodeBase64Url(text).value_or(Bytes());
}

Bytes expectElement(ByteReader& reader, uint16_t tag) {
  std::optional<ByteReader> value = reader.readElement(tag);
  EXPECT_TRUE(value) << "missing element " << std::hex << tag;
  return value ? copy(value->rest()) : Bytes();
}

bool verifiesWithCertificate(X509* cert, ByteView message, ByteView signature) {
  MdCtxPtr context(EVP_MD_CTX_new());
  return context &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                              X509_get0_pubkey(cert)) == 1 &&
         EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

class TlvHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rig_.opened() && certificate_ && root_);
    publicKey_ = rig_.keychain->generate256EcKeyPair("pub", kTag).value_or(Bytes());
    ASSERT_EQ(publicKey_.size(), 91u);
  }
  // The KRD / signed data element parsed back field by field, extensions included.
  void expectFields(ByteReader& r, std::initializer_list<std::pair<uint16_t, Bytes>> fields) {
    for (const auto& [tag, value] : fields) EXPECT_EQ(expectElement(r, tag), value) << tag;
    for (const auto& [tag, id, data] : {std::tuple<uint16_t, std::string, std::string>{
                                            tlv::TAG_EXTENSION, "registered_uuid", "abc"},
                                        {tlv::TAG_EXTENSION_NON_CRITICAL, "match_model", ""}}) {
      std::optional<ByteReader> extension = r.readElement(tag);
      ASSERT_TRUE(extension);
      EXPECT_EQ(expectElement(*extension, tlv::TAG_EXTENSION_ID), TlvHelper::getBytes(id));
      EXPECT_EQ(expectElement(*extension, tlv::TAG_EXTENSION_DATA), TlvHelper::getBytes(data));
      EXPECT_TRUE(extension->empty());
    }
    EXPECT_TRUE(r.empty());
  }
  static constexpr std::string_view kTag = "app.0F3D#0002.PRI.user";
  testing::KeychainRig rig_{testing::StoreKind::fake};
  WhiteboxAttestationKeySource source_;
  Keychain attesting_{rig_.items(), rig_.keys, rig_.biometry, rig_.configuration, &source_};
  TlvHelper helper_{attesting_, [] { return std::string("Ab3dE5g7"); }};
  X509Ptr certificate_ = pemCertificate("attestation.pem");
  X509Ptr root_ = pemCertificate("root.pem");
  Bytes publicKey_;
};

// The registration assertion of fixedFields() with this attestation signature and certificate.
Bytes regGolden(ByteView signature, ByteView certificate) {
  Golden g;
  g.h("013E").le16(256 + signature.size() + certificate.size()).h("033E F000").h(kAaid);
  g.h("0E2E 0700 0100 01 0200 0101 0A2E 2000").h(kHash).h(kKeyId);  // mode 1, ECDSA, X9.62
  g.h("0D2E 0800 70110000 01000000 0C2E 5B00").h(kPublicKey).h(kExtensions);  // 70000, 65537
  g.h("073E").le16(8 + signature.size() + certificate.size());
  g.h("062E").le16(signature.size()).raw(signature);
  g.h("052E").le16(certificate.size()).raw(certificate);
  return g.bytes;
}

// The sign assertion of fixedFields() (signCounter 0x12345678, mode 2) with this signature.
Bytes authGolden(ByteView signature) {
  Golden g;
  g.h("023E").le16(195 + signature.size()).h("043E BB00").h(kAaid);
  g.h("0E2E 0500 0100 02 0200 0F2E 0800 4162336445356737 0A2E 2000").h(kHash);
  g.h("102E 2000").h(kTcHash).h(kKeyId).h("0D2E 0400 78560000").h(kExtensions);
  g.h("062E").le16(signature.size()).raw(signature);
  return g.bytes;
}

TEST_F(TlvHelperTest, RegistrationAssertionMatchesGoldenAndVerifiesAgainstTheRoot) {
  unsigned char* der = nullptr;
  const int derSize = i2d_X509(certificate_.get(), &der);
  const Bytes cert(der, der + std::max(derSize, 0));
  OPENSSL_free(der);
  const AssertionFields fields = fixedFields();
  const Bytes assertion = decode(helper_.getRegAssertions(fields, kTag).value());
  const Bytes signature = signatureAt(assertion, 4 + 244 + 4);
  ASSERT_GE(signature.size(), 8u);
  EXPECT_EQ(assertion, regGolden(signature, cert));
  const Bytes data = helper_.getRegAssertionData(fields, kTag).value();
  EXPECT_EQ(data, copy(ByteView(regGolden(signatureAt(data, 244 + 4), cert)).subspan(4)));
  // Without an attestation key there is no assertion at all, never one with an empty signature.
  EXPECT_FALSE(TlvHelper(*rig_.keychain).getRegAssertions(fields, kTag));

  ByteReader top(assertion);
  std::optional<ByteReader> reg = top.readElement(tlv::TAG_UAFV1_REG_ASSERTION);
  ASSERT_TRUE(reg && top.empty());
  std::optional<TlvElement> krd = reg->readElement();
  ASSERT_TRUE(krd && krd->tag == tlv::TAG_UAFV1_KRD);
  EXPECT_EQ(TlvHelper::getKrdData(fields).value(), copy(krd->value.rest()));
  expectFields(krd->value, {{tlv::TAG_AAID, TlvHelper::getBytes(*fields.aaid)},
                            {tlv::TAG_ASSERTION_INFO, hex("01000102000101")},
                            {tlv::TAG_FINAL_CHALLENGE_HASH, *fields.finalChallengeHash},
                            {tlv::TAG_KEYID, TlvHelper::getBytes(*fields.keyID)},
                            {tlv::TAG_COUNTERS, hex("70110000 01000000")},
                            {tlv::TAG_PUB_KEY, *fields.publicKey}});
  std::optional<ByteReader> attestation = reg->readElement(tlv::TAG_ATTESTATION_BASIC_FULL);
  ASSERT_TRUE(attestation && reg->empty());
  const Bytes parsedSignature = expectElement(*attestation, tlv::TAG_SIGNATURE);
  const Bytes parsedDer = expectElement(*attestation, tlv::TAG_ATTESTATION_CERT);
  EXPECT_TRUE(attestation->empty());
  const unsigned char* cursor = parsedDer.data();
  X509Ptr carried(d2i_X509(nullptr, &cursor, static_cast<long>(parsedDer.size())));
  ASSERT_TRUE(carried);
  // The signature covers the whole KRD element, header included, and nothing else.
  EXPECT_TRUE(verifiesWithCertificate(carried.get(), krd->whole, parsedSignature));
  EXPECT_FALSE(verifiesWithCertificate(carried.get(), krd->whole.subspan(4), parsedSignature));
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  ASSERT_TRUE(store && context && X509_STORE_add_cert(store.get(), root_.get()) == 1);
  ASSERT_EQ(X509_STORE_CTX_init(context.get(), store.get(), carried.get(), nullptr), 1);
  EXPECT_EQ(X509_verify_cert(context.get()), 1);
}

TEST_F(TlvHelperTest, SignAssertionMatchesGoldenAndVerifiesWithTheUserKey) {
  AssertionFields fields = fixedFields();
  fields.signCounter = 0x12345678;
  const Bytes assertion = decode(helper_.getAuthAssertions(fields, kTag).value());
  const Bytes signature = signatureAt(assertion, 4 + 191);
  ASSERT_GE(signature.size(), 8u);
  EXPECT_EQ(assertion, authGolden(signature));
  const Bytes data = helper_.getAuthAssertionData(fields, kTag).value();
  EXPECT_EQ(data, copy(ByteView(authGolden(signatureAt(data, 191))).subspan(4)));
  // A key that is missing or cannot sign gives no assertion.
  EXPECT_FALSE(helper_.getAuthAssertions(fields, "no.such.tag"));

  ByteReader top(assertion);
  std::optional<ByteReader> auth = top.readElement(tlv::TAG_UAFV1_AUTH_ASSERTION);
  ASSERT_TRUE(auth && top.empty());
  std::optional<TlvElement> signedData = auth->readElement();
  ASSERT_TRUE(signedData && signedData->tag == tlv::TAG_UAFV1_SIGNED_DATA);
  EXPECT_EQ(helper_.getAuthSignedData(fields).value(), copy(signedData->value.rest()));
  expectFields(signedData->value, {{tlv::TAG_AAID, TlvHelper::getBytes(*fields.aaid)},
                                   {tlv::TAG_ASSERTION_INFO, hex("0100020200")},
                                   {tlv::TAG_AUTHENTICATOR_NONCE, TlvHelper::getBytes("Ab3dE5g7")},
                                   {tlv::TAG_FINAL_CHALLENGE_HASH, *fields.finalChallengeHash},
                                   {tlv::TAG_TRANSACTION_CONTENT_HASH, *fields.tcHash},
                                   {tlv::TAG_KEYID, TlvHelper::getBytes(*fields.keyID)},
                                   {tlv::TAG_COUNTERS, hex("78560000")}});
  EXPECT_EQ(expectElement(*auth, tlv::TAG_SIGNATURE), signature);
  EXPECT_TRUE(auth->empty());
  EXPECT_TRUE(testing::verifies(publicKey_, signedData->whole, signature));
  EXPECT_FALSE(testing::verifies(publicKey_, signedData->whole.subspan(4), signature));
  rig_.keys.failSign(true);
  EXPECT_FALSE(helper_.getAuthAssertions(fields, kTag));
  rig_.keys.failSign(false);
  // An empty nonce gives no assertion either.
  EXPECT_FALSE(TlvHelper(*rig_.keychain, [] { return std::string(); }).getAuthAssertions(fields, kTag));
}

TEST_F(TlvHelperTest, EncodersAndEmptyFields) {
  struct Case {
    uint64_t value;
    std::string_view u8, u16, u32;
  };
  for (const Case& c : {Case{0xFF, "FF", "FF00", "FF000000"},
                        {0x100, "00", "0001", "00010000"},
                        {0x10000, "00", "0000", "00000000"},
                        {70000, "70", "7011", "70110000"},
                        {~uint64_t{0}, "FF", "FFFF", "FFFF0000"}}) {
    EXPECT_EQ(TlvHelper::encodeIntUint8(c.value), hex(c.u8)) << c.value;
    EXPECT_EQ(TlvHelper::encodeIntUint16(c.value), hex(c.u16)) << c.value;
    EXPECT_EQ(TlvHelper::encodeIntUint32(c.value), hex(c.u32)) << c.value;
  }
  EXPECT_EQ(TlvHelper::getCounters(70000, 65536, true), hex("70110000 00000000"));
  EXPECT_EQ(TlvHelper::getCounters(70000, 5, false), hex("70110000"));
  // Mode 2 only for a transaction outside registration; the key algorithm only in registration.
  EXPECT_EQ(TlvHelper::makeAssertionInfo(true, true), hex("0100 01 0200 0101"));
  EXPECT_EQ(TlvHelper::makeAssertionInfo(false, false), hex("0100 01 0200"));
  EXPECT_EQ(TlvHelper::makeAssertionInfo(false, true), hex("0100 02 0200"));
  EXPECT_EQ(TlvHelper::getExtensionData({}).value(), hex("132E 0000 142E 0000"));
  // Absent fields are empty values and zero counters; absent tcHash still writes its element.
  const AssertionFields empty;
  EXPECT_EQ(TlvHelper::getKrdData(empty).value(), hex("0B2E0000 0E2E0700 01000102000101 0A2E0000 092E0000"
                                              "0D2E0800 0000000000000000 0C2E0000"));
  EXPECT_EQ(helper_.getAuthSignedData(empty).value(),
            hex("0B2E0000 0E2E0500 0100010200 0F2E0800 4162336445356737 0A2E0000 102E0000"
                "092E0000 0D2E0400 00000000"));
}

TEST_F(TlvHelperTest, ValuesTooLongForTheirLengthGiveNoAssertion) {
  // A data element holds at most 65,535 bytes; an assertion holding a longer one is never made.
  EXPECT_TRUE(TlvHelper::getExtensionData({"x", std::string(65535, 'd'), false}));
  EXPECT_FALSE(TlvHelper::getExtensionData({"x", std::string(65536, 'd'), false}));
  for (size_t size : {size_t{1000}, size_t{65536}}) {
    AssertionFields fields = fixedFields();
    fields.exts = std::vector<Extension>{{"x", std::string(size, 'd'), false}};
    EXPECT_EQ(helper_.getAuthAssertions(fields, kTag).has_value(), size == 1000) << size;
    EXPECT_EQ(helper_.getRegAssertions(fields, kTag).has_value(), size == 1000) << size;
  }
}

}  // namespace
}  // namespace corvane
