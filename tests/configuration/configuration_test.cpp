#include "configuration/configuration.h"

#include <gtest/gtest.h>

#include "fakes/fake_host_bundle.h"
#include "fakes/fake_user_defaults.h"
#include "linux/bundle_directory.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using testing::FakeHostBundle;
using testing::FakeUserDefaults;

constexpr std::string_view kKey = "zandrel_fido_pattern_reg_title";

class ConfigurationTest : public ::testing::Test {
 protected:
  FakeHostBundle host;
  FakeHostBundle framework;
  FakeUserDefaults defaults;
  Configuration config{host, framework, defaults};
};

// Host texts are "localization=text" pairs; the framework has "FwEn" and "FwBase" by default.
struct TextCase {
  std::optional<std::string> preferredLanguage;
  std::vector<std::pair<std::string, std::string>> hostTexts;
  std::string expected;
  std::vector<std::string> hostPreferred{"en"};
  std::optional<std::string> frameworkEn = "FwEn";
  std::optional<std::string> frameworkBase = "FwBase";
};

TEST_F(ConfigurationTest, LocalizedTextFallbackOrder) {
  const std::string key(kKey);
  const auto none = std::nullopt;
  const TextCase cases[] = {
      {none, {{"en", "Host"}}, "Host"},
      {none, {}, "FwEn"},
      {none, {}, "FwBase", {"fr"}},
      {"fr", {{"fr", "HostFr"}, {"Base", "HostBase"}}, "HostFr"},
      {"fr", {{"en", "HostEn"}, {"Base", "HostBase"}}, "HostBase"},
      {"fr", {{"en", "HostEn"}}, "FwBase"},
      {"en", {}, "FwEn", {"fr"}},
      {"en-US", {}, "FwBase"},
      {"en", {}, "FwBase", {"en"}, key},
      {"fr", {{"fr", key}}, "FwBase"},
      {none, {{"en", key}}, "FwEn"},
      {"fr", {{"fr", ""}}, "FwBase"},
      {"fr", {}, "", {"en"}, none, none},
      {"fr", {{"fr", "One\\nTwo\\n"}}, "One\nTwo\n", {"en"}, "", ""},
      {"fr", {{"fr", "a\\\\nb"}}, "a\\\nb", {"en"}, "", ""},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.expected);
    host.tables.clear();
    framework.tables.clear();
    defaults.values.clear();
    if (c.preferredLanguage) {
      defaults.setString(kUserDefaultsPreferredLanguageKey, *c.preferredLanguage);
    }
    host.preferred = c.hostPreferred;
    for (const auto& [localization, text] : c.hostTexts) host.setText(localization, key, text);
    if (c.frameworkEn) framework.setText("en", key, *c.frameworkEn);
    if (c.frameworkBase) framework.setText("Base", key, *c.frameworkBase);
    EXPECT_EQ(config.getLocalizedStringAndReplaceWithKey(key), c.expected);
  }
}

TEST_F(ConfigurationTest, SdkDefaultTextUsesEnglishOnlyForExactlyEn) {
  framework.setText("en", "k", "English");
  framework.setText("Base", "k", "Base");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "k"), "English");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en-GB", "k"), "Base");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang(std::nullopt, "k"), "Base");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "nowhere"), "");
}

TEST(ConfigurationStatic, ColorKnownAnswers) {
  struct Case {
    std::string text;
    Color expected;
  };
  const Case cases[] = {
      {"#FF0000", {1, 0, 0, 1}},
      {"#80FF0000", {1, 0, 0, 128 / 255.0}},
      {"#00ff7f", {0, 1, 127 / 255.0, 1}},
      {"00000FF", {0, 0, 1, 1}},  // first character skipped whatever it is
      {"#12345G", {1 / 255.0, 0x23 / 255.0, 0x45 / 255.0, 1}},  // parsing stops at G
  };
  for (const Case& c : cases) {
    std::optional<Color> color = Configuration::colorFromHexString(c.text);
    ASSERT_TRUE(color.has_value()) << c.text;
    EXPECT_DOUBLE_EQ(color->red, c.expected.red) << c.text;
    EXPECT_DOUBLE_EQ(color->green, c.expected.green) << c.text;
    EXPECT_DOUBLE_EQ(color->blue, c.expected.blue) << c.text;
    EXPECT_DOUBLE_EQ(color->alpha, c.expected.alpha) << c.text;
  }
  EXPECT_FALSE(Configuration::colorFromHexString(std::nullopt).has_value());
}

