// GenericAuthenticator: the user-verification maps, the configuration switches, the basic
// metadata record and the embedded logo.
#include "authenticator/generic_authenticator.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <limits>
#include <string>

#include "fakes/fake_host_bundle.h"
#include "fakes/fake_user_defaults.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using nlohmann::json;
using G = GenericAuthenticator;

TEST(GenericAuthenticatorTest, UserVerificationNamesAndIndices) {
  EXPECT_EQ(G::listAllUserVerification(),
            (std::map<std::string, uint64_t, std::less<>>{{"biometry", 1}, {"pattern", 2}}));
  EXPECT_EQ(G::listAllUserVerificationString(),
            (std::map<uint64_t, std::string>{{1, "biometry"}, {2, "pattern"}}));

  const std::pair<const char*, uint64_t> names[] = {
      {"biometry", 1}, {"pattern", 2}, {"Pattern", 0}, {"pattern ", 0},
      {"", 0},         {"face", 0},    {"patter", 0},  {"biometry\n", 0},
  };
  for (const auto& [name, index] : names) {
    EXPECT_EQ(G::getUserVerificationWithString(name), index) << name;
  }
  const std::pair<uint64_t, std::optional<std::string>> indices[] = {
      {0, std::nullopt},
      {1, "biometry"},
      {2, "pattern"},
      {3, std::nullopt},
      {(1ull << 32) + 1, std::nullopt},
      {std::numeric_limits<uint64_t>::max(), std::nullopt},
  };
  for (const auto& [index, name] : indices) {
    EXPECT_EQ(G::userVerificationString(index), name) << index;
  }
}

TEST(GenericAuthenticatorTest, SwitchCheck) {
  using testing::FakeHostBundle;
  using Setting = std::optional<InfoValue>;
  struct Case {
    const char* name;
    Setting biometric;  // host value of "zandrel_fido_biometric_active"
    Setting pattern;    // host value of "zandrel_fido_pattern_lock_active"
    bool biometryActive;
    bool patternActive;
  };
  const Case cases[] = {
      {"both absent", std::nullopt, std::nullopt, true, true},
      {"biometry N", "N", std::nullopt, false, true},
      {"pattern N", std::nullopt, "N", true, false},
      {"both N", "N", "N", false, false},
      {"lower-case n", "n", "n", true, true},
      {"Y", "Y", "Y", true, true},
      {"empty", "", "", true, true},
      {"NO", "NO", "N ", true, true},
      {"not a text", InfoValue(false), InfoValue(int64_t{0}), true, true},
  };
  const uint64_t alwaysActive[] = {0, 3, (1ull << 32) + 1, (1ull << 32) + 2,
                                   std::numeric_limits<uint64_t>::max()};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeHostBundle host;
    FakeHostBundle framework;
    testing::FakeUserDefaults defaults;
    // The framework's own switches are never consulted.
    framework.setInfo(kSdkConfigKey, settings::kBiometricActive, "N");
    framework.setInfo(kSdkConfigKey, settings::kPatternLockActive, "N");
    if (c.biometric) host.setInfo(kSdkConfigKey, settings::kBiometricActive, *c.biometric);
    if (c.pattern) host.setInfo(kSdkConfigKey, settings::kPatternLockActive, *c.pattern);
    const Configuration configuration(host, framework, defaults);
    EXPECT_EQ(G::checkUserVerificationActive(1, configuration), c.biometryActive);
    EXPECT_EQ(G::checkUserVerificationActive(2, configuration), c.patternActive);
    for (uint64_t index : alwaysActive) {
      EXPECT_TRUE(G::checkUserVerificationActive(index, configuration)) << index;
    }
  }
}

TEST(GenericAuthenticatorTest, BasicInfoValues) {
  const json expected = {
      {"authenticatorIndex", 8},
      {"asmVersions", json::array({{{"major", 1}, {"minor", 1}}})},
      {"isUserEnrolled", false},
      {"hasSettings", false},
      {"aaid", "0F3D#0002"},
      {"assertionScheme", "UAFV1TLV"},
      {"authenticationAlgorithm", 2},
      {"attestationTypes", json::array({15879})},
      {"userVerification", 146},
      {"keyProtection", 1},
      {"matcherProtection", 1},
      {"attachmentHint", 1},
      {"isSecondFactorOnly", false},
      {"isRoamingAuthenticator", false},
      {"supportedExtensionIDs",
       json::array({"registered_uuid", "match_model", "wb_encryption", "register_limit"})},
      {"tcDisplay", 2},
      {"tcDisplayContentType", "text/plain"},
      {"title", "FIDO UAF"},
      {"desc", "FIDO UAF"},
      {"icon", std::string(G::icon())},
  };
  const AuthenticatorInfo info = G::getBasicAuthenticatorInfo();
  const json actual = info.toJson();
  for (const auto& [key, value] : expected.items()) {
    EXPECT_EQ(actual.value(key, json()), value) << key;
  }
  // tcDisplayPNGCharacteristics, keyIDs, uvs, uv and status are left for others to fill.
  EXPECT_EQ(actual.size(), expected.size()) << actual.dump();
  EXPECT_TRUE(Version::checkVersion(info.asmVersions->at(0)));
}

