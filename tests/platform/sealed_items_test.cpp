// Item values at rest in the Linux item store: sealed, bound to their row, gone after a delete.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "configuration/configuration.h"
#include "corvane/linux_platform.h"
#include "linux/sqlite_item_store.h"
#include "storage/keychain.h"
#include "storage/keychain_rig.h"
#include "storage/pattern_manager.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using linux_platform::SqliteItemStore;
using testing::readFile;
using testing::secret;
using testing::TempDir;
using testing::writeFile;

// Every secret value the library could see, read back through the store port.
std::vector<std::string> everyValue(ItemStore& store) {
  std::vector<std::string> values;
  std::vector<std::string> accounts;
  EXPECT_EQ(store.listAccounts({}, &accounts), StoreStatus::ok);
  for (const std::string& account : accounts) {
    std::vector<std::string> services;
    EXPECT_EQ(store.listServices({.account = account}, &services), StoreStatus::ok);
    for (const std::string& service : services) {
      SecretBytes value;
      EXPECT_EQ(store.findFirst({.account = account, .service = service}, &value), StoreStatus::ok)
          << account << " " << service;
      values.emplace_back(value.exposeSecretText());
    }
  }
  return values;
}

// Fails for each secret found whole, and for each of our distinctive ones found in any 8-byte
// piece, in the store file or its log.
void expectNoSecretInFiles(const fs::path& folder, const std::vector<std::string>& distinctive,
                           const std::vector<std::string>& others) {
  for (const char* name : {"items.sqlite", "items.sqlite-wal"}) {
    SCOPED_TRACE(name);
    const std::string bytes = readFile(folder / name);
    for (const std::string& secret : distinctive) {
      for (size_t at = 0; at + 8 <= secret.size(); ++at) {
        EXPECT_EQ(bytes.find(secret.substr(at, 8)), std::string::npos)
            << "a piece of \"" << secret << "\" at " << at;
      }
    }
    for (const std::string& secret : others) {
      EXPECT_EQ(bytes.find(secret), std::string::npos)
          << "a value of " << secret.size() << " bytes";
    }
  }
}

// A registration-like series of writes and deletes over the real Linux stores, then a byte search
// of items.sqlite and items.sqlite-wal for every value written.
TEST(SealedItemsTest, NoSecretValueReachesTheStoreFiles) {
  TempDir dir;
  writeFile(dir.path() / "Host.app" / "Info.plist",
            R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
            "<key>CFBundleIdentifier</key><string>com.example.sealhost</string></dict></plist>");
  linux_platform::LinuxPlatformOptions options;
  options.hostBundleDirectory = dir.path() / "Host.app";
  options.dataDirectory = dir.path() / "data";
  options.frameworkBundleDirectory = testing::resourcesDir();
  Error error;
  std::optional<Platform> p = linux_platform::makePlatform(options, &error);
  ASSERT_TRUE(p) << error.localizedDescription();
  Configuration configuration(*p->hostBundle, *p->frameworkBundle, *p->userDefaults);
  Keychain keychain(*p->itemStore, *p->keyStore, *p->biometry, configuration);
  PatternManager patterns(keychain);

  const std::vector<std::string> distinctive = {
      "KEYHANDLE-alice-7f3a9c2e51d04b88e6", "KEYHANDLE-bob-0d9e44a1b7c3f25e90",
      "ASMTOKEN-c0ffee5a1d7e4b29a8f3",      "REGRECORD-alice-5e1b7c9d3f2a4e6b",
      "REGRECORD-bob-8a2c4e6f1b3d5a7c9e",   "REPLACED-KEYHANDLE-9b8a7f6e5d4c3b2a",
  };
  const std::vector<uint32_t> alicePattern = {0, 4, 8, 5, 2, 1};
  const std::vector<uint32_t> bobPattern = {6, 3, 0, 1, 2, 5, 8};
  for (const char* user : {"alice", "bob"}) {
    const std::string hash = Utils::sha256(user);
    const std::string tag = "ios:bundle-id:com.example.sealhost.0F3D#0002.PRI." + hash;
    ASSERT_TRUE(keychain.generate256EcKeyPair("PUB", tag));
    ASSERT_TRUE(
        patterns.updatePattern(std::string(user) == "alice" ? alicePattern : bobPattern, user)
            .ok());
    const std::string name(user);
    ASSERT_EQ(keychain.insertGenericPasswordWithAccount(
                  hash + ".0F3D#0002", "ASMKH.data.k", "ASMKH.data." + hash,
                  secret(name == "alice" ? distinctive[5] : distinctive[1])),
              StoreStatus::ok);
    ASSERT_EQ(keychain.insertGenericPasswordWithAccount(
                  hash, "ASM.reg", std::nullopt,
                  secret(name == "alice" ? distinctive[3] : distinctive[4])),
              StoreStatus::ok);
  }
  ASSERT_EQ(keychain.insertOrUpdateGenericPasswordWithAccount("ASMToken", "ASM.token", std::nullopt,
                                                              secret(distinctive[2])),
            StoreStatus::ok);
  // Replacing a value must not leave the old one behind either.
  const std::string aliceHash = Utils::sha256("alice");
  ASSERT_EQ(keychain.updateGenericPasswordWithAccount(aliceHash + ".0F3D#0002", "ASMKH.data.k",
                                                      std::nullopt, secret(distinctive[0])),
            StoreStatus::ok);

  // Everything the library can read back: sealed patterns, the pattern key, key handles, token.
  std::vector<std::string> others = everyValue(*p->itemStore);
  std::erase_if(others, [](const std::string& value) { return value.size() < 12; });
  ASSERT_GE(others.size(), 7u);
  const Result<SecretBytes> patternKey = patterns.getPatternLockEncryptKey();
  ASSERT_TRUE(patternKey);
  others.emplace_back(patternKey->exposeSecretText());
  for (const auto* pattern : {&alicePattern, &bobPattern}) {
    std::optional<SecretBytes> serialized = PatternManager::serializePattern(*pattern);
    ASSERT_TRUE(serialized);
    others.emplace_back(serialized->exposeSecretText());
  }
  const auto expectSealedFiles = [&](const char* when, bool logEmpty) {
    SCOPED_TRACE(when);
    EXPECT_EQ(fs::file_size(*options.dataDirectory / "items.sqlite-wal") == 0, logEmpty);
    expectNoSecretInFiles(*options.dataDirectory, distinctive, others);
  };
  expectSealedFiles("after the writes", false);

  // Deregistration-like deletes: bob's records, key and pattern, and the token.
  const std::string bobHash = Utils::sha256("bob");
  EXPECT_EQ(
      keychain.deleteGenericPasswordWithAccount(bobHash + ".0F3D#0002", std::nullopt, std::nullopt),
      StoreStatus::ok);
  EXPECT_EQ(keychain.deleteGenericPasswordWithAccount(bobHash, std::nullopt, std::nullopt),
            StoreStatus::ok);
  EXPECT_EQ(keychain.deleteGenericPasswordWithAccount("ASMToken", "ASM.token", std::nullopt),
            StoreStatus::ok);
  expectSealedFiles("after the deletes", true);
  // What is left still opens.
  EXPECT_EQ(testing::shown(keychain.findGenericPasswordWithAccount(aliceHash + ".0F3D#0002",
                                                                   "ASMKH.data.k", std::nullopt)),
            distinctive[0]);
  EXPECT_TRUE(patterns.isCorrectPattern(alicePattern, "alice").value());
}

