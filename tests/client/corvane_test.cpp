#include "corvane/corvane.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "configuration/configuration.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_device_info.h"
#include "fakes/fake_host_bundle.h"
#include "fakes/fake_http_client.h"
#include "fakes/fake_item_store.h"
#include "fakes/fake_key_store.h"
#include "fakes/fake_user_defaults.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_biometry.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using namespace testing;
using Pattern = std::vector<uint32_t>;

const Pattern kAlice = {0, 4, 8, 5};

// Fake ports that outlive the Corvane objects, plus a Keychain and pattern store to seed/inspect.
struct Installation {
  Installation() { items->setDefaultAccessGroup("CORVANELNX.com.example.host"); }
  Platform platform() const {
    return Platform{items, keys,   biometry, host,      framework, defaults,
                    clock, device, http,     scheduler, nullptr,   dataDir.path()};
  }
  void seed() {
    ASSERT_EQ(keychain.insertOrUpdateGenericPasswordWithAccount(
                  "record", "AUTHNR.data", std::nullopt, SecretBytes::fromText("{}")),
              StoreStatus::ok);
    ASSERT_TRUE(patterns.updatePattern(kAlice, "alice").ok());
    ASSERT_TRUE(keychain.generate256EcKeyPair("PUB", kKeyTag));
  }
  // "record" "pattern" "key" for each of the seeded things still there.
  std::string kept() {
    std::string out;
    const Result<std::optional<SecretBytes>> record =
        keychain.findGenericPasswordWithAccount("record", "AUTHNR.data", std::nullopt);
    if (record && *record) out += "record ";
    const Result<bool> pattern = patterns.isCorrectPattern(kAlice, "alice");
    if (pattern && *pattern) out += "pattern ";
    if (keychain.signWithECDSASignatureMessageX962SHA256(asBytes("m"), kKeyTag)) out += "key";
    return out;
  }
  static constexpr std::string_view kKeyTag = "ios:bundle-id:com.example.host.0F3D#0002.PRI.h";
  testing::TempDir dataDir;
  std::shared_ptr<FakeItemStore> items = std::make_shared<FakeItemStore>();
  std::shared_ptr<FakeKeyStore> keys = std::make_shared<FakeKeyStore>();
  std::shared_ptr<ScriptedBiometry> biometry = std::make_shared<ScriptedBiometry>();
  std::shared_ptr<FakeHostBundle> host = std::make_shared<FakeHostBundle>();
  std::shared_ptr<FakeHostBundle> framework = std::make_shared<FakeHostBundle>();
  std::shared_ptr<FakeUserDefaults> defaults = std::make_shared<FakeUserDefaults>();
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<FakeDeviceInfo> device = std::make_shared<FakeDeviceInfo>("x86_64", "6.1.0");
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  std::shared_ptr<ManualScheduler> scheduler = std::make_shared<ManualScheduler>();
  Configuration configuration{*host, *framework, *defaults};
  Keychain keychain{*items, *keys, *biometry, configuration};
  PatternManager patterns{keychain};
};

bool storedBool(const FakeUserDefaults& defaults, std::string_view key) {
  auto it = defaults.stored.find(key);
  return it != defaults.stored.end() && std::get<bool>(it->second);
}

// Only an item store without the installation marker, and without the flag older data carries,
// is a fresh installation: it is wiped once (keys included). Otherwise the last-pattern step runs
// once when "Corvane.initiated" is unset. A second construction changes nothing.
TEST(CorvaneFirstRunTest, OnlyAnUnmarkedStoreIsWipedAndOnlyOnce) {
  struct Case {
    bool marked;
    std::optional<bool> installed, initiated;
    bool wipes, recordsLastPattern;
  };
  const Case cases[] = {
      {false, std::nullopt, true, true, false},
      {false, false, false, true, false},
      {false, true, std::nullopt, false, true},
      {false, true, true, false, false},
      // A missing or emptied settings file never wipes a marked store.
      {true, std::nullopt, std::nullopt, false, true},
      {true, false, false, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.marked << c.installed.value_or(false) << c.wipes);
    Installation app;
    if (c.installed) app.defaults->values[std::string(kUserDefaultsInstalledKey)] = *c.installed;
    if (c.initiated) app.defaults->values[std::string(kUserDefaultsInitiatedKey)] = *c.initiated;
    app.defaults->stored = app.defaults->values;
    if (c.marked) {
      ASSERT_EQ(app.keychain.markInstallation(), StoreStatus::ok);
    }
    app.seed();
    Error error;
    ASSERT_TRUE(Corvane::create(nullptr, app.platform(), &error)) << error.localizedDescription();
    EXPECT_EQ(app.kept(), c.wipes ? "" : "record pattern key");
    EXPECT_EQ(app.patterns.isSameAsLastPattern(kAlice, "alice").value(), c.recordsLastPattern);
    EXPECT_EQ(app.keychain.isInstallationMarked().value(), true);
    EXPECT_TRUE(storedBool(*app.defaults, kUserDefaultsInstalledKey) || c.marked);

    app.seed();
    app.items->clearCalls();
    const int synchronizations = app.defaults->synchronizeCalls;
    ASSERT_TRUE(Corvane::create(nullptr, app.platform(), &error));
    EXPECT_EQ(app.kept(), "record pattern key");
    for (const FakeItemStore::Call& call : app.items->calls()) {
      EXPECT_NE(call.op, FakeItemStore::Op::remove);
      EXPECT_NE(call.op, FakeItemStore::Op::listAccounts);
    }
    EXPECT_EQ(app.defaults->synchronizeCalls, synchronizations);
  }
}

