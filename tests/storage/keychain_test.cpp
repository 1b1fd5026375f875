#include "storage/keychain.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "storage/keychain_rig.h"
#include "test_files.h"

namespace corvane {
namespace {

using testing::FakeItemStore;
using testing::KeychainRig;
using testing::ScriptedBiometry;
using testing::secret;
using testing::shown;
using testing::StoreKind;
using Attribute = Keychain::Attribute;

class KeychainTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.opened()); }
  std::string value(Attribute account, Attribute service, Attribute generic = std::nullopt) {
    return shown(k().findGenericPasswordWithAccount(account, service, generic));
  }
  Keychain& k() { return *rig_.keychain; }
  KeychainRig rig_{GetParam()};
};

TEST_P(KeychainTest, ItemOperations) {
  EXPECT_EQ(asText(k().corvaneQueryLabelForLastPatternLock()),
            "AUTHNR.last_patternlock.com.example.host.Corvane");
  EXPECT_EQ(k().insertGenericPasswordWithAccount("a", "s", "g", secret("one")), StoreStatus::ok);
  EXPECT_EQ(k().insertGenericPasswordWithAccount("a", "s", "other", secret("two")),
            StoreStatus::duplicate);
  EXPECT_EQ(k().insertOrUpdateGenericPasswordWithAccount("a", "s", "g", secret("three")),
            StoreStatus::ok);
  EXPECT_EQ(value("a", "s", "g"), "three");
  EXPECT_EQ(k().updateGenericPasswordWithAccount("missing", "s", "g", secret("x")),
            StoreStatus::notFound);
  for (std::string account : {"b", "c"}) {
    ASSERT_EQ(k().insertGenericPasswordWithAccount(account, "s", "g", secret("v")),
              StoreStatus::ok);
  }
  EXPECT_EQ(k().findGenericPasswordAccountDescWithService("s").value(),
            std::vector<std::string>({"c", "b", "a"}));
  EXPECT_EQ(k().findGenericPasswordAccountDescWithService("none").value(),
            std::vector<std::string>());
}

TEST_P(KeychainTest, AbsentArgumentsWidenDeletes) {
  const struct {
    Attribute account, service, generic;
    StoreStatus result;
    std::set<std::string> left;
  } cases[] = {
      {"a1", "s1", "g2", StoreStatus::notFound, {"a1/s1", "a1/s2", "a2/s1", "a2/s2"}},
      {"a1", std::nullopt, std::nullopt, StoreStatus::ok, {"a2/s1", "a2/s2"}},
      {std::nullopt, std::nullopt, "g1", StoreStatus::ok, {"a1/s2", "a2/s2"}},
      {std::nullopt, std::nullopt, std::nullopt, StoreStatus::ok, {}},
  };
  for (const auto& c : cases) {
    KeychainRig rig(GetParam());
    Keychain& k = *rig.keychain;
    for (std::string a : {"a1", "a2"}) {
      for (std::string s : {"s1", "s2"}) {
        ASSERT_EQ(k.insertGenericPasswordWithAccount(a, s, s == "s1" ? "g1" : "g2", secret(a)),
                  StoreStatus::ok);
      }
    }
    ASSERT_EQ(k.insertGenericPasswordWithAccount("a1", "AUTHNR.last_patternlock", std::nullopt,
                                                 secret("last")),
              StoreStatus::ok);
    EXPECT_EQ(k.deleteGenericPasswordWithAccount(c.account, c.service, c.generic), c.result);
    std::set<std::string> left;
    for (std::string a : {"a1", "a2"}) {
      for (std::string s : {"s1", "s2"}) {
        if (shown(k.findGenericPasswordWithAccount(a, s, std::nullopt)) != "-") {
          left.insert(a + "/" + s);
        }
      }
    }
    EXPECT_EQ(left, c.left) << c.account.value_or("*") << c.generic.value_or("*");
    EXPECT_EQ(
        shown(k.findGenericPasswordWithAccount("a1", "AUTHNR.last_patternlock", std::nullopt)),
        "last");
  }
}

TEST_P(KeychainTest, LastPatternItemSurvivesDeregAllDatasAndFallsToReset) {
  ASSERT_EQ(k().insertGenericPasswordWithAccount("u", "AUTHNR.data", "g", secret("record")),
            StoreStatus::ok);
  ASSERT_EQ(k().insertGenericPasswordWithAccount("u", "AUTHNR.last_patternlock", std::nullopt,
                                                 secret("last")),
            StoreStatus::ok);
  KeyAttributes labelled;
  labelled.label = k().corvaneQueryLabel();
  labelled.accessGroup = std::string(KeychainRig::kGroup);
  ASSERT_EQ(rig_.keys.generate("labelled.key", labelled, nullptr), StoreStatus::ok);
  EXPECT_EQ(k().deregAllDatas(), StoreStatus::ok);
  EXPECT_EQ(value("u", "AUTHNR.data"), "-");
  EXPECT_EQ(value("u", "AUTHNR.last_patternlock"), "last");
  EXPECT_EQ(k().deregAllDatas(), StoreStatus::notFound);
  EXPECT_EQ(k().resetAllKeyChain(), StoreStatus::ok);
  EXPECT_EQ(value("u", "AUTHNR.last_patternlock"), "-");
  EXPECT_FALSE(rig_.keys.contains("labelled.key"));
  EXPECT_EQ(k().corvaneAccessGroup().value(), KeychainRig::kGroup);  // the seed item stays
}

