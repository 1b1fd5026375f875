// AES-GCM: published known answers, differential checks against OpenSSL's own GCM, the error
// codes, tampering, and the two GHASH implementations against each other.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "crypto/gf128.h"
#include "crypto/iag_aes_gcm.h"
#include "foundation/utils.h"

namespace corvane {
namespace {

using gf128::Backend;

Bytes hex(std::string_view text) {
  return Utils::hexString2NSData(text);
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
  Bytes out(n);
  for (auto& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

std::vector<Backend> backends() {
  std::vector<Backend> out{Backend::kPortable};
  if (gf128::pclmulSupported()) out.push_back(Backend::kPclmul);
  return out;
}

// ---- Known answers: the eighteen test cases of the GCM submission (AES-128, -192, -256) ----

struct Vector {
  const char* key;
  const char* plain;
  const char* aad;
  const char* iv;
  const char* cipher;
  const char* tag;
};

constexpr const char* kK1 = "feffe9928665731c6d6a8f9467308308";
constexpr const char* kK2 = "feffe9928665731c6d6a8f9467308308feffe9928665731c";
constexpr const char* kK3 = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";
constexpr const char* kP64 =
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
    "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255";
constexpr const char* kP60 =
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
    "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39";
constexpr const char* kA = "feedfacedeadbeeffeedfacedeadbeefabaddad2";
constexpr const char* kIv96 = "cafebabefacedbaddecaf888";
constexpr const char* kIv64 = "cafebabefacedbad";
constexpr const char* kIv480 =
    "9313225df88406e555909c5aff5269aa6a7a9538534f7da1e4c303d2a318a728"
    "c3c0c95156809539fcf0e2429a6b525416aedbf5a0de6a57a637b39b";
constexpr const char* kZ12 = "000000000000000000000000";
constexpr const char* kZ16 = "00000000000000000000000000000000";

const Vector kVectors[] = {
    {kZ16, "", "", kZ12, "", "58e2fccefa7e3061367f1d57a4e7455a"},
    {kZ16, kZ16, "", kZ12, "0388dace60b6a392f328c2b971b2fe78", "ab6e47d42cec13bdf53a67b21257bddf"},
    {kK1, kP64, "", kIv96,
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
     "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091473f5985",
     "4d5c2af327cd64a62cf35abd2ba6fab4"},
    {kK1, kP60, kA, kIv96,
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
     "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091",
     "5bc94fbc3221a5db94fae95ae7121a47"},
    {kK1, kP60, kA, kIv64,
     "61353b4c2806934a777ff51fa22a4755699b2a714fcdc6f83766e5f97b6c7423"
     "73806900e49f24b22b097544d4896b424989b5e1ebac0f07c23f4598",
     "3612d2e79e3b0785561be14aaca2fccb"},
    {kK1, kP60, kA, kIv480,
     "8ce24998625615b603a033aca13fb894be9112a5c3a211a8ba262a3cca7e2ca7"
     "01e4a9a4fba43c90ccdcb281d48c7c6fd62875d2aca417034c34aee5",
     "619cc5aefffe0bfa462af43c1699d050"},
    {"000000000000000000000000000000000000000000000000", "", "", kZ12, "",
     "cd33b28ac773f74ba00ed1f312572435"},
    {"000000000000000000000000000000000000000000000000", kZ16, "", kZ12,
     "98e7247c07f0fe411c267e4384b0f600", "2ff58d80033927ab8ef4d4587514f0fb"},
    {kK2, kP64, "", kIv96,
     "3980ca0b3c00e841eb06fac4872a2757859e1ceaa6efd984628593b40ca1e19c"
     "7d773d00c144c525ac619d18c84a3f4718e2448b2fe324d9ccda2710acade256",
     "9924a7c8587336bfb118024db8674a14"},
    {kK2, kP60, kA, kIv96,
     "3980ca0b3c00e841eb06fac4872a2757859e1ceaa6efd984628593b40ca1e19c"
     "7d773d00c144c525ac619d18c84a3f4718e2448b2fe324d9ccda2710",
     "2519498e80f1478f37ba55bd6d27618c"},
    {kK2, kP60, kA, kIv64,
     "0f10f599ae14a154ed24b36e25324db8c566632ef2bbb34f8347280fc4507057"
     "fddc29df9a471f75c66541d4d4dad1c9e93a19a58e8b473fa0f062f7",
     "65dcc57fcf623a24094fcca40d3533f8"},
    {kK2, kP60, kA, kIv480,
     "d27e88681ce3243c4830165a8fdcf9ff1de9a1d8e6b447ef6ef7b79828666e45"
     "81e79012af34ddd9e2f037589b292db3e67c036745fa22e7e9b7373b",
     "dcf566ff291c25bbb8568fc3d376a6d9"},
    {"0000000000000000000000000000000000000000000000000000000000000000", "", "", kZ12, "",
     "530f8afbc74536b9a963b4f1c4cb738b"},
    {"0000000000000000000000000000000000000000000000000000000000000000", kZ16, "", kZ12,
     "cea7403d4d606b6e074ec5d3baf39d18", "d0d1c8a799996bf0265b98b5d48ab919"},
    {kK3, kP64, "", kIv96,
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad",
     "b094dac5d93471bdec1a502270e3cc6c"},
    {kK3, kP60, kA, kIv96,
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662",
     "76fc6ece0f4e1768cddf8853bb2d551b"},
    {kK3, kP60, kA, kIv64,
     "c3762df1ca787d32ae47c13bf19844cbaf1ae14d0b976afac52ff7d79bba9de0"
     "feb582d33934a4f0954cc2363bc73f7862ac430e64abe499f47c9b1f",
     "3a337dbf46a792c45e454913fe2ea8f2"},
    {kK3, kP60, kA, kIv480,
     "5a8def2f0c9e53f1f75d7853659e2a20eeb2b22aafde6419a058ab4f6f746bf4"
     "0fc0c3b780f244452da3ebf1c5d82cdea2418997200ef82e44ae7e3f",
     "a44a8266ee1c8eb0c8b5d4cf5ae9f19a"},
};

TEST(IAGAesGcmTest, KnownAnswersSealAndOpenWithEveryBackendAndTagLength) {
  for (size_t n = 0; n < std::size(kVectors); ++n) {
    const Vector& v = kVectors[n];
    SCOPED_TRACE("test case " + std::to_string(n + 1));
    const Bytes key = hex(v.key), plain = hex(v.plain), aad = hex(v.aad), iv = hex(v.iv);
    const IAGCipheredData expected(hex(v.cipher), hex(v.tag));

    Error error;
    auto sealed =
        IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, aad, 16, iv, key, &error);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_TRUE(sealed->isEqualToCipheredData(expected)) << sealed->description();
    auto opened =
        IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(expected, aad, iv, key, &error);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(opened->exposeSecret().size(), plain.size());
    EXPECT_TRUE(std::equal(plain.begin(), plain.end(), opened->exposeSecret().begin()));

    for (Backend backend : backends()) {
      auto context = IAGAesGcm::Context::create(key, &error, backend);
      ASSERT_TRUE(context.has_value());
      for (size_t tagLength : {4, 8, 12, 13, 14, 15, 16}) {
        auto truncated = context->seal(plain, aad, tagLength, iv, &error);
        ASSERT_TRUE(truncated.has_value());
        EXPECT_EQ(truncated->buffer(), expected.buffer());
        EXPECT_EQ(truncated->authenticationTag(),
                  Bytes(expected.authenticationTag().begin(),
                        expected.authenticationTag().begin() + tagLength));
        EXPECT_TRUE(context->open(*truncated, aad, iv, &error).has_value());
      }
    }
  }
}

// ---- Differential: OpenSSL's GCM as the reference ----

std::optional<IAGCipheredData> openSslSeal(const Bytes& key, const Bytes& iv, const Bytes& aad,
                                           const Bytes& plain) {
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_gcm()
                             : key.size() == 24 ? EVP_aes_192_gcm()
                                                : EVP_aes_256_gcm();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(plain.size() + 16);
  Bytes tag(16);
  int len = 0, finalLen = 0;
  const bool ok =
      EVP_EncryptInit_ex(ctx, cipher, nullptr, nullptr, nullptr) == 1 &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv.size()), nullptr) == 1 &&
      EVP_EncryptInit_ex(ctx, nullptr, nullptr, key.data(), iv.data()) == 1 &&
      (aad.empty() ||
       EVP_EncryptUpdate(ctx, nullptr, &len, aad.data(), static_cast<int>(aad.size())) == 1) &&
      EVP_EncryptUpdate(ctx, out.data(), &len, plain.data(), static_cast<int>(plain.size())) == 1 &&
      EVP_EncryptFinal_ex(ctx, out.data() + len, &finalLen) == 1 &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag.data()) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) return std::nullopt;
  out.resize(static_cast<size_t>(len + finalLen));
  return IAGCipheredData(out, tag);
}