// create() reports what the constructor cannot, and wipes nothing when it fails.
TEST(CorvaneFirstRunTest, CreateReportsUnreadableSettingsAndFailingStores) {
  Installation app;
  app.seed();
  Error error;
  Platform noHttp = app.platform();
  noHttp.httpClient.reset();
  EXPECT_FALSE(Corvane::create(nullptr, std::move(noHttp), &error));
  EXPECT_EQ(error.localizedDescription(), "The platform has no httpClient");
  Platform noRecords = app.platform();
  noRecords.recordDatabaseDirectory.clear();
  EXPECT_FALSE(Corvane::create(nullptr, std::move(noRecords), &error));
  EXPECT_EQ(error.localizedDescription(), "The platform has no recordDatabaseDirectory");
  // A file where the record database's folder belongs: reported, and nothing is wiped.
  testing::writeFile(app.dataDir.path() / "Database", "not a folder");
  EXPECT_FALSE(Corvane::create(nullptr, app.platform(), &error));
  EXPECT_EQ(error.localizedDescription(),
            "Cannot open the record database: The record database failed.");
  EXPECT_EQ(app.kept(), "record pattern key");
  std::filesystem::remove(app.dataDir.path() / "Database");
  app.defaults->failLoad = Error::corvane(10000, "The user defaults file is damaged");
  EXPECT_FALSE(Corvane::create(nullptr, app.platform(), &error));
  EXPECT_EQ(error.localizedDescription(), "The user defaults file is damaged");
  app.defaults->failLoad.reset();
  app.items->failAllReads(true);
  EXPECT_FALSE(Corvane::create(nullptr, app.platform(), &error));
  EXPECT_EQ(error.localizedDescription(), "Cannot read the item store: The item store failed.");
  app.items->failAllReads(false);
  app.items->failWriteNumber(2);  // the wipe's second step
  EXPECT_FALSE(Corvane::create(nullptr, app.platform(), &error));
  EXPECT_EQ(error.localizedDescription(), "Cannot wipe the data of an earlier installation");
  EXPECT_FALSE(app.keychain.isInstallationMarked().value());
  ASSERT_TRUE(Corvane::create(nullptr, app.platform(), &error));
  EXPECT_TRUE(app.keychain.isInstallationMarked().value());
}

TEST(CorvaneFirstRunTest, FlagsAnswerFalseExactlyOnce) {
  Installation app;
  Corvane corvane(nullptr, app.platform());
  EXPECT_TRUE(corvane.isInstalled());  // the first construction marked the installation
  // Without the marker and the flag the next call answers false, once, and marks again.
  ItemQuery marker;
  marker.account = "Corvane.installed";
  marker.service = "corvane.installation";
  ASSERT_EQ(app.items->remove(marker), StoreStatus::ok);
  app.defaults->values.clear();
  EXPECT_FALSE(corvane.isInstalled());
  EXPECT_TRUE(corvane.isInstalled());
  EXPECT_EQ(app.items->findFirst(marker, nullptr), StoreStatus::ok);
  EXPECT_TRUE(corvane.isFirstInitialed());  // set by isInstalled
  app.defaults->values.erase(std::string(kUserDefaultsInitiatedKey));
  EXPECT_FALSE(corvane.isFirstInitialed());
  EXPECT_TRUE(corvane.isFirstInitialed());
  EXPECT_EQ(app.defaults->stored, app.defaults->values);
}

TEST(CorvaneTest, SetLanguageJoinsThePresentPartsOrRemovesTheTag) {
  using Part = std::optional<std::string_view>;
  const std::tuple<Part, Part, Part, std::optional<std::string>> cases[] = {
      {"zh", "Hant", "TW", "zh-Hant-TW"},      {"en", "", "US", "en-US"},
      {"zh", "Hans", std::nullopt, "zh-Hans"}, {"fr", std::nullopt, std::nullopt, "fr"},
      {"", "Hant", "TW", std::nullopt},        {std::nullopt, "Hant", "TW", std::nullopt},
  };
  for (const auto& [language, script, region, stored] : cases) {
    Installation app;
    Corvane corvane(nullptr, app.platform());
    app.defaults->setString(kUserDefaultsPreferredLanguageKey, "de");
    corvane.setLanguage(language, script, region);
    EXPECT_EQ(app.defaults->getString(kUserDefaultsPreferredLanguageKey), stored);
    EXPECT_EQ(app.defaults->stored, app.defaults->values);
  }
}

TEST(CorvaneTest, GetTranslationTitles) {
  EXPECT_EQ(Corvane::getTranslation("pattern"),
            "\xe5\x9c\x96\xe5\xbd\xa2\xe5\xaf\x86\xe7\xa2\xbc\xe9\xa9\x97\xe8\xad\x89");
  EXPECT_EQ(Corvane::getTranslation("biometry"),
            "\xe7\x94\x9f\xe7\x89\xa9\xe8\xbe\xa8\xe8\xad\x98\xe9\xa9\x97\xe8\xad\x89");
  for (std::string_view kind : {"Pattern", "pattern ", ""})
    EXPECT_EQ(Corvane::getTranslation(kind), "") << kind;
}

TEST(CorvaneTest, VersionComesFromTheFrameworkBundle) {
  Installation app;
  app.host->info.set("CFBundleShortVersionString", "9.9.9");
  app.framework->info.set("CFBundleShortVersionString", "1.2.3");
  EXPECT_EQ(Corvane(nullptr, app.platform()).getRunningSDKVersion(), "1.2.3");
  app.framework->info.erase("CFBundleShortVersionString");
  EXPECT_EQ(Corvane(nullptr, app.platform()).getRunningSDKVersion(), "");
}

}  // namespace
}  // namespace corvane
