#include "corvane/corvane.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "corvane/status_codes.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_device_info.h"
#include "fakes/fake_host_bundle.h"
#include "fakes/fake_item_store.h"
#include "fakes/fake_key_store.h"
#include "fakes/fake_user_defaults.h"
#include "fakes/scripted_biometry.h"
#include "linux/bundle_directory.h"
#include "storage/keychain.h"
#include "test_support.h"
#include "verification/configuration.h"
#include "verification/pattern_manager.h"

namespace corvane {
namespace {

using testing::FakeHostBundle;
using testing::FakeItemStore;
using testing::FakeKeyStore;
using testing::FakeUserDefaults;
using Pattern = std::vector<uint32_t>;

constexpr std::string_view kGroup = "CORVANELNX.com.example.host";

// One installation of a host application: fake ports that outlive the Corvane objects built over
// them, plus a Keychain and a pattern store of its own over the same ports, to seed and inspect.
struct Installation {
  Installation() {
    items->setDefaultAccessGroup(std::string(kGroup));
    framework->identifier = "com.corvane.Corvane";
  }

  Platform platform() const {
    return Platform{items, keys, biometry, host, framework, defaults, clock, device};
  }

  std::unique_ptr<Corvane> build() { return std::make_unique<Corvane>(nullptr, platform()); }

  // What an earlier installation leaves: a record of the authenticators and alice's pattern.
  void seed() {
    ASSERT_TRUE(keychain.insertOrUpdateGenericPasswordWithAccount(
        "record", "AUTHNR.data", std::nullopt, SecretBytes::fromText("{}")));
    patterns.updatePattern(kAlicePattern, "alice");
    ASSERT_TRUE(patterns.isCorrectPattern(kAlicePattern, "alice"));
  }
  bool recordKept() {
    return keychain.findGenericPasswordWithAccount("record", "AUTHNR.data", std::nullopt)
        .has_value();
  }
  size_t keyRemovals() const {
    size_t n = 0;
    for (const FakeKeyStore::Call& call : keys->calls()) n += call.op == FakeKeyStore::Op::remove;
    return n;
  }

  static inline const Pattern kAlicePattern = {0, 4, 8, 5};