TEST(GenericAuthenticatorTest, BasicRecordsAreIndependentSharedOneIsNot) {
  AuthenticatorInfo first = G::getBasicAuthenticatorInfo();
  first.uv = "pattern";
  first.status = 4;
  first.supportedExtensionIDs->clear();
  const AuthenticatorInfo second = G::getBasicAuthenticatorInfo();
  EXPECT_FALSE(second.uv);
  EXPECT_FALSE(second.status);
  EXPECT_EQ(second.supportedExtensionIDs->size(), 4u);

  const auto& all = G::listAllBasicAuthenticatorInfo();
  ASSERT_EQ(all.size(), 2u);
  ASSERT_TRUE(all.contains(1) && all.contains(2));
  EXPECT_EQ(all.at(1).get(), all.at(2).get());
  EXPECT_EQ(*all.at(1), second);
  EXPECT_EQ(&G::listAllBasicAuthenticatorInfo(), &all);
}

// ---- The logo -----------------------------------------------------------------------------

uint32_t bigEndian(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

TEST(GenericAuthenticatorTest, IconIsTheCommitted100By35Png) {
  const std::string_view prefix = "data:image/png;base64,";
  const std::string_view url = G::icon();
  ASSERT_TRUE(url.starts_with(prefix));
  const std::string_view encoded = url.substr(prefix.size());
  // Standard base64 with padding, decoded by OpenSSL (which refuses other symbols).
  Bytes png(encoded.size() / 4 * 3);
  const int n = EVP_DecodeBlock(png.data(), reinterpret_cast<const uint8_t*>(encoded.data()),
                                static_cast<int>(encoded.size()));
  ASSERT_GE(n, 0);
  const size_t padding = encoded.ends_with("==") ? 2 : encoded.ends_with('=') ? 1 : 0;
  png.resize(static_cast<size_t>(n) - padding);
  EXPECT_EQ(asText(png), testing::readFile(testing::resourcesDir() / "authenticator_logo.png"));
  ASSERT_TRUE(asText(png).starts_with("\x89PNG\r\n\x1A\n"));

  std::vector<std::string> types;
  Bytes idat;
  for (size_t pos = 8; pos < png.size();) {
    ASSERT_LE(pos + 12, png.size());
    const uint32_t length = bigEndian(&png[pos]);
    ASSERT_LE(pos + 12 + length, png.size());
    const uint8_t* type = &png[pos + 4];
    const uint8_t* data = type + 4;
    types.emplace_back(reinterpret_cast<const char*>(type), 4);
    EXPECT_EQ(crc32(0, type, 4 + length), bigEndian(data + length)) << "CRC of " << types.back();
    if (types.back() == "IHDR") {
      // 100 x 35, 8 bits RGBA, deflate, adaptive filtering, not interlaced.
      EXPECT_EQ(Bytes(data, data + length),
                Utils::hexString2NSData("00000064 00000023 0806000000"));
    } else if (types.back() == "IDAT") {
      idat.insert(idat.end(), data, data + length);
    }
    pos += 12 + length;
  }
  ASSERT_GE(types.size(), 3u);
  EXPECT_EQ(types.front(), "IHDR");
  EXPECT_EQ(types.back(), "IEND");

  const size_t stride = 1 + 100 * 4;
  Bytes raw(35 * stride + 1);  // one spare byte shows an over-long stream
  uLongf rawSize = raw.size();
  ASSERT_EQ(uncompress(raw.data(), &rawSize, idat.data(), idat.size()), Z_OK);
  ASSERT_EQ(rawSize, 35 * stride);
  for (size_t row = 0; row < 35; ++row) EXPECT_LE(raw[row * stride], 4) << "filter of row " << row;
}

}  // namespace
}  // namespace corvane
