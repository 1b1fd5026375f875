#include "authenticator/generic_authenticator.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "fakes/fake_host_bundle.h"
#include "fakes/fake_user_defaults.h"
#include "foundation/utils.h"

namespace corvane {
namespace {

using nlohmann::json;
using G = GenericAuthenticator;

TEST(GenericAuthenticatorTest, SwitchCheck) {
  using Setting = std::optional<InfoValue>;
  const std::tuple<Setting, Setting, bool, bool> cases[] = {
      {std::nullopt, std::nullopt, true, true}, {"N", std::nullopt, false, true},
      {std::nullopt, "N", true, false},         {"n", "n", true, true},
      {"NO", InfoValue(false), true, true},
  };
  for (const auto& [biometric, pattern, biometryActive, patternActive] : cases) {
    testing::FakeHostBundle host, framework;
    testing::FakeUserDefaults defaults;
    framework.setInfo(kSdkConfigKey, settings::kBiometricActive, "N");  // never consulted
    if (biometric) host.setInfo(kSdkConfigKey, settings::kBiometricActive, *biometric);
    if (pattern) host.setInfo(kSdkConfigKey, settings::kPatternLockActive, *pattern);
    const Configuration configuration(host, framework, defaults);
    EXPECT_EQ(G::checkUserVerificationActive(1, configuration), biometryActive);
    EXPECT_EQ(G::checkUserVerificationActive(2, configuration), patternActive);
    EXPECT_TRUE(G::checkUserVerificationActive(3, configuration));
    EXPECT_TRUE(G::checkUserVerificationActive((1ull << 32) + 1, configuration));
  }
}

TEST(GenericAuthenticatorTest, BasicInfoValues) {
  const json expected = json::parse(R"({"authenticatorIndex":8,
      "asmVersions":[{"major":1,"minor":1}],"isUserEnrolled":false,"hasSettings":false,
      "aaid":"0F3D#0002","assertionScheme":"UAFV1TLV","authenticationAlgorithm":2,
      "attestationTypes":[15879],"userVerification":146,"keyProtection":1,"matcherProtection":1,
      "attachmentHint":1,"isSecondFactorOnly":false,"isRoamingAuthenticator":false,
      "supportedExtensionIDs":["registered_uuid","match_model","wb_encryption","register_limit"],
      "tcDisplay":2,"tcDisplayContentType":"text/plain","title":"FIDO UAF","desc":"FIDO UAF"})");
  json actual = G::getBasicAuthenticatorInfo().toJson();
  EXPECT_EQ(actual.value("icon", ""), G::icon());
  actual.erase("icon");
  EXPECT_EQ(actual, expected);
}

uint32_t bigEndian(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

TEST(GenericAuthenticatorTest, IconIsA100By35Png) {
  const std::string_view prefix = "data:image/png;base64,";
  const std::string_view url = G::icon();
  ASSERT_TRUE(url.starts_with(prefix));
  const std::string_view encoded = url.substr(prefix.size());
  Bytes png(encoded.size() / 4 * 3);
  const int n = EVP_DecodeBlock(png.data(), reinterpret_cast<const uint8_t*>(encoded.data()),
                                static_cast<int>(encoded.size()));
  ASSERT_GE(n, 0);
  const size_t padding = encoded.ends_with("==") ? 2 : encoded.ends_with('=') ? 1 : 0;
  png.resize(static_cast<size_t>(n) - padding);
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
    if (types.back() == "IHDR") {  // 100 x 35, 8 bits RGBA, not interlaced
      EXPECT_EQ(Bytes(data, data + length), Utils::hexString2NSData("00000064000000230806000000"));
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
  EXPECT_EQ(rawSize, 35 * stride);
}

}  // namespace
}  // namespace corvane