struct Database {
  explicit Database(const fs::path& file) {
    EXPECT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);
  }
  ~Database() { sqlite3_close(db); }
  void exec(const std::string& sql) {
    char* message = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
        << sql << ": " << (message ? message : "");
    sqlite3_free(message);
  }
  sqlite3* db = nullptr;
};

ItemAttributes item(std::optional<std::string> account, std::optional<std::string> service,
                    std::optional<std::string> group) {
  return {std::move(account), std::move(service), std::nullopt, toBytes("L"), std::move(group)};
}

// A value copied by hand into another row does not open there: the store fails, it never answers
// the other row's value. The row it came from still opens.
TEST(SealedItemsTest, AValueMovedToAnotherRowFailsToOpen) {
  TempDir dir;
  const fs::path file = dir.path() / "items.sqlite";
  std::unique_ptr<SqliteItemStore> store = SqliteItemStore::open(file, nullptr);
  ASSERT_NE(store, nullptr);
  const ItemAttributes source = item("acct", "svc", "G");
  const struct {
    const char* what;
    ItemAttributes target;
  } targets[] = {
      {"other account", item("acct2", "svc", "G")},
      {"other service", item("acct", "svc2", "G")},
      {"other access group", item("acct", "svc", "H")},
      {"account absent", item(std::nullopt, "svc", "G")},
      {"account empty", item("", "svc", "G")},
      {"group absent", item("acct", "svc", std::nullopt)},
      // Fields that would read the same if their texts were simply joined.
      {"account and service shifted", item("acc", "tsvc", "G")},
  };
  ASSERT_EQ(store->add(source, secret("the source value")), StoreStatus::ok);
  // Each target is found by a generic of its own, since an absent attribute widens a query.
  for (const auto& target : targets) {
    ItemAttributes added = target.target;
    added.generic = target.what;
    ASSERT_EQ(store->add(added, secret("target")), StoreStatus::ok) << target.what;
  }
  Database db(file);
  db.exec(
      "UPDATE items SET value = (SELECT value FROM items WHERE account = 'acct' AND "
      "service = 'svc' AND access_group = 'G') WHERE NOT (account IS 'acct' AND service IS "
      "'svc' AND access_group IS 'G')");
  for (const auto& target : targets) {
    SecretBytes value = secret("untouched");
    EXPECT_EQ(store->findFirst({.generic = target.what}, &value), StoreStatus::storeError)
        << target.what;
    EXPECT_EQ(value.exposeSecretText(), "untouched") << target.what;
  }
  SecretBytes value;
  ASSERT_EQ(store->findFirst(source.asQuery(), &value), StoreStatus::ok);
  EXPECT_EQ(value.exposeSecretText(), "the source value");

  // Any changed byte of a stored value fails the same way.
  db.exec(
      "UPDATE items SET value = substr(value, 1, 20) || x'00' || substr(value, 22) WHERE "
      "account = 'acct' AND service = 'svc' AND access_group = 'G'");
  EXPECT_EQ(store->findFirst(source.asQuery(), &value), StoreStatus::storeError);
}

// A store written before values were sealed holds them in clear: it is refused, not read.
TEST(SealedItemsTest, AStoreOfCleartextValuesIsRefused) {
  TempDir dir;
  const fs::path file = dir.path() / "items.sqlite";
  {
    Database db(file);
    db.exec(
        "CREATE TABLE items(seq INTEGER PRIMARY KEY, account TEXT, service TEXT, generic "
        "TEXT, label BLOB, access_group TEXT, accessible TEXT, created INTEGER NOT NULL, "
        "value BLOB NOT NULL); INSERT INTO items(account, service, created, value) "
        "VALUES('a', 's', 1, 'clear'); PRAGMA user_version=1");
  }
  Error error;
  EXPECT_EQ(SqliteItemStore::open(file, &error), nullptr);
  EXPECT_NE(error.localizedDescription().find("kept values in clear"), std::string::npos)
      << error.localizedDescription();
}

}  // namespace
}  // namespace corvane