  std::shared_ptr<FakeItemStore> items = std::make_shared<FakeItemStore>();
  std::shared_ptr<FakeKeyStore> keys = std::make_shared<FakeKeyStore>();
  std::shared_ptr<testing::ScriptedBiometry> biometry =
      std::make_shared<testing::ScriptedBiometry>();
  std::shared_ptr<FakeHostBundle> host = std::make_shared<FakeHostBundle>();
  std::shared_ptr<FakeHostBundle> framework = std::make_shared<FakeHostBundle>();
  std::shared_ptr<FakeUserDefaults> defaults = std::make_shared<FakeUserDefaults>();
  std::shared_ptr<testing::FakeClock> clock = std::make_shared<testing::FakeClock>();
  std::shared_ptr<testing::FakeDeviceInfo> device =
      std::make_shared<testing::FakeDeviceInfo>("x86_64", "6.1.0");
  Configuration configuration{*host, *framework, *defaults};
  Keychain keychain{*items, *keys, *biometry, configuration};
  PatternManager patterns{keychain};
};

bool storedBool(const FakeUserDefaults& defaults, std::string_view key) {
  auto it = defaults.stored.find(key);
  return it != defaults.stored.end() && std::get<bool>(it->second);
}

// The four states the two flags can be in when the application starts, and what construction
// does in each: wipe on a fresh installation (whatever "initiated" says), the last-pattern step
// when installed but not yet initiated, nothing otherwise. Afterwards both flags are set and
// flushed, and a second construction changes nothing.
TEST(CorvaneFirstRunTest, EachFlagStateRunsItsStepOnce) {
  struct Case {
    std::optional<bool> installed, initiated;
    bool wipes, recordsLastPattern;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, true, false},
      {std::nullopt, true, true, false},  // initiated but not installed: still a fresh install
      {false, false, true, false},
      {true, std::nullopt, false, true},
      {true, false, false, true},
      {true, true, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "installed " << c.installed.value_or(false)
                                      << " initiated " << c.initiated.value_or(false));
    Installation app;
    // As an earlier run left them on disk.
    if (c.installed) app.defaults->values[std::string(kUserDefaultsInstalledKey)] = *c.installed;
    if (c.initiated) app.defaults->values[std::string(kUserDefaultsInitiatedKey)] = *c.initiated;
    app.defaults->stored = app.defaults->values;
    app.seed();
    ASSERT_FALSE(app.patterns.isSameAsLastPattern(Installation::kAlicePattern, "alice"));

    app.build();
    EXPECT_EQ(app.recordKept(), !c.wipes);
    EXPECT_EQ(app.patterns.isCorrectPattern(Installation::kAlicePattern, "alice"), !c.wipes);
    EXPECT_EQ(app.keyRemovals(), c.wipes ? 1u : 0u);
    EXPECT_EQ(app.patterns.isSameAsLastPattern(Installation::kAlicePattern, "alice"),
              c.recordsLastPattern);
    EXPECT_TRUE(storedBool(*app.defaults, kUserDefaultsInstalledKey));
    EXPECT_TRUE(storedBool(*app.defaults, kUserDefaultsInitiatedKey));

    // The next start of the application: nothing is wiped or copied again.
    app.seed();
    app.items->clearCalls();
    const int synchronizations = app.defaults->synchronizeCalls;
    auto again = app.build();
    EXPECT_TRUE(app.recordKept());
    EXPECT_EQ(app.keyRemovals(), c.wipes ? 1u : 0u);
    for (const FakeItemStore::Call& call : app.items->calls()) {
      EXPECT_NE(call.op, FakeItemStore::Op::remove);
      EXPECT_NE(call.op, FakeItemStore::Op::listAccounts);  // the last-pattern step's listing
    }
    EXPECT_EQ(app.defaults->synchronizeCalls, synchronizations);
    EXPECT_TRUE(again->isInstalled());
    EXPECT_TRUE(again->isFirstInitialed());
  }
}

// Each flag answers the value read before its own write: false once, then true.
TEST(CorvaneFirstRunTest, FlagsAnswerFalseExactlyOnce) {
  Installation app;
  Corvane corvane(nullptr, app.platform());
  app.defaults->values.clear();
  EXPECT_FALSE(corvane.isInstalled());
  EXPECT_TRUE(corvane.isInstalled());
  EXPECT_TRUE(corvane.isFirstInitialed());  // set by isInstalled
  app.defaults->values.erase(std::string(kUserDefaultsInitiatedKey));
  EXPECT_FALSE(corvane.isFirstInitialed());
  EXPECT_TRUE(corvane.isFirstInitialed());
  EXPECT_EQ(app.defaults->stored, app.defaults->values);
}

TEST(CorvaneTest, SetLanguageJoinsThePresentPartsOrRemovesTheTag) {
  using Part = std::optional<std::string_view>;
  struct Case {
    Part language, script, region;
    std::optional<std::string> stored;
  };
  const Case cases[] = {
      {"zh", "Hant", "TW", "zh-Hant-TW"},
      {"en", "", "US", "en-US"},
      {"en", std::nullopt, "US", "en-US"},
      {"zh", "Hans", "", "zh-Hans"},
      {"zh", "Hans", std::nullopt, "zh-Hans"},
      {"fr", std::nullopt, std::nullopt, "fr"},
      {"", "Hant", "TW", std::nullopt},
      {std::nullopt, "Hant", "TW", std::nullopt},
      {std::nullopt, std::nullopt, std::nullopt, std::nullopt},
  };
  for (const Case& c : cases) {
    Installation app;
    Corvane corvane(nullptr, app.platform());
    app.defaults->setString(kUserDefaultsPreferredLanguageKey, "de");
    corvane.setLanguage(c.language, c.script, c.region);
    const std::string trace = std::string(c.language.value_or("<none>"));
    EXPECT_EQ(app.defaults->getString(kUserDefaultsPreferredLanguageKey), c.stored) << trace;
    EXPECT_EQ(app.defaults->stored, app.defaults->values) << trace << " was not flushed";
  }
}

// The titles are fixed UTF-8 texts; only the exact lower-case kinds have one.
TEST(CorvaneTest, GetTranslationTitles) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"pattern", "\xe5\x9c\x96\xe5\xbd\xa2\xe5\xaf\x86\xe7\xa2\xbc\xe9\xa9\x97\xe8\xad\x89"},
      {"biometry", "\xe7\x94\x9f\xe7\x89\xa9\xe8\xbe\xa8\xe8\xad\x98\xe9\xa9\x97\xe8\xad\x89"},
      {"Pattern", ""},
      {"BIOMETRY", ""},
      {"pattern ", ""},
      {"face", ""},
      {"", ""},
  };
  for (const auto& [kind, title] : cases) EXPECT_EQ(Corvane::getTranslation(kind), title) << kind;
}

