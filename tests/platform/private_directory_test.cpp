// The data folder: ancestors only root or this user can change, and files reached through the
// folder's held descriptor.
#include "foundation/private_paths.h"

#include <gtest/gtest.h>
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

// The platform too refuses such a data folder, with an error naming the folder.
TEST(PrivateDirectoryTest, AncestorsMustBeClosedToOtherUsers) {
  const uid_t me = ::geteuid();
  const uid_t other = me == kNobody ? kNobody - 1 : kNobody;
  const struct Case {
    const char* what;
    uid_t owner;
    mode_t mode;
    const char* shownMode;  // null when accepted
  } cases[] = {
      {"mode 0777, another user's", other, 0777, "0777"},
      {"mode 0755, another user's", other, 0755, "0755"},
      {"sticky 1777, another user's", other, 01777, "1777"},
      {"group-writable 0775, mine", me, 0775, "0775"},
      {"others-writable 0757, mine", me, 0757, "0757"},
      {"mode 0755, mine", me, 0755, nullptr},
      {"sticky 1777, root's", 0, 01777, nullptr},
  };
  TempDir host;
  testing::writeFile(host.path() / "Host.app" / "Info.plist",
                     R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                     "<key>CFBundleIdentifier</key><string>com.example.held</string></dict>"
                     "</plist>");
  linux_platform::LinuxPlatformOptions options;
  options.hostBundleDirectory = host.path() / "Host.app";
  options.frameworkBundleDirectory = testing::resourcesDir();
  options.durableWrites = false;
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
    const bool accepted = c.shownMode == nullptr;
    Error error, platformError;
    std::unique_ptr<PrivateDirectory> folder = PrivateDirectory::open(data, &error);
    EXPECT_EQ(folder != nullptr, accepted) << error.localizedDescription();
    options.dataDirectory = data;
    EXPECT_EQ(linux_platform::makePlatform(options, &platformError).has_value(), accepted)
        << platformError.localizedDescription();
    if (!accepted) {
      const std::string named = "Folder " + shared.string() + " (owner " + std::to_string(c.owner) +
                                ", mode " + c.shownMode + ")";
      EXPECT_NE(error.localizedDescription().find(named), std::string::npos)
          << error.localizedDescription();
      EXPECT_NE(platformError.localizedDescription().find("Cannot make the data folder: " + named),
                std::string::npos)
          << platformError.localizedDescription();
      // Nothing was made inside the unsafe folder.
      EXPECT_FALSE(fs::exists(shared / "app"));
    }
    fs::permissions(shared, fs::perms::owner_all);
  }
  if (!skipped.empty())
    GTEST_SKIP() << "cannot give a folder to another user without root: " << skipped;
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

  const ItemAttributes item{.account = "a", .service = "s"};
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