void expectMatchesOpenSsl(IAGAesGcm::Context& context, const Bytes& key, const Bytes& iv,
                          const Bytes& aad, const Bytes& plain) {
  auto reference = openSslSeal(key, iv, aad, plain);
  ASSERT_TRUE(reference.has_value());
  Error error;
  auto sealed = context.seal(plain, aad, 16, iv, &error);
  ASSERT_TRUE(sealed.has_value());
  ASSERT_TRUE(sealed->isEqualToCipheredData(*reference))
      << "key " << key.size() << " iv " << iv.size() << " aad " << aad.size() << " plain "
      << plain.size();
  auto opened = context.open(*reference, aad, iv, &error);
  ASSERT_TRUE(opened.has_value());
  ASSERT_TRUE(std::equal(plain.begin(), plain.end(), opened->exposeSecret().begin()));
}

TEST(IAGAesGcmTest, MatchesOpenSslOnRandomInputs) {
  std::mt19937 rng(20240611);
  for (Backend backend : backends()) {
    for (int round = 0; round < 400; ++round) {
      const Bytes key = randomBytes(rng, 16 + 8 * (rng() % 3));
      const Bytes iv = randomBytes(rng, round % 4 == 0 ? 12 : 1 + rng() % 64);
      const Bytes aad = randomBytes(rng, rng() % 301);
      const Bytes plain = randomBytes(rng, rng() % 301);
      auto context = IAGAesGcm::Context::create(key, nullptr, backend);
      ASSERT_TRUE(context.has_value());
      expectMatchesOpenSsl(*context, key, iv, aad, plain);
    }
  }
}

