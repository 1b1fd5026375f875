#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include <nlohmann/json.hpp>

#include "crypto/aes_wb_helper.h"
#include "crypto/whitebox.h"
#include "crypto/whitebox_tables.h"
#include "tablegen/whitebox_generator.h"

namespace corvane {
namespace {

using namespace whitebox;
using Json = nlohmann::json;

Bytes randomBytes(size_t n) {
  Bytes b(n);
  EXPECT_EQ(RAND_bytes(b.data(), static_cast<int>(n)), 1);
  return b;
}

Bytes openssl(const EVP_CIPHER* cipher, const SecretBytes& key, const uint8_t* iv, ByteView in) {
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      EVP_CIPHER_CTX_free);
  Bytes out(in.size() + 16);
  int n = 0;
  EXPECT_EQ(EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, key.exposeSecret().data(), iv), 1);
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), out.data(), &n, in.data(), static_cast<int>(in.size())),
            1);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::optional<RoundTables> roundTables(const SecretBytes& key) {
  static const XorCodebook book = *XorCodebook::recover(*builtinAuthXor());
  return generateRoundTables(key, book);
}

// 200 keys; a slow (sanitizer) build may lower it through CORVANE_WB_TEST_KEYS.
size_t keyCount() {
  const char* env = std::getenv("CORVANE_WB_TEST_KEYS");
  return env ? std::strtoul(env, nullptr, 10) : 200;
}

TEST(WhiteboxAes, RandomKeysMatchOpenSslEcbAndCfb) {
  const auto identity = generateExternalEncoding(true);
  ASSERT_TRUE(identity);
  for (size_t n = 0; n < keyCount(); ++n) {
    SCOPED_TRACE("key #" + std::to_string(n));
    const SecretBytes key(randomBytes(kAes256KeySize));
    const auto round = roundTables(key);
    ASSERT_TRUE(round);
    const auto network =
        WhiteboxNetwork::make(*builtinAuthXor(), round->tyboxes, round->tboxesLast, round->mbl);
    ASSERT_TRUE(network);
    const Bytes blocks = randomBytes(64);
    const Bytes expected = openssl(EVP_aes_256_ecb(), key, nullptr, blocks);
    for (size_t b = 0; b < 4; ++b) {
      uint8_t state[16];
      std::copy_n(blocks.begin() + 16 * b, 16, state);
      CipherDetail(state, *network);
      ASSERT_TRUE(std::equal(state, state + 16, expected.begin() + 16 * b));
    }
    // Every length from 0 to 100 is covered twice over the 200 keys.
    const Bytes iv = randomBytes(16), plain = randomBytes(n % 101);
    const auto cipher = AesWBHelper::encryptAesWB(plain, hexadecimalString(iv), round->tyboxes,
                                                  round->tboxesLast, round->mbl, *identity);
    ASSERT_TRUE(cipher);
    ASSERT_EQ(*cipher, openssl(EVP_aes_256_cfb128(), key, iv.data(), plain));
  }
}

TEST(WhiteboxAes, CfbEveryLengthAndExternalEncodingRoundTrip) {
  const SecretBytes key(randomBytes(kAes256KeySize));
  const auto round = roundTables(key);
  const auto encoding = generateExternalEncoding(false);
  ASSERT_TRUE(round && encoding);
  const auto tables =
      WhiteboxUserTables::fromArrays(round->tyboxes, round->tboxesLast, round->mbl, *encoding);
  ASSERT_TRUE(tables);
  std::vector<uint8_t> inverse(encoding->size());
  for (size_t i = 0; i < inverse.size(); ++i) inverse[i / 256 * 256 + (*encoding)[i]] = i % 256;
  const Bytes iv = randomBytes(16);
  for (size_t length = 0; length <= 100; ++length) {
    const Bytes plain = randomBytes(length);
    const auto cipher = AesWBHelper::encryptAesWB(plain, hexadecimalString(iv), *tables);
    ASSERT_TRUE(cipher);
    Bytes decoded(length), recovered(length);
    for (size_t i = 0; i < length; ++i) decoded[i] = inverse[(i % 16) * 256 + (*cipher)[i]];
    EXPECT_EQ(decoded, openssl(EVP_aes_256_cfb128(), key, iv.data(), plain)) << length;
    ASSERT_TRUE(cfbDecrypt(tables->network(), std::span<const uint8_t, 16>(iv.data(), 16), decoded,
                           recovered));
    EXPECT_EQ(recovered, plain) << length;
  }
}