// The version is the framework bundle's (never the host's); the model is read at each call.
TEST(CorvaneTest, VersionAndDeviceModelComeFromTheirPorts) {
  Installation app;
  app.host->info.set("CFBundleShortVersionString", "9.9.9");
  app.framework->info.set("CFBundleShortVersionString", "1.2.3");
  Corvane corvane(nullptr, app.platform());
  EXPECT_EQ(corvane.getRunningSDKVersion(), "1.2.3");
  app.framework->info.erase("CFBundleShortVersionString");
  EXPECT_EQ(Corvane(nullptr, app.platform()).getRunningSDKVersion(), "");
  EXPECT_EQ(corvane.getDeviceModelName(), "x86_64");
  app.device->setModel("aarch64");
  EXPECT_EQ(corvane.getDeviceModelName(), "aarch64");

  // The shipped bundle names the version the build was made as.
  std::shared_ptr<HostBundle> shipped =
      linux::BundleDirectory::open(testing::resourcesDir(), nullptr);
  ASSERT_NE(shipped, nullptr);
  Platform platform = app.platform();
  platform.frameworkBundle = shipped;
  EXPECT_EQ(Corvane(nullptr, platform).getRunningSDKVersion(), CORVANE_PROJECT_VERSION);
}

// A thin wrapper: the message arrives as text, and text that is no JSON object is not malformed.
TEST(CorvaneTest, ValidatePropertiesReadsTheMessageText) {
  const std::pair<std::string_view, bool> cases[] = {
      {R"({"header":{"appID":"https://a","serverData":null}})", false},
      {R"({"header":{"appID":5}})", true},
      {R"({"header":{"serverData":[]}})", true},
      {R"([{"header":{"appID":5}}])", false},
      {R"({"header":{"appID":5})", false},
      {"", false},
  };
  Installation app;
  Corvane corvane(nullptr, app.platform());
  for (const auto& [text, malformed] : cases) {
    EXPECT_EQ(corvane.validateProperties(text), malformed) << text;
  }
}

class NullDelegate : public AuthUIControllerDelegate {
 public:
  void onRegistrationComplete(std::optional<std::string>, const Error&) override {}
  void onAuthenticationComplete(std::optional<std::string>, const Error&) override {}
};

TEST(CorvaneTest, HoldsTheDelegateStrongly) {
  Installation app;
  auto delegate = std::make_shared<NullDelegate>();
  std::weak_ptr<NullDelegate> watch = delegate;
  auto corvane = std::make_unique<Corvane>(std::move(delegate), app.platform());
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(corvane->authUIControllerDelegate(), watch.lock());
  corvane.reset();
  EXPECT_TRUE(watch.expired());
}

// Without every port, create() refuses and names the port; the constructor builds an object that
// touches no store.
TEST(CorvaneTest, IncompletePlatformIsRefusedOrInert) {
  const std::pair<std::string_view, void (*)(Platform&)> drops[] = {
      {"itemStore", [](Platform& p) { p.itemStore.reset(); }},
      {"keyStore", [](Platform& p) { p.keyStore.reset(); }},
      {"biometry", [](Platform& p) { p.biometry.reset(); }},
      {"hostBundle", [](Platform& p) { p.hostBundle.reset(); }},
      {"frameworkBundle", [](Platform& p) { p.frameworkBundle.reset(); }},
      {"userDefaults", [](Platform& p) { p.userDefaults.reset(); }},
      {"clock", [](Platform& p) { p.clock.reset(); }},
      {"deviceInfo", [](Platform& p) { p.deviceInfo.reset(); }},
  };
  for (const auto& [name, drop] : drops) {
    Installation app;
    Platform platform = app.platform();
    drop(platform);
    EXPECT_EQ(platform.missingPort(), name);
    Error error;
    EXPECT_EQ(Corvane::create(nullptr, platform, &error), nullptr);
    EXPECT_EQ(error.code(), code(CorvaneStatusCode::UNKNOWN));
    EXPECT_NE(error.localizedDescription().find(name), std::string::npos) << name;

    Corvane inert(nullptr, platform);
    EXPECT_FALSE(inert.isInstalled());
    EXPECT_FALSE(inert.isFirstInitialed());
    inert.setLanguage("en", std::nullopt, "US");
    EXPECT_EQ(inert.getRunningSDKVersion(), "");
    EXPECT_EQ(inert.getDeviceModelName(), "");
    EXPECT_TRUE(app.defaults->calls.empty()) << name;
    EXPECT_TRUE(app.items->calls().empty()) << name;
  }
  Installation app;
  EXPECT_EQ(app.platform().missingPort(), std::nullopt);
  EXPECT_NE(Corvane::create(nullptr, app.platform(), nullptr), nullptr);
}

}  // namespace
}  // namespace corvane
