#include "corvane/linux_platform.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "asm/asm.h"
#include "configuration/configuration.h"
#include "corvane/corvane.h"
#include "fakes/scripted_authenticator.h"
#include "storage/keychain.h"
#include "storage/keychain_rig.h"
#include "storage/pattern_manager.h"
#include "support/test_https_server.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::modeOf;
using testing::readFile;
using testing::writeFile;

struct LinuxRig {
  LinuxRig() {
    writeFile(dir.path() / "Host.app" / "Info.plist",
              R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
              "<key>CFBundleIdentifier</key><string>com.example.linuxhost</string></dict></plist>");
    options.hostBundleDirectory = dir.path() / "Host.app";
    options.dataDirectory = dir.path() / "data" / "app";
    options.frameworkBundleDirectory = testing::resourcesDir();
    options.durableWrites = false;
    options.teamId = "ABCDE12345";
  }
  void caFile(std::string_view text) {
    writeFile(dir.path() / "ca.pem", text);
    options.extraCaFile = dir.path() / "ca.pem";
  }
  testing::TempDir dir;
  linux_platform::LinuxPlatformOptions options;
};

// The bundle seed ID and items persist across reopening; files are 0600 in a 0700 folder.
TEST(LinuxPlatformTest, PortsPersistPrivately) {
  LinuxRig rig;
  // Two CAs in one file; the platform reads both (the HTTP client's tests use them).
  testing::TestCa("First CA").writePem(rig.dir.path() / "ca1.pem");
  testing::TestCa("Second CA").writePem(rig.dir.path() / "ca2.pem");
  rig.caFile(readFile(rig.dir.path() / "ca1.pem") + readFile(rig.dir.path() / "ca2.pem"));
  for (int round = 0; round < 2; ++round) {
    Error error;
    std::optional<Platform> p = linux_platform::makePlatform(rig.options, &error);
    ASSERT_TRUE(p) << error.localizedDescription();
    Configuration configuration(*p->hostBundle, *p->frameworkBundle, *p->userDefaults);
    Keychain keychain(*p->itemStore, *p->keyStore, *p->biometry, configuration);
    EXPECT_EQ(keychain.bundleSeedID().value(), "ABCDE12345");
    EXPECT_EQ(keychain.corvaneAccessGroup().value(), "ABCDE12345.com.example.linuxhost");
    if (round == 0) {
      ASSERT_EQ(keychain.insertGenericPasswordWithAccount("acct", "AUTHNR.data", std::nullopt,
                                                          SecretBytes::fromText("record")),
                StoreStatus::ok);
    } else {
      EXPECT_EQ(testing::shown(
                    keychain.findGenericPasswordWithAccount("acct", "AUTHNR.data", std::nullopt)),
                "record");
    }
  }
  EXPECT_EQ(modeOf(rig.options.dataDirectory.value()), 0700u);
  for (const fs::directory_entry& entry : fs::directory_iterator(*rig.options.dataDirectory))
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
}

TEST(LinuxPlatformTest, BadOptionsGiveAnErrorAndNoPlatform) {
  using Spoil = void (*)(LinuxRig&);
  const Spoil cases[] = {
      [](LinuxRig& r) {
        writeFile(r.dir.path() / "file", "x");
        r.options.dataDirectory = r.dir.path() / "file" / "data";
      },
      [](LinuxRig& r) {
        writeFile(*r.options.dataDirectory / linux_platform::kItemStoreFileName,
                  std::string(4096, 'x'));
      },
      [](LinuxRig& r) { r.options.hostBundleDirectory = r.dir.path() / "Missing.app"; },
      [](LinuxRig& r) { r.options.frameworkBundleDirectory = r.dir.path() / "Missing.bundle"; },
      [](LinuxRig& r) { r.options.teamId = "AB.CD"; },
      [](LinuxRig& r) { r.options.teamId.clear(); },
      [](LinuxRig& r) { r.options.extraCaFile = r.dir.path() / "missing.pem"; },
      [](LinuxRig& r) { r.caFile("-----BEGIN CERTIFICATE-----\nAAAA\n"); },
      [](LinuxRig& r) { r.caFile("no certificate here\n"); },
      // A good certificate followed by a damaged one.
      [](LinuxRig& r) {
        testing::TestCa("Test CA").writePem(r.dir.path() / "good.pem");
        r.caFile(readFile(r.dir.path() / "good.pem") + "-----BEGIN CERTIFICATE-----\nAAAA\n");
      },
  };
  for (Spoil spoil : cases) {
    LinuxRig rig;
    spoil(rig);
    Error error;
    EXPECT_FALSE(linux_platform::makePlatform(rig.options, &error));
    EXPECT_EQ(error.domain(), kCorvaneErrorDomain);
    EXPECT_FALSE(linux_platform::makePlatform(rig.options, nullptr));
  }
}

