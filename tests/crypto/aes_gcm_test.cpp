#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

#include "crypto/gf128.h"
#include "crypto/iag_aes_gcm.h"
#include "foundation/utils.h"

namespace corvane {
namespace {

using gf128::Backend;

constexpr auto hex = &Utils::hexString2NSData;

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

void expectError(const Error& error, int64_t code) {
  EXPECT_EQ(error.domain(), "IAGErrorDomain");
  EXPECT_EQ(error.code(), code);
  EXPECT_FALSE(error.message().has_value());
}

// Published AES-256 known answers: empty text, empty AAD, 96-, 64- and 480-bit IVs.
TEST(IAGAesGcmTest, KnownAnswersSealAndOpenWithEveryBackendAndTagLength) {
  const std::string k = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";
  const std::string p60 =
      "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
      "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39";
  const std::string a = "feedfacedeadbeeffeedfacedeadbeefabaddad2", z12(24, '0'), z16(32, '0');
  const std::string c96 =
      "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
      "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662";
  const std::vector<std::vector<std::string>> vectors = {
      // key, plain, aad, iv, cipher, tag
      {std::string(64, '0'), "", "", z12, "", "530f8afbc74536b9a963b4f1c4cb738b"},
      {std::string(64, '0'), z16, "", z12, "cea7403d4d606b6e074ec5d3baf39d18",
       "d0d1c8a799996bf0265b98b5d48ab919"},
      {k, p60 + "1aafd255", "", "cafebabefacedbaddecaf888", c96 + "898015ad",
       "b094dac5d93471bdec1a502270e3cc6c"},
      {k, p60, a, "cafebabefacedbaddecaf888", c96, "76fc6ece0f4e1768cddf8853bb2d551b"},
      {k, p60, a,
       "9313225df88406e555909c5aff5269aa6a7a9538534f7da1e4c303d2a318a728"
       "c3c0c95156809539fcf0e2429a6b525416aedbf5a0de6a57a637b39b",
       "5a8def2f0c9e53f1f75d7853659e2a20eeb2b22aafde6419a058ab4f6f746bf4"
       "0fc0c3b780f244452da3ebf1c5d82cdea2418997200ef82e44ae7e3f",
       "a44a8266ee1c8eb0c8b5d4cf5ae9f19a"},
  };
  for (const auto& v : vectors) {
    SCOPED_TRACE(v[4]);
    const Bytes key = hex(v[0]), plain = hex(v[1]), aad = hex(v[2]), iv = hex(v[3]);
    const IAGCipheredData expected(hex(v[4]), hex(v[5]));
    Error error;
    auto sealed =
        IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, aad, 16, iv, key, &error);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_TRUE(sealed->isEqualToCipheredData(expected)) << sealed->description();
    auto opened =
        IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(expected, aad, iv, key, &error);
    ASSERT_TRUE(opened && std::ranges::equal(plain, opened->exposeSecret()));
    for (Backend backend : backends()) {
      auto context = IAGAesGcm::Context::create(key, &error, backend);
      ASSERT_TRUE(context.has_value());
      for (size_t tagLength : {4, 8, 12, 15, 16}) {
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

void expectMatchesOpenSsl(IAGAesGcm::Context& context, const Bytes& key, const Bytes& iv,
                          const Bytes& aad, const Bytes& plain) {
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_gcm()
                             : key.size() == 24 ? EVP_aes_192_gcm()
                                                : EVP_aes_256_gcm();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(plain.size() + 16), tag(16);
  int len = 0, fin = 0;
  const bool ok =
      EVP_EncryptInit_ex(ctx, cipher, nullptr, nullptr, nullptr) == 1 &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv.size()), nullptr) == 1 &&
      EVP_EncryptInit_ex(ctx, nullptr, nullptr, key.data(), iv.data()) == 1 &&
      (aad.empty() ||
       EVP_EncryptUpdate(ctx, nullptr, &len, aad.data(), static_cast<int>(aad.size())) == 1) &&
      EVP_EncryptUpdate(ctx, out.data(), &len, plain.data(), static_cast<int>(plain.size())) == 1 &&
      EVP_EncryptFinal_ex(ctx, out.data() + len, &fin) == 1 &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag.data()) == 1;
  EVP_CIPHER_CTX_free(ctx);
  ASSERT_TRUE(ok);
  out.resize(static_cast<size_t>(len + fin));
  const IAGCipheredData reference(out, tag);
  auto sealed = context.seal(plain, aad, 16, iv, nullptr);
  ASSERT_TRUE(sealed.has_value());
  ASSERT_TRUE(sealed->isEqualToCipheredData(reference)) << iv.size() << " " << plain.size();
  auto opened = context.open(reference, aad, iv, nullptr);
  ASSERT_TRUE(opened && std::ranges::equal(plain, opened->exposeSecret()));
}

TEST(IAGAesGcmTest, MatchesOpenSslOnRandomInputsAndCounterBatchBoundaries) {
  std::mt19937 rng(20240611);
  for (Backend backend : backends()) {
    for (int round = 0; round < 400; ++round) {
      const Bytes key = randomBytes(rng, 16 + 8 * (rng() % 3));
      auto context = IAGAesGcm::Context::create(key, nullptr, backend);
      ASSERT_TRUE(context.has_value());
      const Bytes iv = randomBytes(rng, round % 4 == 0 ? 12 : 1 + rng() % 64);
      expectMatchesOpenSsl(*context, key, iv, randomBytes(rng, rng() % 301),
                           randomBytes(rng, rng() % 301));
    }
    // Counter blocks are enciphered 64 at a time, J0 taking the first slot.
    const Bytes key = randomBytes(rng, 32);
    auto context = IAGAesGcm::Context::create(key, nullptr, backend);
    for (size_t length : {1007, 1008, 1009, 1024, 1025, 2032, 2033, 65536 + 5}) {
      expectMatchesOpenSsl(*context, key, randomBytes(rng, 12), randomBytes(rng, 33),
                           randomBytes(rng, length));
    }
  }
}

TEST(IAGAesGcmTest, DescriptionAndLengthLimits) {
  EXPECT_EQ(IAGCipheredData(Bytes{1, 2}, Bytes{3}).description(),
            "<IAGCipheredData buffer (2 bytes): 0102 authenticationTag (1 bytes): 03>");
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
  EXPECT_FALSE(
      IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, {}, 16, {}, key, nullptr));
  struct Case {
    Bytes key, iv;
    size_t tagLength;
    int64_t code;
  };
  const std::vector<Case> cases = {
      {key, {}, 16, 1},       {key, iv, 3, 1}, {key, iv, 5, 1},        {key, iv, 11, 1},
      {key, iv, 17, 1},       {{}, iv, 16, 0}, {Bytes(15), iv, 16, 0}, {Bytes(17), iv, 16, 0},
      {Bytes(33), iv, 16, 0}, {{}, {}, 16, 1}};
  for (size_t n = 0; n < cases.size(); ++n) {
    const Case& c = cases[n];
    SCOPED_TRACE(n);
    Error error;
    EXPECT_FALSE(IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(plain, {}, c.tagLength,
                                                                           c.iv, c.key, &error));
    expectError(error, c.code);
    if (c.tagLength > 16) continue;
    const IAGCipheredData withTag(sealed.buffer(),
                                  Bytes(sealed.authenticationTag().begin(),
                                        sealed.authenticationTag().begin() + c.tagLength));
    error = Error();
    EXPECT_FALSE(IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(withTag, {}, c.iv, c.key,
                                                                           &error));
    expectError(error, c.code);
  }
}

TEST(IAGAesGcmTest, EveryFlippedBitOfTagCiphertextAadOrIvIsRejected) {
  std::mt19937 rng(99);
  const Bytes key = randomBytes(rng, 16), iv = randomBytes(rng, 12);
  const Bytes aad = randomBytes(rng, 21), plain = randomBytes(rng, 37);
  auto flip = [](Bytes b, size_t bit) {
    b[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    return b;
  };
  for (Backend backend : backends()) {
    auto context = IAGAesGcm::Context::create(key, nullptr, backend);
    ASSERT_TRUE(context.has_value());
    const IAGCipheredData sealed = *context->seal(plain, aad, 16, iv, nullptr);
    const Bytes& buf = sealed.buffer();
    const Bytes& tag = sealed.authenticationTag();
    auto rejected = [&](const Bytes& b, const Bytes& t, const Bytes& a, const Bytes& i) {
      Error error;
      EXPECT_FALSE(context->open(IAGCipheredData(b, t), a, i, &error).has_value());
      expectError(error, 2);
    };
    for (size_t bit = 0; bit < 128; ++bit) rejected(buf, flip(tag, bit), aad, iv);
    for (size_t bit = 0; bit < buf.size() * 8; ++bit) rejected(flip(buf, bit), tag, aad, iv);
    for (size_t bit = 0; bit < aad.size() * 8; ++bit) rejected(buf, tag, flip(aad, bit), iv);
    for (size_t bit = 0; bit < iv.size() * 8; ++bit) rejected(buf, tag, aad, flip(iv, bit));
    for (size_t cut = 0; cut < buf.size(); ++cut)
      rejected(Bytes(buf.begin(), buf.begin() + cut), tag, aad, iv);
    Bytes longer = buf;
    longer.push_back(0);
    rejected(longer, tag, aad, iv);
  }
}

TEST(Gf128Test, PclmulAndPortableAgreeOnRandomInputs) {
  if (!gf128::pclmulSupported()) GTEST_SKIP() << "no PCLMULQDQ on this processor";
  std::mt19937 byteRng(6);
  for (size_t blocks = 0; blocks <= 21; ++blocks) {
    const Bytes h = randomBytes(byteRng, 16), data = randomBytes(byteRng, blocks * 16);
    const gf128::GhashKey portable(h.data(), Backend::kPortable),
        pclmul(h.data(), Backend::kPclmul);
    ASSERT_EQ(pclmul.backend(), Backend::kPclmul);
    gf128::Element y1{byteRng(), byteRng()}, y2 = y1;
    portable.update(y1, data.data(), blocks);
    pclmul.update(y2, data.data(), blocks);
    ASSERT_EQ(y1, y2) << blocks << " blocks";
  }
}

}  // namespace
}  // namespace corvane
