#include "verification/configuration.h"
#include "verification/pattern_lock_policy.h"

#include <gtest/gtest.h>

#include <regex>

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

// ---- Texts ---------------------------------------------------------------------------------

// Host texts are "localization=text" pairs; the framework has "FwEn" and "FwBase" unless a case
// says otherwise.
struct TextCase {
  const char* name;
  std::optional<std::string> preferredLanguage;  // user default; absent = not set
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
      {"host default table", none, {{"en", "Host"}}, "Host"},
      {"host Base via default", none, {{"Base", "HostBase"}}, "HostBase"},
      {"no language, host English", none, {}, "FwEn"},
      {"no language, host French", none, {}, "FwBase", {"fr"}},
      {"no language, no preferred", none, {}, "FwBase", {}},
      {"empty language = none", "", {{"en", "Host"}}, "Host"},
      {"fr in host fr", "fr", {{"fr", "HostFr"}, {"Base", "HostBase"}}, "HostFr"},
      {"fr falls to host Base", "fr", {{"en", "HostEn"}, {"Base", "HostBase"}}, "HostBase"},
      {"fr falls to framework Base, not en", "fr", {{"en", "HostEn"}}, "FwBase"},
      {"en falls to framework en", "en", {}, "FwEn", {"fr"}},
      {"en-US is not en", "en-US", {}, "FwBase"},
      {"framework en missing", "en", {}, "FwBase", {"en"}, none},
      {"framework en equal to key", "en", {}, "FwBase", {"en"}, key},
      {"host text equal to key is missing", "fr", {{"fr", key}}, "FwBase"},
      {"host Base equal to key is missing", "fr", {{"Base", key}}, "FwBase"},
      {"host default equal to key is missing", none, {{"en", key}}, "FwEn"},
      {"host empty text is missing", "fr", {{"fr", ""}}, "FwBase"},
      {"missing everywhere", "fr", {}, "", {"en"}, none, none},
      {"escaped line breaks", "fr", {{"fr", "One\\nTwo\\n"}}, "One\nTwo\n", {"en"}, "", ""},
      {"escaped backslash then n", "fr", {{"fr", "a\\\\nb"}}, "a\\\nb", {"en"}, "", ""},
      {"real line break kept", "fr", {{"fr", "a\nb\\"}}, "a\nb\\", {"en"}, "", ""},
      {"framework text escaped", "de", {}, "x\ny", {"en"}, "", "x\\ny"},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.name);
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
  framework.setText("Base", "only_base", "Base only");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "k"), "English");
  for (const char* language : {"fr", "EN", "en-GB", "", "Base"}) {
    EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang(language, "k"), "Base") << language;
  }
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang(std::nullopt, "k"), "Base");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "only_base"), "Base only");
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "nowhere"), "");
  framework.failLocalizedStrings = true;
  EXPECT_EQ(config.getSDKDefaultLocalizedStringWithLang("en", "k"), "");
}

TEST(ConfigurationStatic, MessageInvalid) {
  EXPECT_TRUE(Configuration::isMessageInvalid(std::nullopt, "k"));
  EXPECT_TRUE(Configuration::isMessageInvalid("", "k"));
  EXPECT_TRUE(Configuration::isMessageInvalid("k", "k"));
  EXPECT_FALSE(Configuration::isMessageInvalid("K", "k"));
  EXPECT_FALSE(Configuration::isMessageInvalid(" ", "k"));
  EXPECT_FALSE(Configuration::isMessageInvalid("k ", "k"));
}

// ---- Colours -------------------------------------------------------------------------------

