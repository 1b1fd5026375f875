#include "corvane/linux_platform.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/utsname.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/corvane.h"
#include "linux/linux_device_info.h"
#include "storage/keychain.h"
#include "test_files.h"
#include "test_support.h"
#include "verification/configuration.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::modeOf;
using testing::TempDir;
using testing::writeFile;

constexpr std::string_view kBundleId = "com.example.linuxhost";

std::string infoPlist(std::string_view id) {
  const std::string entry =
      id.empty() ? "" : "<key>CFBundleIdentifier</key><string>" + std::string(id) + "</string>";
  return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" + entry +
         "</dict></plist>";
}

// A temporary folder holding a host bundle and room for the data folder.
struct LinuxRig {
  LinuxRig() { writeFile(hostDir() / "Info.plist", infoPlist(kBundleId)); }

  fs::path hostDir() const { return dir.path() / "Host.app"; }
  fs::path dataDir() const { return dir.path() / "data" / "app"; }
  linux::LinuxPlatformOptions options() const {
    linux::LinuxPlatformOptions o;
    o.hostBundleDirectory = hostDir();
    o.dataDirectory = dataDir();
    o.frameworkBundleDirectory = testing::resourcesDir();
    o.durableWrites = false;
    o.userLanguages = std::vector<std::string>{"en"};
    return o;
  }

  TempDir dir;
};

// A Keychain over a platform's ports, as the facade builds it.
struct KeychainOver {
  explicit KeychainOver(const Platform& p)
      : platform(p),
        configuration(*p.hostBundle, *p.frameworkBundle, *p.userDefaults),
        keychain(*p.itemStore, *p.keyStore, *p.biometry, configuration) {}
  Platform platform;
  Configuration configuration;
  Keychain keychain;
};