TEST(IAGAesGcmTest, MatchesOpenSslAcrossCounterBatchBoundaries) {
  // Counter blocks are enciphered 64 at a time, J0 taking the first slot of the first batch.
  std::mt19937 rng(7);
  const Bytes key = randomBytes(rng, 32);
  for (Backend backend : backends()) {
    auto context = IAGAesGcm::Context::create(key, nullptr, backend);
    ASSERT_TRUE(context.has_value());
    for (size_t length : {1007, 1008, 1009, 1023, 1024, 1025, 2031, 2032, 2033, 65536 + 5}) {
      expectMatchesOpenSsl(*context, key, randomBytes(rng, 12), randomBytes(rng, 33),
                           randomBytes(rng, length));
    }
  }
}

// ---- Errors ----

void expectError(const Error& error, int64_t code) {
  EXPECT_EQ(error.domain(), "IAGErrorDomain");
  EXPECT_EQ(error.code(), code);
  EXPECT_FALSE(error.message().has_value());
}

TEST(IAGAesGcmTest, ErrorFactoryCodes) {
  expectError(IAGErrorFactory::errorAESFailed(), 0);
  expectError(IAGErrorFactory::errorInputDataLengthNotSupported(), 1);
  expectError(IAGErrorFactory::errorAuthenticationTagsNotIdentical(), 2);
}