TEST(ConfigurationStatic, ColorKnownAnswers) {
  struct Case {
    std::string text;
    Color expected;
  };
  const Case cases[] = {
      {"#FF0000", {1, 0, 0, 1}},
      {"#80FF0000", {1, 0, 0, 128 / 255.0}},
      {"#00ff7f", {0, 1, 127 / 255.0, 1}},
      {"#00000000", {0, 0, 0, 0}},
      {"#FFFFFFFF", {1, 1, 1, 1}},
      {"X0000FF", {0, 0, 1, 1}},  // first character skipped whatever it is
      {"00000FF", {0, 0, 1, 1}},  // even a hex digit
      {"\xC3\xA9"
       "00FF00",
       {0, 1, 0, 1}},  // a two-byte first character counts as one
      {"#12345G", {1 / 255.0, 0x23 / 255.0, 0x45 / 255.0, 1}},  // parsing stops at G
      {"#GGGGGG", {0, 0, 0, 1}},                                // nothing parsed gives 0
      {"#7FZZZZZZ", {0, 0, 0x7F / 255.0, 0}},
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
  // A character outside the basic plane counts two, as the platform counts text.
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
  for (InfoValue unusable : {InfoValue("#F00"), InfoValue(""), InfoValue(true), InfoValue(7)}) {
    host.setInfo(kSdkColorKey, key, unusable);
    EXPECT_EQ(config.getColorFromInfoPlistWithKey(key), (Color{0, 0, 1, 1}));
  }
  // The colours are read from their own dictionary only.
  host.info = InfoValue();
  framework.info = InfoValue();
  host.setInfo(kSdkConfigKey, key, "#FF0000");
  host.info.set(key, "#FF0000");
  EXPECT_FALSE(config.getColorFromInfoPlistWithKey(key).has_value());
}

// ---- Settings ------------------------------------------------------------------------------

TEST_F(ConfigurationTest, UserVerificationActiveReadsOnlyHostN) {
  struct Case {
    std::optional<InfoValue> value;
    bool active;
  };
  const Case cases[] = {
      {std::nullopt, true},    {InfoValue("N"), false},  {InfoValue("n"), true},
      {InfoValue("Y"), true},  {InfoValue(""), true},    {InfoValue("NO"), true},
      {InfoValue(" N"), true}, {InfoValue(false), true},
  };
  for (int index : {1, 2}) {
    std::string_view key = index == 1 ? settings::kBiometricActive : settings::kPatternLockActive;
    std::string_view other = index == 1 ? settings::kPatternLockActive : settings::kBiometricActive;
    for (const Case& c : cases) {
      host.info = InfoValue();
      if (c.value) host.setInfo(kSdkConfigKey, key, *c.value);
      host.setInfo(kSdkConfigKey, other, "N");     // the other switch does not leak over
      framework.setInfo(kSdkConfigKey, key, "N");  // never consulted
      EXPECT_EQ(config.checkUserVerificationActive(index), c.active) << index;
      EXPECT_EQ(index == 1 ? config.isBiometricActive() : config.isPatternLockActive(), c.active);
    }
  }
  for (int index : {0, 3, -1, 146}) EXPECT_TRUE(config.checkUserVerificationActive(index));
  EXPECT_EQ(framework.countCalls("infoValue"), 0u);
}

TEST_F(ConfigurationTest, LockoutPolicyFallsBackOnlyWhenHostHasNone) {
  EXPECT_FALSE(config.getPatternLockoutPolicy().has_value());
  framework.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, "3-lock");
  EXPECT_EQ(config.getPatternLockoutPolicy(), "3-lock");
  host.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, 5);  // not a text: as if absent
  EXPECT_EQ(config.getPatternLockoutPolicy(), "3-lock");
  host.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, "2-5");
  EXPECT_EQ(config.getPatternLockoutPolicy(), "2-5");
  host.setInfo(kSdkConfigKey, settings::kPatternLockoutPolicy, "");  // present: no fallback
  EXPECT_EQ(config.getPatternLockoutPolicy(), "");
}