// A damaged, missing or unreadable settings file never wipes the users' registrations: the
// installation marker lives in the item store, and create() reports a file it cannot read.
TEST(LinuxPlatformTest, DamagedSettingsNeverWipeRegistrations) {
  const std::vector<uint32_t> pattern = {0, 4, 8, 5, 2, 1};
  constexpr std::string_view kTag = "ios:bundle-id:com.example.linuxhost.0F3D#0002.PRI.h";
  struct Damage {
    std::string name;
    std::function<void(const fs::path&)> apply;
  };
  const Damage damages[] = {
      {"missing", [](const fs::path& file) { fs::remove(file); }},
      {"empty", [](const fs::path& file) { writeFile(file, ""); }},
      {"truncated", [](const fs::path& file) { writeFile(file, R"({"Corvane.installed":tr)"); }},
      {"5 MiB", [](const fs::path& file) { writeFile(file, std::string(5 << 20, ' ')); }},
      {"mode 000", [](const fs::path& file) { fs::permissions(file, fs::perms::none); }},
      {"a folder",
       [](const fs::path& file) {
         fs::remove(file);
         fs::create_directory(file);
       }},
  };
  for (const Damage& damage : damages) {
    SCOPED_TRACE(damage.name);
    LinuxRig rig;
    const fs::path file = *rig.options.dataDirectory / "defaults.json";
    Error error;
    {
      std::optional<Platform> p = linux_platform::makePlatform(rig.options, &error);
      ASSERT_TRUE(p) << error.localizedDescription();
      ASSERT_TRUE(Corvane::create(nullptr, *p, &error)) << error.localizedDescription();
      Configuration configuration(*p->hostBundle, *p->frameworkBundle, *p->userDefaults);
      Keychain keychain(*p->itemStore, *p->keyStore, *p->biometry, configuration);
      ASSERT_EQ(keychain.insertGenericPasswordWithAccount("h.0F3D#0002", "ASMKH.data.k", "g",
                                                          SecretBytes::fromText("record")),
                StoreStatus::ok);
      ASSERT_TRUE(keychain.generate256EcKeyPair("PUB", kTag));
      ASSERT_TRUE(PatternManager(keychain).updatePattern(pattern, "alice").ok());
    }
    ASSERT_TRUE(fs::exists(file));
    damage.apply(file);
    {
      std::optional<Platform> p = linux_platform::makePlatform(rig.options, &error);
      ASSERT_TRUE(p) << error.localizedDescription();
      static_cast<void>(
          Corvane::create(nullptr, *p, &error));  // an error, or a start that wipes nothing
    }
    // Put a readable file back (as a host would after the error) and look at what is left.
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    fs::remove_all(file);
    std::optional<Platform> p = linux_platform::makePlatform(rig.options, &error);
    ASSERT_TRUE(p) << error.localizedDescription();
    ASSERT_TRUE(Corvane::create(nullptr, *p, &error)) << error.localizedDescription();
    Configuration configuration(*p->hostBundle, *p->frameworkBundle, *p->userDefaults);
    Keychain keychain(*p->itemStore, *p->keyStore, *p->biometry, configuration);
    EXPECT_EQ(
        testing::shown(keychain.findGenericPasswordWithAccount("h.0F3D#0002", "ASMKH.data.k", "g")),
        "record");
    EXPECT_TRUE(keychain.signWithECDSASignatureMessageX962SHA256(asBytes("m"), kTag));
    EXPECT_TRUE(PatternManager(keychain).isCorrectPattern(pattern, "alice").value());
  }
}

// Deregistration and the reset leave no private key that signs and no sealed key behind.
TEST(LinuxPlatformTest, DeregistrationAndResetDeleteTheKeys) {
  for (bool reset : {false, true}) {
    SCOPED_TRACE(reset ? "reset" : "deregistration");
    LinuxRig rig;
    Error error;
    std::optional<Platform> p = linux_platform::makePlatform(rig.options, &error);
    ASSERT_TRUE(p) << error.localizedDescription();
    Configuration configuration(*p->hostBundle, *p->frameworkBundle, *p->userDefaults);
    Keychain keychain(*p->itemStore, *p->keyStore, *p->biometry, configuration);
    const std::string facet = "ios:bundle-id:com.example.linuxhost";
    const std::string user = Utils::sha256("alice");
    const std::string tag = facet + ".0F3D#0002.PRI." + user;
    ASSERT_TRUE(keychain.generate256EcKeyPair("PUB", tag));
    ASSERT_EQ(
        keychain.insertGenericPasswordWithAccount(
            user + ".0F3D#0002", "ASMKH.data.k", "ASMKH.data." + user, SecretBytes::fromText("{}")),
        StoreStatus::ok);
    ASSERT_TRUE(keychain.signWithECDSASignatureMessageX962SHA256(asBytes("m"), tag));
    if (reset) {
      EXPECT_EQ(keychain.resetAllKeyChain(), StoreStatus::ok);
    } else {
      testing::RecordingCorvaneDelegate delegate;
      Asm asmObject(delegate, keychain, configuration, facet, {});
      AsmRequest request;
      request.requestType = static_cast<uint64_t>(AsmRequestType::kDeregister);
      request.args = DeregisterIn{"alice", std::nullopt, std::nullopt};
      EXPECT_EQ(asmObject.deregister(request).statusCode, 0u);
    }
    EXPECT_FALSE(keychain.signWithECDSASignatureMessageX962SHA256(asBytes("m"), tag));
    ItemQuery sealedKeys;
    sealedKeys.service = "corvane.keystore";
    EXPECT_EQ(p->itemStore->findFirst(sealedKeys, nullptr), StoreStatus::notFound);
  }
}

}  // namespace
}  // namespace corvane