TEST(IAGAesGcmTest, LengthLimitsAtTheirBoundaries) {
  constexpr uint64_t kBound = uint64_t{1} << 61;
  EXPECT_TRUE(IAGAesGcm::inputLengthsSupported((uint64_t{1} << 36) - 32, kBound - 1, 1, 16));
  EXPECT_FALSE(IAGAesGcm::inputLengthsSupported((uint64_t{1} << 36) - 31, 0, 12, 16));
  EXPECT_FALSE(IAGAesGcm::inputLengthsSupported(0, kBound, 12, 16));
  EXPECT_TRUE(IAGAesGcm::inputLengthsSupported(0, 0, kBound - 1, 16));
  EXPECT_FALSE(IAGAesGcm::inputLengthsSupported(0, 0, kBound, 16));
  EXPECT_FALSE(IAGAesGcm::inputLengthsSupported(0, 0, 0, 16));
  for (size_t tagLength = 0; tagLength <= 33; ++tagLength) {
    const bool expected = tagLength == 4 || tagLength == 8 || (tagLength >= 12 && tagLength <= 16);
    EXPECT_EQ(IAGAesGcm::inputLengthsSupported(0, 0, 12, tagLength), expected) << tagLength;
  }
}

TEST(IAGAesGcmTest, BadInputsGiveTheirCodesAndNoOutput) {
  const Bytes key(32, 7), iv(12, 1), plain(40, 2);
  const IAGCipheredData sealed =
      *IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, {}, 16, iv, key, nullptr);
  struct Case {
    const char* name;
    Bytes key, iv;
    size_t tagLength;
    int64_t code;
  };
  const std::vector<Case> cases = {{"empty iv", key, {}, 16, 1},
                                   {"tag 0", key, iv, 0, 1},
                                   {"tag 3", key, iv, 3, 1},
                                   {"tag 5", key, iv, 5, 1},
                                   {"tag 11", key, iv, 11, 1},
                                   {"tag 17", key, iv, 17, 1},
                                   {"key 0", {}, iv, 16, 0},
                                   {"key 15", Bytes(15), iv, 16, 0},
                                   {"key 17", Bytes(17), iv, 16, 0},
                                   {"key 31", Bytes(31), iv, 16, 0},
                                   {"key 33", Bytes(33), iv, 16, 0},
                                   {"key 64", Bytes(64), iv, 16, 0},
                                   {"empty iv beats key", {}, {}, 16, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Error error;
    EXPECT_FALSE(IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, {}, c.tagLength,
                                                                           c.iv, c.key, &error));
    expectError(error, c.code);
    // Opening with the same defects, the tag cut to the case's length.
    const IAGCipheredData withTag(sealed.buffer(), Bytes(sealed.authenticationTag().begin(),
                                                         sealed.authenticationTag().begin() +
                                                             std::min<size_t>(c.tagLength, 16)));
    if (c.tagLength > 16) continue;
    error = Error();
    EXPECT_FALSE(IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(withTag, {}, c.iv, c.key,
                                                                           &error));
    expectError(error, c.code);
  }
  // A null error slot is allowed.
  EXPECT_FALSE(
      IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, {}, 16, {}, key, nullptr));
}