TEST_F(ConfigurationTest, PatternReuseCheck) {
  struct Case {
    std::optional<std::string> hostValue, frameworkValue;
    bool check;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, false}, {"Y", std::nullopt, true},
      {"y", std::nullopt, false},          {"N", "Y", false},
      {std::nullopt, "Y", true},           {"", "Y", false},
  };
  for (const Case& c : cases) {
    host.info = InfoValue();
    framework.info = InfoValue();
    if (c.hostValue) host.setInfo(kSdkConfigKey, settings::kCheckPatternReused, *c.hostValue);
    if (c.frameworkValue) {
      framework.setInfo(kSdkConfigKey, settings::kCheckPatternReused, *c.frameworkValue);
    }
    EXPECT_EQ(config.isCheckPatternReused(), c.check);
  }
}

TEST_F(ConfigurationTest, BiometricSecurityLevel) {
  EXPECT_FALSE(config.getBiometricSecurityLevel().has_value());
  EXPECT_FALSE(config.isBiometricSecurityLevelConvenience());
  framework.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "Convenience");
  EXPECT_TRUE(config.isBiometricSecurityLevelConvenience());
  host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "");  // empty: fall back
  EXPECT_TRUE(config.isBiometricSecurityLevelConvenience());
  host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "Strong");
  EXPECT_EQ(config.getBiometricSecurityLevel(), "Strong");
  EXPECT_FALSE(config.isBiometricSecurityLevelConvenience());
  host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, "convenience");
  EXPECT_FALSE(config.isBiometricSecurityLevelConvenience());
}

TEST_F(ConfigurationTest, TransactionPage) {
  framework.resources["transaction_dialog_default.html"] = "/fw/default.html";
  EXPECT_EQ(config.getTxViewName(), "transaction_dialog_default");
  // A host page is only used when the host names it.
  host.resources["transaction_dialog_default.html"] = "/host/default.html";
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/fw/default.html"));
  host.setInfo(kSdkConfigKey, settings::kTxViewName, "");
  EXPECT_EQ(config.getTxViewName(), "transaction_dialog_default");
  host.setInfo(kSdkConfigKey, settings::kTxViewName, "bank_page");
  EXPECT_EQ(config.getTxViewName(), "bank_page");
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/fw/default.html"));  // not shipped
  host.resources["bank_page.html"] = "/host/bank_page.html";
  EXPECT_EQ(config.getTxViewPath(), std::filesystem::path("/host/bank_page.html"));
}

TEST_F(ConfigurationTest, DevModeReadsBooleansNumbersAndTexts) {
  struct Case {
    std::optional<InfoValue> value;
    bool dev;
  };
  const Case cases[] = {
      {std::nullopt, false},       {InfoValue(true), true},
      {InfoValue(false), false},   {InfoValue(1), true},
      {InfoValue(0), false},       {InfoValue(0.5), true},
      {InfoValue("YES"), true},    {InfoValue("true"), true},
      {InfoValue("1"), true},      {InfoValue(" +007"), true},
      {InfoValue("0"), false},     {InfoValue("no"), false},
      {InfoValue("false"), false}, {InfoValue(""), false},
      {InfoValue("-0"), false},    {InfoValue(InfoValue::Array{InfoValue(true)}), false},
  };
  for (const Case& c : cases) {
    host.info = InfoValue();
    if (c.value) host.setInfo(kSdkConfigKey, settings::kDev, *c.value);
    framework.setInfo(kSdkConfigKey, settings::kDev, true);  // never consulted
    EXPECT_EQ(config.isDevMode(), c.dev);
  }
}

// ---- The framework's own bundle ------------------------------------------------------------

class FrameworkResourcesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Error error;
    bundle = linux::BundleDirectory::open(testing::resourcesDir(), {"en"}, &error);
    ASSERT_NE(bundle, nullptr) << error.localizedDescription();
  }
  std::unique_ptr<linux::BundleDirectory> bundle;
};

// Counts printf conversions; every one must be "%ld" ("%%" is a literal percent sign).
int countNumberConversions(std::string_view text, bool* onlyLd) {
  int count = 0;
  *onlyLd = true;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    if (text.substr(i, 2) == "%%") {
      ++i;
      continue;
    }
    if (text.substr(i, 3) != "%ld") *onlyLd = false;
    ++count;
  }
  return count;
}

