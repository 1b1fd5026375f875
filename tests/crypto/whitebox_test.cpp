#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <zlib.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "crypto/aes_wb_helper.h"
#include "crypto/whitebox.h"
#include "crypto/whitebox_generator.h"
#include "crypto/whitebox_tables.h"

namespace corvane {
namespace {

using namespace whitebox;
using Json = nlohmann::json;

Bytes randomBytes(size_t n) {
  Bytes b(n);
  if (n) {
    EXPECT_EQ(RAND_bytes(b.data(), static_cast<int>(n)), 1);
  }
  return b;
}

SecretBytes randomKey() {
  return SecretBytes(randomBytes(kAes256KeySize));
}

// OpenSSL's AES-256 in ECB (no padding) or CFB-128, the reference for every comparison.
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

// The authXor codes of the embedded set, recovered once for all per-user tests.
const XorCodebook& authCodebook() {
  static const XorCodebook book = [] {
    const XorTables* authXor = builtinAuthXor();
    EXPECT_NE(authXor, nullptr);
    auto recovered = XorCodebook::recover(*authXor);
    EXPECT_TRUE(recovered.has_value());
    return *recovered;
  }();
  return book;
}

std::vector<uint8_t> inverseEncoding(std::span<const uint8_t> encoding) {
  std::vector<uint8_t> inverse(encoding.size());
  for (size_t p = 0; p < 16; ++p) {
    for (size_t v = 0; v < 256; ++v) inverse[p * 256 + encoding[p * 256 + v]] = uint8_t(v);
  }
  return inverse;
}

// 200 keys in every build; a sanitizer build may lower it through CORVANE_WB_TEST_KEYS.
#if defined(__SANITIZE_ADDRESS__)
#define CORVANE_WB_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CORVANE_WB_TEST_ASAN 1
#endif
#endif

size_t keyCount() {
#ifdef CORVANE_WB_TEST_ASAN
  if (const char* env = std::getenv("CORVANE_WB_TEST_KEYS")) return std::strtoul(env, nullptr, 10);
#endif
  return 200;
}

TEST(WhiteboxAes, RandomKeysMatchOpenSslEcbAndCfb) {
  const auto identity = generateExternalEncoding(true);
  ASSERT_TRUE(identity);
  const size_t keys = keyCount();
  for (size_t n = 0; n < keys; ++n) {
    SCOPED_TRACE("key #" + std::to_string(n));
    const SecretBytes key = randomKey();
    const auto round = generateRoundTables(key, authCodebook());
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
  const SecretBytes key = randomKey();
  const auto round = generateRoundTables(key, authCodebook());
  const auto encoding = generateExternalEncoding(false);
  ASSERT_TRUE(round && encoding);
  const auto tables =
      WhiteboxUserTables::fromArrays(round->tyboxes, round->tboxesLast, round->mbl, *encoding);
  ASSERT_TRUE(tables);
  const WhiteboxNetwork& network = tables->network();
  const auto inverse = inverseEncoding(*encoding);
  const Bytes iv = randomBytes(16);
  for (size_t length = 0; length <= 100; ++length) {
    const Bytes plain = randomBytes(length);
    const auto cipher = AesWBHelper::encryptAesWB(plain, hexadecimalString(iv), *tables);
    ASSERT_TRUE(cipher);
    Bytes decoded(length), recovered(length);
    for (size_t i = 0; i < length; ++i) decoded[i] = inverse[(i % 16) * 256 + (*cipher)[i]];
    EXPECT_EQ(decoded, openssl(EVP_aes_256_cfb128(), key, iv.data(), plain)) << length;
    ASSERT_TRUE(
        cfbDecrypt(network, std::span<const uint8_t, 16>(iv.data(), 16), decoded, recovered));
    EXPECT_EQ(recovered, plain) << length;
  }
}

TEST(WhiteboxAes, BuiltinGeneratorMakesAesForBothXorSets) {
  for (int n = 0; n < 3; ++n) {
    const SecretBytes key = randomKey();
    const auto blobBytes = generateBuiltinBlob(key);
    ASSERT_TRUE(blobBytes && blob::isValid(*blobBytes));
    auto words = [&](size_t offset) {
      std::vector<uint32_t> w(kRoundWordCount);
      for (size_t i = 0; i < w.size(); ++i) {
        for (size_t b = 0; b < 4; ++b)
          w[i] |= uint32_t{(*blobBytes)[offset + 4 * i + b]} << (8 * b);
      }
      return w;
    };
    const auto tyboxes = words(blob::kTyboxesOffset), mbl = words(blob::kMblOffset);
    const ByteView all(*blobBytes);
    const auto xorTables = XorTables::validate(all.subspan(blob::kXorOffset, kXorEntryCount));
    ASSERT_TRUE(xorTables);
    const auto network = WhiteboxNetwork::make(
        *xorTables, tyboxes, all.subspan(blob::kTboxesLastOffset, kLastRoundCount), mbl);
    ASSERT_TRUE(network);
    EXPECT_TRUE(networkMatchesAes256(*network, key, 8));

    // Per-user tables made for this blob's authXor are AES as well.
    const auto authXor = authXorFromBlob(*blobBytes);
    ASSERT_TRUE(authXor);
    const auto round = generateRoundTables(key, *XorCodebook::recover(*authXor));
    const auto userNetwork =
        WhiteboxNetwork::make(*authXor, round->tyboxes, round->tboxesLast, round->mbl);
    EXPECT_TRUE(networkMatchesAes256(*userNetwork, key, 8));
  }
}

// The block function against a literal reading of the table order, on arbitrary random tables
// (not only ones that compute AES): every index and every table position is exercised.
TEST(WhiteboxAes, BlockFunctionFollowsTableOrderOnArbitraryTables) {
  Bytes x = randomBytes(kXorEntryCount), last = randomBytes(kLastRoundCount);
  for (auto& e : x) e &= 0xF;
  std::vector<uint32_t> t(kRoundWordCount), m(kRoundWordCount);
  RAND_bytes(reinterpret_cast<uint8_t*>(t.data()), int(t.size() * 4));
  RAND_bytes(reinterpret_cast<uint8_t*>(m.data()), int(m.size() * 4));
  const auto network = WhiteboxNetwork::make(*XorTables::validate(x), t, last, m);
  ASSERT_TRUE(network);
  auto X = [&](size_t r, size_t tab, unsigned u, unsigned w) {
    return x[(r * 96 + tab) * 256 + u * 16 + w];
  };
  auto layer = [&](uint8_t* s, size_t r, const std::vector<uint32_t>& words) {
    for (size_t j = 0; j < 4; ++j) {
      uint32_t v[4];
      for (size_t k = 0; k < 4; ++k) v[k] = words[(r * 16 + 4 * j + k) * 256 + s[4 * j + k]];
      uint8_t out[4];
      for (size_t q = 0; q < 4; ++q) {
        const size_t tab = 24 * j + 6 * q;
        unsigned hn[4], ln[4];
        for (size_t k = 0; k < 4; ++k) {
          const unsigned byte = (v[k] >> (24 - 8 * q)) & 0xFF;
          hn[k] = byte >> 4, ln[k] = byte & 0xF;
        }
        const unsigned high = X(r, tab + 4, X(r, tab, hn[0], hn[1]), X(r, tab + 1, hn[2], hn[3]));
        const unsigned low =
            X(r, tab + 5, X(r, tab + 2, ln[0], ln[1]), X(r, tab + 3, ln[2], ln[3]));
        out[q] = uint8_t(high << 4 | low);
      }
      std::copy_n(out, 4, s + 4 * j);
    }
  };
  for (int trial = 0; trial < 50; ++trial) {
    const Bytes input = randomBytes(16);
    uint8_t expected[16], actual[16];
    std::copy_n(input.begin(), 16, expected);
    std::copy_n(input.begin(), 16, actual);
    for (size_t r = 0; r < 13; ++r) {
      ShiftRows(expected);
      layer(expected, r, t);
      layer(expected, r, m);
    }
    ShiftRows(expected);
    for (size_t i = 0; i < 16; ++i) expected[i] = last[i * 256 + expected[i]];
    CipherDetail(actual, *network);
    ASSERT_TRUE(std::equal(actual, actual + 16, expected));
  }
}

TEST(WhiteboxAes, ShiftRowsPermutation) {
  uint8_t s[16];
  for (uint8_t i = 0; i < 16; ++i) s[i] = i;
  ShiftRows(s);
  const uint8_t expected[16] = {0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11};
  EXPECT_TRUE(std::equal(s, s + 16, expected));
}

TEST(WhiteboxAes, BuiltinSetDecryptsItsOwnCfbEncryption) {
  const WhiteboxNetwork* builtin = builtinNetwork();
  ASSERT_NE(builtin, nullptr);
  const Bytes iv = Utils::hexString2NSData(AesWBHelper::kBuiltinIV);
  for (size_t length = 1; length <= 100; ++length) {
    const Bytes plain = randomBytes(length);
    Bytes cipher(length);
    ASSERT_TRUE(
        cfbEncrypt(*builtin, std::span<const uint8_t, 16>(iv.data(), 16), plain, cipher, {}));
    EXPECT_NE(cipher, plain);
    const auto decrypted = AesWBHelper::decryptAesWB(hexadecimalString(cipher), length);
    ASSERT_TRUE(decrypted);
    EXPECT_TRUE(std::equal(plain.begin(), plain.end(), decrypted->exposeSecret().begin()))
        << length;
    // The hex text must be exactly 2 * length digits.
    EXPECT_FALSE(AesWBHelper::decryptAesWB(hexadecimalString(cipher), length + 1));
    EXPECT_FALSE(AesWBHelper::decryptAesWB(hexadecimalString(cipher).substr(1), length));
  }
  EXPECT_FALSE(AesWBHelper::decryptAesWB("", 0));
}

TEST(WhiteboxAes, ReadHexRejectsWithoutTouchingOutput) {
  const std::string good = "00ff7A1b";
  uint8_t out[4] = {9, 9, 9, 9};
  ASSERT_TRUE(read_hex(good, out, 4, "iv-or-nonce"));
  EXPECT_EQ(Bytes(out, out + 4), (Bytes{0x00, 0xFF, 0x7A, 0x1B}));

  auto untouched = [](std::string_view hex, size_t count, size_t room) {
    Bytes buffer(room, 0xA5);
    Error error;
    const bool ok = read_hex(hex, buffer, count, "cipherHexString", &error);
    return !ok && buffer == Bytes(room, 0xA5) &&
           error.localizedDescription().starts_with("cipherHexString");
  };
  for (size_t length = 0; length <= 2 * 16 + 3; ++length) {
    if (length != 32) {
      EXPECT_TRUE(untouched(std::string(length, 'a'), 16, 16)) << length;
    }
  }
  for (size_t pos = 0; pos < good.size(); ++pos) {
    for (char junk : {'g', 'G', ' ', '-', 'x', '\0'}) {
      std::string bad = good;
      bad[pos] = junk;
      EXPECT_TRUE(untouched(bad, 4, 4)) << pos;
    }
  }
  EXPECT_TRUE(untouched("", 0, 4));
  EXPECT_TRUE(untouched(good, 4, 3));  // output shorter than the count
}

TEST(WhiteboxAes, GenerateIVIsStableSha256Prefix) {
  EXPECT_EQ(AesWBHelper::generateIV(""), "e3b0c44298fc1c149afbf4c8996fb924");
  EXPECT_EQ(AesWBHelper::generateIV("alice"), AesWBHelper::generateIV("alice"));
  EXPECT_EQ(AesWBHelper::generateIV("alice"), Utils::sha256("alice").substr(0, 32));
  EXPECT_NE(AesWBHelper::generateIV("alice"), AesWBHelper::generateIV("alicf"));
}

TEST(WhiteboxAes, WrongSizedTablesAreRejected) {
  const auto round = generateRoundTables(randomKey(), authCodebook());
  auto encoding = *generateExternalEncoding(false);
  const std::string iv(32, '0');
  const Bytes plain = randomBytes(40);
  std::span<const uint32_t> ty = round->tyboxes, mbl = round->mbl;
  std::span<const uint8_t> last = round->tboxesLast, enc = encoding;
  ASSERT_TRUE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl, enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty.first(ty.size() - 1), last, mbl, enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last.first(last.size() - 1), mbl, enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl.first(mbl.size() - 1), enc));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl, enc.first(enc.size() - 1)));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl, {}));
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv.substr(1), ty, last, mbl, enc));
  encoding[5 * 256 + 7] = encoding[5 * 256 + 8];  // no longer a permutation
  EXPECT_FALSE(AesWBHelper::encryptAesWB(plain, iv, ty, last, mbl, encoding));

  Bytes x(kXorEntryCount, 0);
  EXPECT_TRUE(XorTables::validate(x));
  EXPECT_FALSE(XorTables::validate(ByteView(x).first(x.size() - 1)));
  x[kXorEntryCount - 1] = 16;
  EXPECT_FALSE(XorTables::validate(x));
}