// The key under "AUTHNR.authKeyTag" wins over the older "AUTHNR.encryptKey" whichever was stored
// first; only "0F3D#0002" items count; and a first place that cannot be read is a failure, never
// a reason to use the older key.
TEST_P(KeychainTest, EncryptKeyFallsBackOnlyWhenTheFirstIsAbsent) {
  struct Stored {
    std::string account, service, value;
  };
  const Stored older{"0F3D#0002", "AUTHNR.encryptKey", "older"};
  const Stored newer{"0F3D#0002", "AUTHNR.authKeyTag", "newer"};
  const Stored otherAccount{"0f3d#0002", "AUTHNR.authKeyTag", "other account"};
  struct Case {
    std::string name;
    std::vector<Stored> stored;             // in this order
    std::optional<std::string> unreadable;  // a service whose reads fail (fake store only)
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"none", {}, std::nullopt, "-"},
      {"older only", {older}, std::nullopt, "older"},
      {"newer only", {newer}, std::nullopt, "newer"},
      {"older, then newer", {older, newer}, std::nullopt, "newer"},
      {"newer, then older", {newer, older}, std::nullopt, "newer"},
      {"newer under another account", {otherAccount, older}, std::nullopt, "older"},
      {"first place unreadable", {older, newer}, "AUTHNR.authKeyTag", "!"},
      {"first place unreadable, newer first", {newer, older}, "AUTHNR.authKeyTag", "!"},
      {"first place unreadable, empty", {older}, "AUTHNR.authKeyTag", "!"},
      {"second place unreadable, not needed", {older, newer}, "AUTHNR.encryptKey", "newer"},
      {"second place unreadable, needed", {older}, "AUTHNR.encryptKey", "!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    KeychainRig rig(GetParam());
    ASSERT_TRUE(rig.opened());
    for (const Stored& item : c.stored) {
      ASSERT_EQ(rig.keychain->insertGenericPasswordWithAccount(item.account, item.service,
                                                               std::nullopt, secret(item.value)),
                StoreStatus::ok);
    }
    if (c.unreadable && rig.fake() == nullptr) continue;
    if (c.unreadable) rig.fake()->failReadsOfService(*c.unreadable);
    EXPECT_EQ(shown(rig.keychain->getAesEncryptKey()), c.expected);
  }
}

TEST(KeychainStoreFailureTest, ReadsTellAFailingStoreFromAnAbsentItem) {
  KeychainRig rig(StoreKind::fake);
  Keychain& k = *rig.keychain;
  ASSERT_EQ(k.insertGenericPasswordWithAccount("a", "s", std::nullopt, secret("v")),
            StoreStatus::ok);
  rig.fake()->failAllReads(true);
  const Result<std::optional<SecretBytes>> found =
      k.findGenericPasswordWithAccount("a", "s", std::nullopt);
  ASSERT_FALSE(found.ok());
  EXPECT_EQ(found.error().code(), -36);
  EXPECT_FALSE(k.findGenericPasswordServicesDescWithAccount("a", std::nullopt).ok());
  EXPECT_FALSE(k.findGenericPasswordAccountDescWithService("s").ok());
  EXPECT_EQ(k.deleteGenericPasswordWithAccount("a", "s", std::nullopt), StoreStatus::storeError);
  rig.fake()->failAllReads(false);
  rig.fake()->failAllWrites(true);
  EXPECT_EQ(k.deleteGenericPasswordWithAccount("a", "s", std::nullopt), StoreStatus::storeError);
  EXPECT_EQ(k.deregAllDatas(), StoreStatus::storeError);
  EXPECT_EQ(k.resetAllKeyChain(), StoreStatus::storeError);
  rig.fake()->failAllWrites(false);
  EXPECT_EQ(shown(k.findGenericPasswordWithAccount("a", "s", std::nullopt)), "v");
}

