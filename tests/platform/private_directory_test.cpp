// The data folder: ancestors only root or this user can change, and files reached through the
// folder's held descriptor.
#include "foundation/private_paths.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "corvane/linux_platform.h"
#include "linux/sqlite_item_store.h"
#include "linux/store_key.h"
#include "linux/user_defaults_file.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using linux_platform::SqliteItemStore;
using linux_platform::StoreKey;
using linux_platform::UserDefaultsFile;
using testing::TempDir;

constexpr uid_t kNobody = 65534;

// A folder given an owner and a mode; false when the owner cannot be set (not root).
bool makeFolder(const fs::path& folder, uid_t owner, mode_t mode) {
  fs::create_directories(folder);
  if (::chown(folder.c_str(), owner, static_cast<gid_t>(-1)) != 0) return false;
  return ::chmod(folder.c_str(), mode) == 0;
}

TEST(PrivateDirectoryTest, AncestorsMustBeClosedToOtherUsers) {
  const uid_t me = ::geteuid();
  const uid_t other = me == kNobody ? kNobody - 1 : kNobody;
  const struct Case {
    const char* what;
    uid_t owner;
    mode_t mode;
    bool accepted;
  } cases[] = {
      {"mode 0777, another user's", other, 0777, false},
      {"mode 0755, another user's", other, 0755, false},
      {"sticky 1777, another user's", other, 01777, false},
      {"group-writable 0775, mine", me, 0775, false},
      {"others-writable 0757, mine", me, 0757, false},
      {"mode 0755, mine", me, 0755, true},
      {"sticky 1777, root's", 0, 01777, true},
  };
  std::string skipped;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    const fs::path shared = dir.path() / "shared";
    if (!makeFolder(shared, c.owner, c.mode)) {
      skipped += std::string(skipped.empty() ? "" : ", ") + c.what;
      continue;
    }
    // The unsafe folder may be any ancestor, not only the parent.
    const fs::path data = shared / "app" / "data";
    Error error;
    std::unique_ptr<PrivateDirectory> folder = PrivateDirectory::open(data, &error);
    EXPECT_EQ(folder != nullptr, c.accepted) << error.localizedDescription();
    if (!c.accepted) {
      EXPECT_NE(error.localizedDescription().find(shared.string() + " (owner "), std::string::npos)
          << error.localizedDescription();
      // Nothing was made inside the unsafe folder.
      EXPECT_FALSE(fs::exists(shared / "app"));
    }
    fs::permissions(shared, fs::perms::owner_all);
  }
  if (!skipped.empty())
    GTEST_SKIP() << "cannot give a folder to another user without root: " << skipped;
}

// The end-to-end case: the platform refuses such a data folder with an error naming the folder,
// and accepts one inside /tmp (root-owned, sticky).
TEST(PrivateDirectoryTest, PlatformRefusesAWorldWritableAncestorAndAcceptsTmp) {
  struct stat tmp {};
  ASSERT_EQ(::stat("/tmp", &tmp), 0);
  if (tmp.st_uid != 0 || (tmp.st_mode & S_ISVTX) == 0) GTEST_SKIP() << "/tmp is not root's, sticky";
  std::string pattern = "/tmp/corvane-held-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path base = pattern;
  testing::writeFile(base / "Host.app" / "Info.plist",
                     R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                     "<key>CFBundleIdentifier</key><string>com.example.held</string></dict>"
                     "</plist>");
  linux_platform::LinuxPlatformOptions options;
  options.hostBundleDirectory = base / "Host.app";
  options.frameworkBundleDirectory = testing::resourcesDir();
  options.durableWrites = false;

  Error error;
  options.dataDirectory = base / "data";
  EXPECT_TRUE(linux_platform::makePlatform(options, &error)) << error.localizedDescription();

  const fs::path shared = base / "shared";
  const bool given = makeFolder(shared, kNobody, 0777);
  if (given) {
    options.dataDirectory = shared / "data";
    EXPECT_FALSE(linux_platform::makePlatform(options, &error));
    EXPECT_NE(error.localizedDescription().find("Cannot make the data folder: Folder " +
                                                shared.string() + " (owner 65534, mode 0777)"),
              std::string::npos)
        << error.localizedDescription();
  }
  std::error_code ignored;
  fs::remove_all(base, ignored);
  if (!given) GTEST_SKIP() << "cannot give a folder to user 65534 without root";
}

// Files are reached through the held descriptor: moving the folder away and putting a link to
// another folder in its place after opening changes nothing about where the stores write.
TEST(PrivateDirectoryTest, StoresFollowTheHeldFolderNotItsName) {
  TempDir dir;
  const fs::path data = dir.path() / "data";
  Error error;
  std::shared_ptr<const PrivateDirectory> folder = PrivateDirectory::open(data, &error);
  ASSERT_NE(folder, nullptr) << error.localizedDescription();
  std::shared_ptr<const StoreKey> key = StoreKey::load(*folder, "keystore.key", &error);
  ASSERT_NE(key, nullptr) << error.localizedDescription();
  SqliteItemStore::Options options;
  options.storeKey = key;
  std::unique_ptr<SqliteItemStore> store =
      SqliteItemStore::open(folder, "items.sqlite", options, &error);
  ASSERT_NE(store, nullptr) << error.localizedDescription();
  std::unique_ptr<UserDefaultsFile> defaults =
      UserDefaultsFile::open(folder, "defaults.json", &error);
  ASSERT_NE(defaults, nullptr);

  const fs::path moved = dir.path() / "moved";
  const fs::path elsewhere = dir.path() / "elsewhere";
  fs::rename(data, moved);
  fs::create_directory(elsewhere);
  fs::create_directory_symlink(elsewhere, data);

  ItemAttributes item;
  item.account = "a";
  item.service = "s";
  ASSERT_EQ(store->add(item, SecretBytes::fromText("written after the move")), StoreStatus::ok);
  defaults->setBool("flag", true);
  ASSERT_TRUE(defaults->synchronize(&error)) << error.localizedDescription();
  store.reset();
  defaults.reset();

  EXPECT_TRUE(fs::is_empty(elsewhere));
  for (const char* name : {"items.sqlite", "keystore.key", "defaults.json"}) {
    EXPECT_TRUE(fs::is_regular_file(moved / name)) << name;
  }
  std::unique_ptr<SqliteItemStore> reopened = SqliteItemStore::open(moved / "items.sqlite", &error);
  ASSERT_NE(reopened, nullptr) << error.localizedDescription();
  SecretBytes value;
  ASSERT_EQ(reopened->findFirst(item.asQuery(), &value), StoreStatus::ok);
  EXPECT_EQ(value.exposeSecretText(), "written after the move");

  // A data folder that is itself a link, and store files that are links, are refused.
  EXPECT_EQ(PrivateDirectory::open(data, &error), nullptr);
  EXPECT_NE(error.localizedDescription().find("Not a folder"), std::string::npos);
  const fs::path linked = dir.path() / "linked";
  fs::create_directory(linked);
  for (const char* name : {"items.sqlite", "keystore.key"}) {
    SCOPED_TRACE(name);
    fs::remove(linked / "items.sqlite");
    fs::remove(linked / "keystore.key");
    fs::copy_file(moved / "keystore.key", linked / "keystore.key");
    fs::remove(linked / name);
    fs::create_symlink(moved / name, linked / name);
    EXPECT_EQ(SqliteItemStore::open(linked / "items.sqlite", &error), nullptr);
  }
}

}  // namespace
}  // namespace corvane