TEST(WhiteboxAes, CodebookAndBlobRejectDamage) {
  const ByteView builtin = builtinBlob();
  ASSERT_TRUE(blob::isValid(builtin));
  const Bytes original(builtin.begin(), builtin.end());
  // One changed entry in each table of a tree breaks it.
  for (size_t offset : {size_t{0}, size_t{256 + 17}, size_t{4 * 256 + 255}, size_t{95 * 256 + 3},
                        size_t{12 * 96 * 256 + 5 * 256}}) {
    Bytes damaged = original;
    uint8_t& entry = damaged[blob::kAuthXorOffset + offset];
    entry = uint8_t((entry + 1) & 0xF);
    EXPECT_FALSE(XorCodebook::recover(*authXorFromBlob(damaged))) << offset;
  }
  for (size_t i = 0; i < blob::kHeaderSize; ++i) {
    Bytes damaged = original;
    damaged[i] ^= 0x01;
    EXPECT_FALSE(blob::isValid(damaged)) << i;
  }
  EXPECT_FALSE(blob::isValid(ByteView(original).first(original.size() - 1)));
  Bytes damaged = original;
  damaged[blob::kXorOffset + 1000] = 0x10;
  EXPECT_FALSE(blob::isValid(damaged));
}

// A data1/data2 pair as JSON objects, with the nesting the server uses.
struct BundleJson {
  Json data1, data2;
};