TEST(IAGAesGcmTest, EveryFlippedBitOfTagCiphertextOrAadIsRejected) {
  std::mt19937 rng(99);
  const Bytes key = randomBytes(rng, 16), iv = randomBytes(rng, 12);
  const Bytes aad = randomBytes(rng, 21), plain = randomBytes(rng, 37);
  for (Backend backend : backends()) {
    auto context = IAGAesGcm::Context::create(key, nullptr, backend);
    ASSERT_TRUE(context.has_value());
    const IAGCipheredData sealed = *context->seal(plain, aad, 16, iv, nullptr);
    auto expectRejected = [&](const IAGCipheredData& data, const Bytes& a, const Bytes& i) {
      Error error;
      EXPECT_FALSE(context->open(data, a, i, &error).has_value());
      expectError(error, 2);
    };
    for (size_t bit = 0; bit < 16 * 8; ++bit) {
      Bytes tag = sealed.authenticationTag();
      tag[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
      expectRejected(IAGCipheredData(sealed.buffer(), tag), aad, iv);
    }
    for (size_t bit = 0; bit < plain.size() * 8; ++bit) {
      Bytes buffer = sealed.buffer();
      buffer[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
      expectRejected(IAGCipheredData(buffer, sealed.authenticationTag()), aad, iv);
    }
    for (size_t bit = 0; bit < aad.size() * 8; ++bit) {
      Bytes tampered = aad;
      tampered[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
      expectRejected(sealed, tampered, iv);
    }
    for (size_t bit = 0; bit < iv.size() * 8; ++bit) {
      Bytes tampered = iv;
      tampered[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
      expectRejected(sealed, aad, tampered);
    }
    for (size_t cut = 0; cut < plain.size(); ++cut) {
      const Bytes shorter(sealed.buffer().begin(), sealed.buffer().begin() + cut);
      expectRejected(IAGCipheredData(shorter, sealed.authenticationTag()), aad, iv);
    }
    const Bytes longer = [&] {
      Bytes b = sealed.buffer();
      b.push_back(0);
      return b;
    }();
    expectRejected(IAGCipheredData(longer, sealed.authenticationTag()), aad, iv);
  }
}

TEST(IAGAesGcmTest, CipheredDataEqualityAndDescription) {
  const IAGCipheredData a(Bytes{1, 2}, Bytes{3});
  EXPECT_TRUE(a.isEqualToCipheredData(IAGCipheredData(Bytes{1, 2}, Bytes{3})));
  EXPECT_FALSE(a.isEqualToCipheredData(IAGCipheredData(Bytes{1, 2}, Bytes{4})));
  EXPECT_FALSE(a.isEqualToCipheredData(IAGCipheredData(Bytes{1, 2, 3}, Bytes{})));
  EXPECT_FALSE(a.isEqualToCipheredData(IAGCipheredData(Bytes{1}, Bytes{2, 3})));
  EXPECT_EQ(a.description(),
            "<IAGCipheredData buffer (2 bytes): 0102 authenticationTag (1 bytes): 03>");
}

// ---- GHASH: the two implementations agree ----

TEST(Gf128Test, PclmulAndPortableAgreeOnRandomInputs) {
  if (!gf128::pclmulSupported()) GTEST_SKIP() << "no PCLMULQDQ on this processor";
  std::mt19937_64 rng(5);
  auto randomElement = [&] { return gf128::Element{rng(), rng()}; };
  const gf128::Element one{0, uint64_t{1} << 63};  // the block 80 00 .. 00 is x^0
  for (int i = 0; i < 2000; ++i) {
    const gf128::Element a = randomElement(), b = randomElement();
    const gf128::Element product = gf128::multiply(a, b, Backend::kPortable);
    ASSERT_EQ(product, gf128::multiply(a, b, Backend::kPclmul));
    ASSERT_EQ(product, gf128::multiply(b, a, Backend::kPortable));
    ASSERT_EQ(gf128::multiply(a, one, Backend::kPortable), a);
    ASSERT_EQ(gf128::multiply(a, one, Backend::kPclmul), a);
  }
  std::mt19937 byteRng(6);
  for (size_t blocks = 0; blocks <= 21; ++blocks) {
    const Bytes h = randomBytes(byteRng, 16), data = randomBytes(byteRng, blocks * 16);
    const gf128::GhashKey portable(h.data(), Backend::kPortable);
    const gf128::GhashKey pclmul(h.data(), Backend::kPclmul);
    ASSERT_EQ(pclmul.backend(), Backend::kPclmul);
    gf128::Element y1{byteRng(), byteRng()}, y2 = y1;
    portable.update(y1, data.data(), blocks);
    pclmul.update(y2, data.data(), blocks);
    ASSERT_EQ(y1, y2) << blocks << " blocks";
  }
}

}  // namespace
}  // namespace corvane