TEST_F(FrameworkResourcesTest, EnAndBaseTablesHaveEveryTextKey) {
  for (const char* localization : {"en", "Base"}) {
    SCOPED_TRACE(localization);
    const std::string raw = testing::readFile(
        testing::resourcesDir() / (std::string(localization) + ".lproj") / "Localizable.strings");
    linux::StringsTable table = linux::parseStringsTable(asBytes(raw));
    EXPECT_TRUE(table.complete);
    for (const texts::Key& key : texts::kAll) {
      std::optional<std::string> text = bundle->localizedString(key.name, localization);
      ASSERT_TRUE(text.has_value()) << key.name;
      EXPECT_FALSE(Configuration::isMessageInvalid(text, key.name)) << key.name;
      bool onlyLd = false;
      EXPECT_EQ(countNumberConversions(*text, &onlyLd), key.numberArguments) << key.name;
      EXPECT_TRUE(onlyLd) << key.name;
    }
    // Nothing in the table that the code does not know (a misspelt key would never be shown).
    for (const auto& entry : table.entries) {
      bool known = std::any_of(texts::kAll.begin(), texts::kAll.end(),
                               [&](const texts::Key& key) { return key.name == entry.first; });
      EXPECT_TRUE(known) << entry.first;
    }
  }
}

TEST_F(FrameworkResourcesTest, InfoPlistDefaults) {
  EXPECT_FALSE(bundle->bundleIdentifier().empty());

  // The version matches the project version in CMakeLists.txt.
  const std::string cmakeText =
      testing::readFile(std::filesystem::path(CORVANE_SOURCE_DIR) / "CMakeLists.txt");
  std::smatch match;
  ASSERT_TRUE(
      std::regex_search(cmakeText, match, std::regex(R"(project\(corvane VERSION ([0-9.]+))")));
  EXPECT_EQ(bundle->infoString({"CFBundleShortVersionString"}), match[1].str());

  for (std::string_view key : colors::kAll) {
    std::optional<std::string> text = bundle->infoString({kSdkColorKey, key});
    ASSERT_TRUE(text.has_value()) << key;
    EXPECT_EQ(text->front(), '#') << key;
    EXPECT_TRUE(Configuration::colorFromHexString(*text).has_value()) << key;
  }

  // The fallback policy parses and ends in a lockout round.
  const auto rounds =
      getPatternLockPolicy(bundle->infoString({kSdkConfigKey, settings::kPatternLockoutPolicy}));
  ASSERT_TRUE(rounds.has_value());
  ASSERT_FALSE(rounds->empty());
  EXPECT_TRUE(rounds->back().isLockoutRound);

  // Switches that only the host may set are absent here.
  for (std::string_view key : {settings::kBiometricActive, settings::kPatternLockActive,
                               settings::kTxViewName, settings::kDev}) {
    EXPECT_FALSE(bundle->infoValue({kSdkConfigKey, key}).has_value()) << key;
  }
}

TEST_F(FrameworkResourcesTest, ConfigurationOverRealFrameworkBundle) {
  FakeHostBundle emptyHost;
  FakeUserDefaults defaults;
  Configuration config(emptyHost, *bundle, defaults);
  for (const char* language : {"en", "fr"}) {
    defaults.setString(kUserDefaultsPreferredLanguageKey, language);
    for (const texts::Key& key : texts::kAll) {
      EXPECT_FALSE(config.getLocalizedStringAndReplaceWithKey(key.name).empty()) << key.name;
    }
  }
  EXPECT_TRUE(config.getColorFromInfoPlistWithKey(colors::kPatternAuthErrorText).has_value());
  EXPECT_FALSE(config.isCheckPatternReused());
  EXPECT_FALSE(config.isBiometricSecurityLevelConvenience());

  std::optional<std::filesystem::path> page = config.getTxViewPath();
  ASSERT_TRUE(page.has_value());
  EXPECT_NE(testing::readFile(*page).find("function callJSParameter("), std::string::npos);
}

}  // namespace
}  // namespace corvane