BundleJson bundleJson(const RoundTables& round, std::span<const uint8_t> encoding) {
  auto nested = [](auto values, std::vector<size_t> dims) {
    std::function<Json(size_t, size_t)> build = [&](size_t level, size_t offset) {
      Json array = Json::array();
      size_t stride = 1;
      for (size_t d = level + 1; d < dims.size(); ++d) stride *= dims[d];
      for (size_t i = 0; i < dims[level]; ++i) {
        array.push_back(level + 1 == dims.size() ? Json(values[offset + i])
                                                 : build(level + 1, offset + i * stride));
      }
      return array;
    };
    return build(0, 0);
  };
  BundleJson b;
  b.data1["Tyboxes"] = nested(std::span<const uint32_t>(round.tyboxes), {13, 16, 256});
  b.data1["TboxesLast"] = nested(std::span<const uint8_t>(round.tboxesLast), {16, 256});
  b.data1["MBL"] = nested(std::span<const uint32_t>(round.mbl), {13, 16, 256});
  b.data2["permutations"] = nested(encoding, {16, 256});
  return b;
}

TEST(WhiteboxUserTablesParse, AcceptsExactShapesAndRejectsEveryDeviation) {
  const SecretBytes key = randomKey();
  const auto round = generateRoundTables(key, authCodebook());
  const auto encoding = generateExternalEncoding(false);
  const BundleJson good = bundleJson(*round, *encoding);
  const auto parsed = WhiteboxUserTables::fromJson(good.data1, good.data2);
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(networkMatchesAes256(parsed->network(), key, 4));
  EXPECT_TRUE(std::ranges::equal(parsed->externalEncoding(), *encoding));

  // Each damage is applied to a fresh copy of the good pair; every one must be refused.
  using Damage = std::function<void(BundleJson&)>;
  const std::vector<std::pair<std::string, Damage>> damages = {
      {"no Tyboxes", [](BundleJson& b) { b.data1.erase("Tyboxes"); }},
      {"no TboxesLast", [](BundleJson& b) { b.data1.erase("TboxesLast"); }},
      {"no MBL", [](BundleJson& b) { b.data1.erase("MBL"); }},
      {"no permutations", [](BundleJson& b) { b.data2.erase("permutations"); }},
      {"data1 an array", [](BundleJson& b) { b.data1 = Json::array(); }},
      {"12 rounds", [](BundleJson& b) { b.data1["Tyboxes"].erase(12); }},
      {"14 rounds", [](BundleJson& b) { b.data1["MBL"].push_back(b.data1["MBL"][0]); }},
      {"15 positions", [](BundleJson& b) { b.data1["MBL"][3].erase(15); }},
      {"255 entries", [](BundleJson& b) { b.data1["Tyboxes"][12][15].erase(255); }},
      {"257 entries", [](BundleJson& b) { b.data1["TboxesLast"][0].push_back(0); }},
      {"flat last", [](BundleJson& b) { b.data1["TboxesLast"] = b.data1["TboxesLast"][0]; }},
      {"word too big", [](BundleJson& b) { b.data1["Tyboxes"][0][0][0] = 4294967296ull; }},
      {"negative", [](BundleJson& b) { b.data1["MBL"][1][2][3] = -1; }},
      {"fraction", [](BundleJson& b) { b.data1["Tyboxes"][4][5][6] = 1.5; }},
      {"text", [](BundleJson& b) { b.data1["TboxesLast"][7][8] = "8"; }},
      {"byte too big", [](BundleJson& b) { b.data1["TboxesLast"][15][255] = 256; }},
      {"null", [](BundleJson& b) { b.data2["permutations"][2][9] = nullptr; }},
      {"not a permutation",
       [](BundleJson& b) { b.data2["permutations"][3][0] = b.data2["permutations"][3][1]; }},
  };
  for (const auto& [name, damage] : damages) {
    BundleJson copy = good;
    damage(copy);
    EXPECT_FALSE(WhiteboxUserTables::fromJson(copy.data1, copy.data2)) << name;
  }
  EXPECT_FALSE(WhiteboxUserTables::fromJsonText(asBytes("{"), asBytes("{}")));
}