TEST(ConfigurationStatic, ColorOnlyLengthsSevenAndNine) {
  const std::string full = "#FF00FF00FF00";
  for (size_t length = 0; length <= full.size(); ++length) {
    bool accepted = Configuration::colorFromHexString(full.substr(0, length)).has_value();
    EXPECT_EQ(accepted, length == 7 || length == 9) << "length " << length;
  }
  // A character outside the basic plane counts two.
  EXPECT_FALSE(Configuration::colorFromHexString("\xF0\x9F\x98\x80"
                                                 "FF00FF")
                   .has_value());
  EXPECT_TRUE(Configuration::colorFromHexString("\xF0\x9F\x98\x80"
                                                "FF00F")
                  .has_value());
}

TEST_F(ConfigurationTest, ColorFromHostThenFramework) {
  const std::string key(colors::kPatternRegPatternDots);
  EXPECT_FALSE(config.getColorFromInfoPlistWithKey(key).has_value());
  framework.setInfo(kSdkColorKey, key, "#0000FF");
  EXPECT_EQ(config.getColorFromInfoPlistWithKey(key), (Color{0, 0, 1, 1}));
  host.setInfo(kSdkColorKey, key, "#FF0000");
  EXPECT_EQ(config.getColorFromInfoPlistWithKey(key), (Color{1, 0, 0, 1}));
  for (InfoValue unusable : {InfoValue("#F00"), InfoValue(true)}) {
    host.setInfo(kSdkColorKey, key, unusable);
    EXPECT_EQ(config.getColorFromInfoPlistWithKey(key), (Color{0, 0, 1, 1}));
  }
}

TEST_F(ConfigurationTest, LockoutPolicyFallsBackOnlyWhenHostHasNone) {
  EXPECT_FALSE(config.getPatternLockoutPolicy().has_value());
  framework.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, "3-lock");
  EXPECT_EQ(config.getPatternLockoutPolicy(), "3-lock");
  host.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, 5);  // not a text: as if absent
  EXPECT_EQ(config.getPatternLockoutPolicy(), "3-lock");
  host.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, "");  // present: no fallback
  EXPECT_EQ(config.getPatternLockoutPolicy(), "");
}

TEST_F(ConfigurationTest, PatternReuseAndSecurityLevel) {
  framework.setInfo(kSdkConfigKey, settings::kCheckPatternReused, "Y");
  EXPECT_TRUE(config.isCheckPatternReused());
  host.setInfo(kSdkConfigKey, settings::kCheckPatternReused, "y");
  EXPECT_FALSE(config.isCheckPatternReused());
  framework.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "Convenience");
  host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "");  // empty: fall back
  EXPECT_TRUE(config.isBiometricSecurityLevelConvenience());
  host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "convenience");
  EXPECT_FALSE(config.isBiometricSecurityLevelConvenience());
}

TEST_F(ConfigurationTest, TransactionPage) {
  framework.resources["transaction_dialog_default.html"] = "/fw/default.html";
  host.resources["transaction_dialog_default.html"] = "/host/default.html";
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/fw/default.html"));
  host.setInfo(kSdkConfigKey, settings::kTxViewName, "bank_page");
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/fw/default.html"));  // not shipped
  host.resources["bank_page.html"] = "/host/bank_page.html";
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/host/bank_page.html"));
}

TEST_F(ConfigurationTest, DevModeReadsBooleansNumbersAndTexts) {
  const std::pair<InfoValue, bool> cases[] = {
      {InfoValue(true), true},  {InfoValue(0), false},      {InfoValue(0.5), true},
      {InfoValue("YES"), true}, {InfoValue(" +007"), true}, {InfoValue("no"), false},
      {InfoValue("-0"), false}, {InfoValue(""), false},
  };
  framework.setInfo(kSdkConfigKey, settings::kDev, true);  // never consulted
  EXPECT_FALSE(config.isDevMode());
  for (const auto& [value, dev] : cases) {
    host.setInfo(kSdkConfigKey, settings::kDev, value);
    EXPECT_EQ(config.isDevMode(), dev);
  }
}

TEST(FrameworkResourcesTest, EnAndBaseTablesHaveEveryTextKey) {
  Error error;
  auto bundle = linux_platform::BundleDirectory::open(testing::resourcesDir(), {"en"}, &error);
  ASSERT_NE(bundle, nullptr) << error.localizedDescription();
  for (const char* localization : {"en", "Base"}) {
    for (const texts::Key& key : texts::kAll) {
      std::optional<std::string> text = bundle->localizedString(key.name, localization);
      EXPECT_FALSE(Configuration::isMessageInvalid(text, key.name)) << key.name << localization;
    }
  }
  for (std::string_view key : colors::kAll) {
    EXPECT_TRUE(Configuration::colorFromHexString(bundle->infoString({kSdkColorKey, key}))) << key;
  }
}

}  // namespace
}  // namespace corvane