TEST(WhiteboxAes, BuiltinSetDecryptsItsOwnCfbEncryptionAndIvIsSha256Prefix) {
  const Bytes iv = Utils::hexString2NSData(AesWBHelper::kBuiltinIV);
  for (size_t length = 1; length <= 100; length += 33) {
    const Bytes plain = randomBytes(length);
    Bytes cipher(length);
    ASSERT_TRUE(cfbEncrypt(*builtinNetwork(), std::span<const uint8_t, 16>(iv.data(), 16), plain,
                           cipher, {}));
    const auto decrypted = AesWBHelper::decryptAesWB(hexadecimalString(cipher), length);
    ASSERT_TRUE(decrypted);
    EXPECT_TRUE(std::ranges::equal(plain, decrypted->exposeSecret())) << length;
    EXPECT_FALSE(AesWBHelper::decryptAesWB(hexadecimalString(cipher), length + 1));
    EXPECT_FALSE(AesWBHelper::decryptAesWB(hexadecimalString(cipher).substr(1), length));
  }
  EXPECT_FALSE(AesWBHelper::decryptAesWB("", 0));
  EXPECT_EQ(AesWBHelper::generateIV(""), "e3b0c44298fc1c149afbf4c8996fb924");
  EXPECT_EQ(AesWBHelper::generateIV("alice"), Utils::sha256("alice").substr(0, 32));
}

TEST(WhiteboxUserTablesParse, AcceptsExactShapesAndRejectsEveryDeviation) {
  const SecretBytes key(randomBytes(kAes256KeySize));
  const auto round = roundTables(key);
  auto encoding = *generateExternalEncoding(false);
  auto nest = [](auto values, size_t outer, size_t inner) {
    Json a = Json::array();
    for (size_t i = 0; i < outer; ++i) {
      Json row = Json::array();
      for (size_t j = 0; j < inner; ++j) row.push_back(values[i * inner + j]);
      a.push_back(row);
    }
    return a;
  };
  auto words = [&](const std::vector<uint32_t>& v) {
    Json a = Json::array();
    for (size_t r = 0; r < 13; ++r) a.push_back(nest(std::span(v).subspan(r * 4096), 16, 256));
    return a;
  };
  const Json good1 = {{"Tyboxes", words(round->tyboxes)},
                      {"TboxesLast", nest(round->tboxesLast, 16, 256)},
                      {"MBL", words(round->mbl)}};
  const Json good2 = {{"permutations", nest(encoding, 16, 256)}};
  const auto parsed = WhiteboxUserTables::fromJson(good1, good2);
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(networkMatchesAes256(parsed->network(), key, 4));
  EXPECT_TRUE(std::ranges::equal(parsed->externalEncoding(), encoding));
  const std::vector<std::function<void(Json&, Json&)>> damages = {
      [](Json& d, Json&) { d.erase("Tyboxes"); },
      [](Json&, Json& p) { p.erase("permutations"); },
      [](Json& d, Json&) { d = Json::array(); },
      [](Json& d, Json&) { d["Tyboxes"].erase(12); },
      [](Json& d, Json&) { d["MBL"].push_back(d["MBL"][0]); },
      [](Json& d, Json&) { d["MBL"][3].erase(15); },
      [](Json& d, Json&) { d["Tyboxes"][12][15].erase(255); },
      [](Json& d, Json&) { d["TboxesLast"][0].push_back(0); },
      [](Json& d, Json&) { d["TboxesLast"] = d["TboxesLast"][0]; },
      [](Json& d, Json&) { d["Tyboxes"][0][0][0] = 4294967296ull; },
      [](Json& d, Json&) { d["MBL"][1][2][3] = -1; },
      [](Json& d, Json&) { d["Tyboxes"][4][5][6] = 1.5; },
      [](Json& d, Json&) { d["TboxesLast"][7][8] = "8"; },
      [](Json& d, Json&) { d["TboxesLast"][15][255] = 256; },
      [](Json&, Json& p) { p["permutations"][2][9] = nullptr; },
      [](Json&, Json& p) { p["permutations"][3][0] = p["permutations"][3][1]; },
  };
  for (size_t n = 0; n < damages.size(); ++n) {
    Json d = good1, p = good2;
    damages[n](d, p);
    EXPECT_FALSE(WhiteboxUserTables::fromJson(d, p)) << n;
  }
  const std::string iv(32, '0');
  const Bytes plain = randomBytes(40);
  std::span<const uint32_t> ty = round->tyboxes, mbl = round->mbl;
  std::span<const uint8_t> last = round->tboxesLast, enc = encoding;
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty.first(ty.size() - 1), last, mbl, enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last.first(last.size() - 1), mbl, enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl.first(mbl.size() - 1), enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl, enc.first(enc.size() - 1)));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv.substr(1), ty, last, mbl, enc));
  Bytes x(kXorEntryCount, 0);
  EXPECT_TRUE(XorTables::validate(x));
  EXPECT_FALSE(XorTables::validate(ByteView(x).first(x.size() - 1)));
  x.back() = 16;
  EXPECT_FALSE(XorTables::validate(x));
}

}  // namespace
}  // namespace corvane