Bytes gzipForTest(std::string_view text) {
  z_stream s{};
  EXPECT_EQ(deflateInit2(&s, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes out(deflateBound(&s, uLong(text.size())));
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  s.avail_in = uInt(text.size());
  s.next_out = out.data();
  s.avail_out = uInt(out.size());
  EXPECT_EQ(deflate(&s, Z_FINISH), Z_STREAM_END);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

TEST(WhiteboxUserTablesParse, BundleRejectsCutAndJunkText) {
  const auto round = generateRoundTables(randomKey(), authCodebook());
  const BundleJson good = bundleJson(*round, *generateExternalEncoding(false));
  const std::string data1 = Utils::base64URLSafeStringFromData(gzipForTest(good.data1.dump()));
  const std::string data2 = Utils::base64URLSafeStringFromData(gzipForTest(good.data2.dump()));
  ASSERT_TRUE(WhiteboxUserTables::fromBundle(data1, data2));
  // Cuts spread over the whole text and at the very end; a cut member never inflates.
  const size_t step = data1.size() / 37 + 1;
  for (size_t keep = 0; keep < data1.size(); keep += (keep + 64 < data1.size() ? step : 1)) {
    EXPECT_FALSE(WhiteboxUserTables::fromBundle(data1.substr(0, keep), data2)) << keep;
  }
  for (size_t keep = 0; keep < data2.size(); keep += 97) {
    EXPECT_FALSE(WhiteboxUserTables::fromBundle(data1, data2.substr(0, keep))) << keep;
  }
  EXPECT_FALSE(WhiteboxUserTables::fromBundle("ZANDREL_FIDO_NO_DATA", data2));
  EXPECT_FALSE(WhiteboxUserTables::fromBundle(data1, "%%%"));
  EXPECT_FALSE(WhiteboxUserTables::fromBundle(
      Utils::base64URLSafeStringFromData(gzipForTest("[1,2,3]")), data2));
}

#ifdef CORVANE_WBGEN_PATH
// Runs the built wbgen and returns its standard output and exit status.
std::pair<std::string, int> runWbgen(const std::string& args) {
  const std::string command = std::string(CORVANE_WBGEN_PATH) + " " + args + " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {"", -1};
  std::string out;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
  const int status = pclose(pipe);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(WbgenTool, UserTablesBundleIsAesUnderTheKey) {
  const SecretBytes key = randomKey();
  const std::string keyHex = hexadecimalString(key.exposeSecret());
  for (bool identity : {true, false}) {
    const auto [out, status] =
        runWbgen("user-tables --key " + keyHex + (identity ? " --identity-encoding" : ""));
    ASSERT_EQ(status, 0);
    const Json bundle = Json::parse(out, nullptr, false);
    ASSERT_TRUE(bundle.is_object() && bundle.size() == 2);
    ASSERT_TRUE(bundle["data1"].is_string() && bundle["data2"].is_string());
    const auto tables = WhiteboxUserTables::fromBundle(bundle["data1"].get<std::string>(),
                                                       bundle["data2"].get<std::string>());
    ASSERT_TRUE(tables);
    const Bytes iv = randomBytes(16), plain = randomBytes(77);
    const auto cipher = AesWBHelper::encryptAesWB(plain, hexadecimalString(iv), *tables);
    ASSERT_TRUE(cipher);
    const Bytes expected = openssl(EVP_aes_256_cfb128(), key, iv.data(), plain);
    const auto inverse = inverseEncoding(tables->externalEncoding());
    Bytes decoded(cipher->size());
    for (size_t i = 0; i < decoded.size(); ++i) decoded[i] = inverse[(i % 16) * 256 + (*cipher)[i]];
    EXPECT_EQ(decoded, expected);
    EXPECT_EQ(*cipher == expected, identity);
  }
}

TEST(WbgenTool, UsageErrorsExitTwo) {
  for (const std::string& args : std::vector<std::string>{
           "", "frobnicate", "user-tables", "user-tables --key", "user-tables --key zz",
           "user-tables --key " + std::string(63, 'a'), "user-tables --key " + std::string(64, 'g'),
           "builtin --random-key", "builtin --out /nonexistent/x", "user-tables --bogus"}) {
    EXPECT_EQ(runWbgen(args).second, 2) << args;
  }
  EXPECT_EQ(runWbgen("--help").second, 0);
}
#endif

}  // namespace
}  // namespace corvane