// Sets an environment variable for one test and restores the old value after.
struct ScopedEnv {
  ScopedEnv(const char* name, const std::string& value) : name(name) {
    if (const char* current = ::getenv(name)) old = current;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() { old ? ::setenv(name, old->c_str(), 1) : ::unsetenv(name); }
  const char* name;
  std::optional<std::string> old;
};

// Every port is real: the keychain finds its bundle seed ID (the team id) and access group through
// the SQLite store, keeps items and keys across a reopening, and everything lands 0600 in a 0700
// folder.
TEST(LinuxPlatformTest, PortsWorkTogetherAndPersistPrivately) {
  LinuxRig rig;
  linux::LinuxPlatformOptions options = rig.options();
  options.teamId = "ABCDE12345";
  std::vector<uint8_t> publicKey;
  {
    Error error;
    std::optional<Platform> platform = linux::makePlatform(options, &error);
    ASSERT_TRUE(platform) << error.localizedDescription();
    EXPECT_EQ(platform->missingPort(), std::nullopt);
    EXPECT_EQ(platform->hostBundle->bundleIdentifier(), kBundleId);
    EXPECT_EQ(platform->frameworkBundle->infoString({"CFBundleShortVersionString"}),
              CORVANE_PROJECT_VERSION);

    KeychainOver over(*platform);
    EXPECT_EQ(over.keychain.bundleSeedID(), "ABCDE12345");
    EXPECT_EQ(over.keychain.corvaneAccessGroup(), "ABCDE12345." + std::string(kBundleId));
    ASSERT_TRUE(over.keychain.insertGenericPasswordWithAccount("acct", "AUTHNR.data", std::nullopt,
                                                               SecretBytes::fromText("record")));
    std::optional<Bytes> key = over.keychain.generate256EcKeyPair("pub", "pri");
    ASSERT_TRUE(key);
    publicKey = *key;
    platform->userDefaults->setBool(kUserDefaultsInstalledKey, true);
    ASSERT_TRUE(platform->userDefaults->synchronize(&error)) << error.localizedDescription();
  }

  std::optional<Platform> again = linux::makePlatform(options, nullptr);
  ASSERT_TRUE(again);
  KeychainOver over(*again);
  EXPECT_EQ(over.keychain.bundleSeedID(), "ABCDE12345");
  EXPECT_EQ(over.keychain.findGenericPasswordWithAccount("acct", "AUTHNR.data", std::nullopt),
            SecretBytes::fromText("record"));
  std::optional<Bytes> signature =
      over.keychain.signWithECDSASignatureMessageX962SHA256(Bytes{1, 2, 3}, "pri");
  ASSERT_TRUE(signature);
  EXPECT_TRUE(testing::verifies(publicKey, Bytes{1, 2, 3}, *signature));
  EXPECT_TRUE(again->userDefaults->getBool(kUserDefaultsInstalledKey));

  EXPECT_EQ(modeOf(rig.dataDir()), 0700u);
  for (const fs::directory_entry& entry : fs::directory_iterator(rig.dataDir())) {
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
  }
  for (std::string_view name :
       {linux::kItemStoreFileName, linux::kKeyStoreKeyFileName, linux::kUserDefaultsFileName}) {
    EXPECT_TRUE(fs::is_regular_file(rig.dataDir() / name)) << name;
  }
}

// The facade over the real stores: the first construction in a data folder wipes (and marks the
// installation), a later one over the same folder keeps what was stored in between.
TEST(LinuxPlatformTest, SecondCorvaneOverTheSameDataKeepsItems) {
  LinuxRig rig;
  {
    std::optional<Platform> first = linux::makePlatform(rig.options(), nullptr);
    ASSERT_TRUE(first);
    KeychainOver earlier(*first);
    ASSERT_TRUE(earlier.keychain.insertGenericPasswordWithAccount(
        "left", "AUTHNR.data", std::nullopt, SecretBytes::fromText("old installation")));
    Corvane corvane(nullptr, *first);
    EXPECT_FALSE(
        earlier.keychain.findGenericPasswordWithAccount("left", "AUTHNR.data", std::nullopt));
    ASSERT_TRUE(earlier.keychain.insertGenericPasswordWithAccount(
        "kept", "AUTHNR.data", std::nullopt, SecretBytes::fromText("this installation")));
  }
  std::optional<Platform> second = linux::makePlatform(rig.options(), nullptr);
  ASSERT_TRUE(second);
  Corvane corvane(nullptr, *second);
  EXPECT_TRUE(corvane.isInstalled());
  EXPECT_TRUE(corvane.isFirstInitialed());
  KeychainOver over(*second);
  EXPECT_EQ(over.keychain.bundleSeedID(), linux::kDefaultTeamId);
  EXPECT_EQ(over.keychain.findGenericPasswordWithAccount("kept", "AUTHNR.data", std::nullopt),
            SecretBytes::fromText("this installation"));
}

TEST(LinuxPlatformTest, BadOptionsGiveAnErrorAndNoPlatform) {
  struct Case {
    std::string_view name;
    void (*spoil)(LinuxRig&, linux::LinuxPlatformOptions&);
  };
  const Case cases[] = {
      {"data folder under a file",
       [](LinuxRig& rig, linux::LinuxPlatformOptions& o) {
         writeFile(rig.dir.path() / "file", "x");
         o.dataDirectory = rig.dir.path() / "file" / "data";
       }},
      {"item store is not a database",
       [](LinuxRig& rig, linux::LinuxPlatformOptions&) {
         writeFile(rig.dataDir() / linux::kItemStoreFileName, std::string(4096, 'x'));
       }},
      {"no host folder given",
       [](LinuxRig&, linux::LinuxPlatformOptions& o) { o.hostBundleDirectory.clear(); }},
      {"host folder missing",
       [](LinuxRig& rig, linux::LinuxPlatformOptions& o) {
         o.hostBundleDirectory = rig.dir.path() / "Missing.app";
       }},
      {"host without identifier",
       [](LinuxRig& rig, linux::LinuxPlatformOptions&) {
         writeFile(rig.hostDir() / "Info.plist", infoPlist(""));
       }},
      {"framework folder missing",
       [](LinuxRig& rig, linux::LinuxPlatformOptions& o) {
         o.frameworkBundleDirectory = rig.dir.path() / "Missing.bundle";
       }},
      {"team id with a dot", [](LinuxRig&, linux::LinuxPlatformOptions& o) { o.teamId = "AB.CD"; }},
      {"empty team id", [](LinuxRig&, linux::LinuxPlatformOptions& o) { o.teamId.clear(); }},
  };
  for (const Case& c : cases) {
    LinuxRig rig;
    linux::LinuxPlatformOptions options = rig.options();
    c.spoil(rig, options);
    Error error;
    EXPECT_FALSE(linux::makePlatform(options, &error)) << c.name;
    EXPECT_EQ(error.domain(), kCorvaneErrorDomain) << c.name;
    EXPECT_FALSE(error.localizedDescription().empty()) << c.name;
    EXPECT_FALSE(linux::makePlatform(options, nullptr)) << c.name;
  }
}

TEST(LinuxPlatformTest, DefaultDataDirectoryRule) {
  using Text = std::optional<std::string_view>;
  struct Case {
    std::string_view bundle;
    Text xdg, home;
    std::optional<fs::path> expected;
  };
  const Case cases[] = {
      {"com.a", "/x/data", "/home/u", "/x/data/corvane/com.a"},
      {"com.a", std::nullopt, "/home/u", "/home/u/.local/share/corvane/com.a"},
      {"com.a", "", "/home/u", "/home/u/.local/share/corvane/com.a"},
      {"com.a", "relative/data", "/home/u", "/home/u/.local/share/corvane/com.a"},
      {"com.a", "/x/data", std::nullopt, "/x/data/corvane/com.a"},
      {"com.a", std::nullopt, std::nullopt, std::nullopt},
      {"com.a", "rel", "home/u", std::nullopt},
      {"", "/x/data", "/home/u", std::nullopt},
      {".", "/x/data", "/home/u", std::nullopt},
      {"..", "/x/data", "/home/u", std::nullopt},
      {"com/a", "/x/data", "/home/u", std::nullopt},
      {std::string_view("com\0a", 5), "/x/data", "/home/u", std::nullopt},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_EQ(linux::defaultDataDirectory(c.bundle, c.xdg, c.home, &error), c.expected)
        << c.bundle << " " << c.xdg.value_or("<unset>") << " " << c.home.value_or("<unset>");
    EXPECT_EQ(error.localizedDescription().empty(), c.expected.has_value());
  }
}

// Without a data folder in the options, makePlatform roots the stores at XDG_DATA_HOME.
TEST(LinuxPlatformTest, DefaultDataDirectoryFollowsTheEnvironment) {
  LinuxRig rig;
  const fs::path xdg = rig.dir.path() / "xdg";
  ScopedEnv env("XDG_DATA_HOME", xdg.string());
  EXPECT_EQ(linux::defaultDataDirectory(kBundleId, nullptr), xdg / "corvane" / kBundleId);
  linux::LinuxPlatformOptions options = rig.options();
  options.dataDirectory.reset();
  std::optional<Platform> platform = linux::makePlatform(options, nullptr);
  ASSERT_TRUE(platform);
  KeychainOver over(*platform);
  EXPECT_TRUE(over.keychain.bundleSeedID());
  EXPECT_TRUE(fs::is_regular_file(xdg / "corvane" / kBundleId / linux::kItemStoreFileName));
  EXPECT_EQ(modeOf(xdg / "corvane" / kBundleId), 0700u);
}

TEST(LinuxPlatformTest, DeviceInfoIsUname) {
  struct utsname name {};
  ASSERT_EQ(::uname(&name), 0);
  linux::LinuxDeviceInfo device;
  EXPECT_EQ(device.modelIdentifier(), name.machine);
  EXPECT_EQ(device.systemVersion(), name.release);
  EXPECT_FALSE(device.modelIdentifier().empty());
}

}  // namespace
}  // namespace corvane