TEST_P(KeychainTest, BiometryItemsAndEnrolmentChanges) {
  for (const auto& [level, survives] :
       std::vector<std::pair<std::string, bool>>{{"Convenience", true}, {"convenience", false}}) {
    KeychainRig rig(GetParam());
    rig.setSecurityLevel(level);
    Keychain& k = *rig.keychain;
    ASSERT_EQ(k.insertGenericPasswordWithAccount("u", "AUTHNR.data", "g", secret("record")),
              StoreStatus::ok);
    Error error;
    ASSERT_TRUE(k.insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("bio"), &error));
    rig.biometry.changeEnrolment();
    rig.biometry.queuePrompt(ScriptedBiometry::Prompt::success);
    std::optional<SecretBytes> read =
        k.findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", &error);
    EXPECT_EQ(read, survives ? std::optional(secret("bio")) : std::nullopt) << level;
    EXPECT_EQ(shown(k.findGenericPasswordWithAccount("u", "AUTHNR.data", "g")),
              survives ? "record" : "-");
    if (!survives) {
      EXPECT_EQ(error, Error::corvane(-25300, "Unable find item to keychain with status : -25300"));
    }
  }
}

TEST_P(KeychainTest, BiometryFailuresCarryTheKeychainStatus) {
  Error error;
  ASSERT_TRUE(k().insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("one"), &error));
  for (auto [prompt, status] : std::vector<std::pair<ScriptedBiometry::Prompt, int64_t>>{
           {ScriptedBiometry::Prompt::userCancel, -128},
           {ScriptedBiometry::Prompt::failed, -25293}}) {
    rig_.biometry.queuePrompt(prompt);
    EXPECT_FALSE(k().findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", &error));
    EXPECT_EQ(error, Error::corvane(status, "Unable find item to keychain with status : " +
                                                std::to_string(status)));
  }
  rig_.biometry.setAvailability(BiometryAvailability::lockout);
  EXPECT_FALSE(k().findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", &error));
  EXPECT_EQ(error.code(), -25308);
  rig_.biometry.failProtect(true);
  EXPECT_FALSE(k().insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("x"), &error));
  EXPECT_EQ(error, Error::corvane(-36, "Unable add item to keychain with status : -36"));
}

TEST_P(KeychainTest, AttestationSignatureVerifies) {
  struct Source : AttestationKeySource {
    std::optional<SecretBytes> key;
    std::optional<SecretBytes> attestationKey() const override { return key; }
  } source;
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(EVP_EC_gen("P-256"), EVP_PKEY_free);
  ASSERT_TRUE(pkey);
  SecretBytes raw(97);
  size_t pointLength = 0;
  BIGNUM* d = nullptr;
  ASSERT_EQ(EVP_PKEY_get_octet_string_param(pkey.get(), "pub", raw.mutableSecret().data(), 65,
                                            &pointLength),
            1);
  ASSERT_EQ(EVP_PKEY_get_bn_param(pkey.get(), "priv", &d), 1);
  ASSERT_EQ(BN_bn2binpad(d, raw.mutableSecret().data() + 65, 32), 32);
  BN_clear_free(d);
  unsigned char* der = nullptr;
  const int derLength = i2d_PUBKEY(pkey.get(), &der);
  const Bytes spki(der, der + derLength);
  OPENSSL_free(der);

  const Bytes message = {'m'};
  SecretBytes cut(raw.exposeSecret().first(96));
  SecretBytes mismatched = raw;
  mismatched.mutableSecret()[40] ^= 0x01;  // a point that does not belong to the scalar
  // A key that cannot be imported is asked for again at the next signature; the first one that
  // imports is kept, and signs on once the source gives nothing.
  Keychain signer(rig_.items(), rig_.keys, rig_.biometry, rig_.configuration, &source);
  for (const auto& [key, signs] :
       std::vector<std::pair<std::optional<SecretBytes>, bool>>{{std::nullopt, false},
                                                                {cut, false},
                                                                {mismatched, false},
                                                                {raw, true},
                                                                {std::nullopt, true}}) {
    source.key = key;
    std::optional<Bytes> signature = signer.signSHA256withECDSAX962ForBasicFull(message);
    ASSERT_EQ(signature.has_value(), signs) << key.has_value();
    if (signature) {
      EXPECT_TRUE(testing::verifies(spki, message, *signature));
    }
  }
}

TEST_P(KeychainTest, NoAccessGroupMeansNoAccess) {
  KeychainRig rig(GetParam(), /*defaultAccessGroup=*/false);
  EXPECT_EQ(rig.keychain->insertGenericPasswordWithAccount("a", "s", "g", secret("v")),
            StoreStatus::storeError);
  EXPECT_EQ(rig.keychain->findGenericPasswordWithAccount("a", "s", "g").error().code(), -34018);
  Error error;
  EXPECT_FALSE(
      rig.keychain->insertBioAuthDataWithAccount("a", "s", std::nullopt, secret("v"), &error));
  EXPECT_EQ(error, Error::corvane(-34018, "Unable add item to keychain with status : -34018"));
}

INSTANTIATE_TEST_SUITE_P(Stores, KeychainTest,
                         ::testing::Values(StoreKind::fake, StoreKind::sqlite),
                         [](const auto& info) { return testing::storeKindName(info.param); });

}  // namespace
}  // namespace corvane
