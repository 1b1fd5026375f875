#include "storage/keychain.h"

#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "linux/no_biometry.h"
#include "storage/keychain_rig.h"
#include "test_files.h"

namespace corvane {
namespace {

using testing::KeychainRig;
using testing::ScriptedBiometry;
using testing::secret;
using testing::StoreKind;
using testing::verifies;
using Attribute = Keychain::Attribute;

Bytes utf8(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

class KeychainTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.opened()); }
  // The value under (account, service), or "-" when there is none.
  std::string value(Attribute account, Attribute service, Attribute generic = std::nullopt) {
    std::optional<SecretBytes> found =
        chain().findGenericPasswordWithAccount(account, service, generic);
    return found ? std::string(found->exposeSecretText()) : "-";
  }
  Keychain& chain() { return *rig_.keychain; }

  KeychainRig rig_{GetParam()};
};

TEST_P(KeychainTest, LabelsAccessGroupAndTheAttributesOfEveryItem) {
  EXPECT_EQ(chain().corvaneQueryLabel(), utf8("com.example.host.Corvane"));
  EXPECT_EQ(chain().corvaneQueryLabelForLastPatternLock(),
            utf8("AUTHNR.last_patternlock.com.example.host.Corvane"));
  EXPECT_EQ(chain().bundleSeedID(), "CORVANELNX");
  EXPECT_EQ(chain().corvaneAccessGroup(), KeychainRig::kGroup);

  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("a", "AUTHNR.data", "g", secret("v")));
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("a", "AUTHNR.last_patternlock", std::nullopt,
                                                       secret("last")));
  ItemQuery bySeed{"bundleSeedID", "", std::nullopt, std::nullopt, std::nullopt};
  ItemQuery byData{"a", "AUTHNR.data", std::nullopt, std::nullopt, std::nullopt};
  ItemQuery byLast{"a", "AUTHNR.last_patternlock", std::nullopt, std::nullopt, std::nullopt};
  ItemAttributes seed, data, last;
  ASSERT_EQ(rig_.items().findFirstAttributes(bySeed, &seed), StoreStatus::ok);
  ASSERT_EQ(rig_.items().findFirstAttributes(byData, &data), StoreStatus::ok);
  ASSERT_EQ(rig_.items().findFirstAttributes(byLast, &last), StoreStatus::ok);
  EXPECT_EQ(seed.label, std::nullopt);  // the seed item is no data of the system: no label
  EXPECT_EQ(data.label, chain().corvaneQueryLabel());
  EXPECT_EQ(last.label, chain().corvaneQueryLabelForLastPatternLock());
  for (const ItemAttributes* item : {&seed, &data, &last}) {
    EXPECT_EQ(item->accessGroup, KeychainRig::kGroup);
    EXPECT_EQ(item->accessibility, "WhenPasscodeSetThisDeviceOnly");
  }
  EXPECT_EQ(data.generic, "g");
  // The seed item is added once and then only read.
  std::vector<std::string> accounts;
  ASSERT_EQ(rig_.items().listAccounts({}, &accounts), StoreStatus::ok);
  EXPECT_EQ(std::count(accounts.begin(), accounts.end(), "bundleSeedID"), 1);
}

TEST_P(KeychainTest, DuplicateInsertFailsAndInsertOrUpdateReplaces) {
  EXPECT_TRUE(chain().insertGenericPasswordWithAccount("a", "s", "g", secret("one")));
  EXPECT_FALSE(chain().insertGenericPasswordWithAccount("a", "s", "g", secret("two")));
  // The generic attribute is no part of the identity.
  EXPECT_FALSE(chain().insertGenericPasswordWithAccount("a", "s", "other", secret("two")));
  EXPECT_EQ(value("a", "s"), "one");
  EXPECT_TRUE(chain().insertOrUpdateGenericPasswordWithAccount("a", "s", "g", secret("three")));
  EXPECT_EQ(value("a", "s", "g"), "three");
  EXPECT_TRUE(chain().insertOrUpdateGenericPasswordWithAccount("b", "s", "g", secret("new")));
  EXPECT_EQ(value("b", "s"), "new");
  EXPECT_TRUE(chain().updateGenericPasswordWithAccount("b", "s", "g", secret("four")));
  EXPECT_EQ(value("b", "s"), "four");
  EXPECT_FALSE(chain().updateGenericPasswordWithAccount("missing", "s", "g", secret("x")));
  EXPECT_EQ(value("missing", "s"), "-");
}

TEST_P(KeychainTest, ListingsAreNewestFirst) {
  for (std::string account : {"first", "second", "third"}) {
    ASSERT_TRUE(chain().insertGenericPasswordWithAccount(account, "svc", "gen", secret("v")));
  }
  for (std::string service : {"s1", "s2", "s3"}) {
    ASSERT_TRUE(chain().insertGenericPasswordWithAccount("user", service, "gen", secret("v")));
  }
  using List = std::vector<std::string>;
  EXPECT_EQ(chain().findGenericPasswordAccountDescWithService("svc"),
            List({"third", "second", "first"}));
  EXPECT_EQ(chain().findGenericPasswordServicesDescWithAccount("user", "gen"),
            List({"s3", "s2", "s1"}));
  EXPECT_EQ(chain().findGenericPasswordAccountDescWithService("none"), std::nullopt);
  EXPECT_EQ(chain().findGenericPasswordServicesDescWithAccount("user", "other"), std::nullopt);
}

TEST_P(KeychainTest, AbsentArgumentsWidenDeletes) {
  struct Case {
    Attribute account, service, generic;
    bool result;
    std::set<std::string> left;  // "account/service" of the items that remain
  };
  const std::vector<Case> cases = {
      {"a1", "s1", "g1", true, {"a1/s2", "a2/s1", "a2/s2"}},
      {"a1", "s1", "g2", false, {"a1/s1", "a1/s2", "a2/s1", "a2/s2"}},
      {"a1", std::nullopt, std::nullopt, true, {"a2/s1", "a2/s2"}},
      {std::nullopt, "s2", std::nullopt, true, {"a1/s1", "a2/s1"}},
      {std::nullopt, std::nullopt, "g1", true, {"a1/s2", "a2/s2"}},
      {"a2", std::nullopt, "g2", true, {"a1/s1", "a1/s2", "a2/s1"}},
      {std::nullopt, std::nullopt, std::nullopt, true, {}},
  };
  for (const Case& c : cases) {
    KeychainRig rig(GetParam());
    Keychain& k = *rig.keychain;
    for (std::string a : {"a1", "a2"}) {
      for (std::string s : {"s1", "s2"}) {
        ASSERT_TRUE(k.insertGenericPasswordWithAccount(a, s, s == "s1" ? "g1" : "g2", secret(a)));
      }
    }
    // Another label: a widened delete does not reach the last-pattern items.
    ASSERT_TRUE(k.insertGenericPasswordWithAccount("a1", "AUTHNR.last_patternlock", std::nullopt,
                                                   secret("last")));
    EXPECT_EQ(k.deleteGenericPasswordWithAccount(c.account, c.service, c.generic), c.result);
    std::set<std::string> left;
    for (std::string a : {"a1", "a2"}) {
      for (std::string s : {"s1", "s2"}) {
        if (k.findGenericPasswordWithAccount(a, s, std::nullopt)) left.insert(a + "/" + s);
      }
    }
    EXPECT_EQ(left, c.left) << c.account.value_or("*") << " " << c.service.value_or("*") << " "
                            << c.generic.value_or("*");
    EXPECT_TRUE(k.findGenericPasswordWithAccount("a1", "AUTHNR.last_patternlock", std::nullopt));
  }
}

TEST_P(KeychainTest, LastPatternItemSurvivesDeregAllDatasAndFallsToReset) {
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("u", "AUTHNR.data", "g", secret("record")));
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("u", "AUTHNR.patternlock", std::nullopt,
                                                       secret("sealed")));
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("u", "AUTHNR.last_patternlock", std::nullopt,
                                                       secret("last")));
  // Keys: one made by the keychain (label kept in the application label) and one that carries the
  // label attribute itself.
  ASSERT_TRUE(chain().generate256EcKeyPair("pub", "user.key"));
  KeyAttributes labelled;
  labelled.label = chain().corvaneQueryLabel();
  labelled.accessGroup = std::string(KeychainRig::kGroup);
  ASSERT_EQ(rig_.keys.generate("labelled.key", labelled, nullptr), StoreStatus::ok);

  EXPECT_TRUE(chain().deregAllDatas());
  EXPECT_EQ(value("u", "AUTHNR.data"), "-");
  EXPECT_EQ(value("u", "AUTHNR.patternlock"), "-");
  EXPECT_EQ(value("u", "AUTHNR.last_patternlock"), "last");
  EXPECT_FALSE(chain().deregAllDatas());  // nothing left to delete

  EXPECT_TRUE(chain().resetAllKeyChain());
  EXPECT_EQ(value("u", "AUTHNR.last_patternlock"), "-");
  EXPECT_TRUE(rig_.keys.contains("user.key"));
  EXPECT_FALSE(rig_.keys.contains("labelled.key"));
  EXPECT_EQ(chain().corvaneAccessGroup(), KeychainRig::kGroup);  // the seed item stays
  EXPECT_TRUE(chain().resetAllKeyChain());                       // also on an empty store
}

TEST_P(KeychainTest, AesEncryptKeyPrefersAuthKeyTag) {
  EXPECT_EQ(chain().getAesEncryptKey(), std::nullopt);
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("0F3D#0002", "AUTHNR.encryptKey",
                                                       std::nullopt, secret("older")));
  EXPECT_EQ(chain().getAesEncryptKey(), secret("older"));
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("0F3D#0002", "AUTHNR.authKeyTag",
                                                       std::nullopt, secret("current")));
  EXPECT_EQ(chain().getAesEncryptKey(), secret("current"));
}

TEST_P(KeychainTest, UserKeysGiveTheSpkiAndVerifiableSignatures) {
  std::optional<Bytes> spki = chain().generate256EcKeyPair("app.0F3D#0002.PUB.h", "app.PRI.h");
  ASSERT_TRUE(spki);
  ASSERT_EQ(spki->size(), 91u);
  EXPECT_TRUE(std::equal(std::begin(kP256SpkiPrefix), std::end(kP256SpkiPrefix), spki->begin()));
  EXPECT_EQ((*spki)[26], 0x04);
  EXPECT_FALSE(rig_.keys.contains("app.0F3D#0002.PUB.h"));  // the public tag stores nothing

  const Bytes message = utf8("signed data");
  std::optional<Bytes> signature =
      chain().signWithECDSASignatureMessageX962SHA256(message, "app.PRI.h");
  ASSERT_TRUE(signature);
  EXPECT_TRUE(verifies(*spki, message, *signature));
  EXPECT_FALSE(chain().signWithECDSASignatureMessageX962SHA256(message, "other"));
  rig_.keys.failSign(true);
  EXPECT_FALSE(chain().signWithECDSASignatureMessageX962SHA256(message, "app.PRI.h"));
  rig_.keys.failGenerate(true);
  EXPECT_FALSE(chain().generate256EcKeyPair("p", "q"));
}

// Biometry with each security level: only "Convenience" binds the item to any enrolment.
TEST_P(KeychainTest, BiometryItemsAndEnrolmentChanges) {
  struct Case {
    std::optional<std::string> level;
    bool survives;
  };
  for (const Case& c : std::vector<Case>{{"Convenience", true},
                                         {"Strong", false},
                                         {"convenience", false},
                                         {std::nullopt, false}}) {
    KeychainRig rig(GetParam());
    if (c.level) rig.setSecurityLevel(*c.level);
    Keychain& k = *rig.keychain;
    ASSERT_TRUE(k.insertGenericPasswordWithAccount("u", "AUTHNR.data", "g", secret("record")));
    ASSERT_TRUE(k.insertGenericPasswordWithAccount("u", "AUTHNR.last_patternlock", std::nullopt,
                                                   secret("last")));
    Error error;
    ASSERT_TRUE(k.insertBioAuthDataWithAccount("bio_account_h", "bio_service_h", std::nullopt,
                                               secret("bio secret"), &error));
    rig.biometry.queuePrompt(ScriptedBiometry::Prompt::success);
    EXPECT_EQ(k.findBioAuthDataWithAccount("bio_account_h", "bio_service_h", std::nullopt,
                                           "Touch to sign in", &error),
              secret("bio secret"));

    rig.biometry.changeEnrolment();
    rig.biometry.queuePrompt(ScriptedBiometry::Prompt::success);
    error = Error();
    std::optional<SecretBytes> read = k.findBioAuthDataWithAccount("bio_account_h", "bio_service_h",
                                                                   std::nullopt, "Again", &error);
    const std::string level = c.level.value_or("(absent)");
    if (c.survives) {
      EXPECT_EQ(read, secret("bio secret")) << level;
      EXPECT_TRUE(k.findGenericPasswordWithAccount("u", "AUTHNR.data", "g")) << level;
      EXPECT_EQ(rig.biometry.promptsShown(),
                std::vector<std::string>({"Touch to sign in", "Again"}));
    } else {
      EXPECT_EQ(read, std::nullopt) << level;
      EXPECT_EQ(error, Error::corvane(-25300, "Unable find item to keychain with status : -25300"));
      EXPECT_EQ(rig.biometry.promptsShown(), std::vector<std::string>({"Touch to sign in"}));
      // Every registration is gone, the biometry item with it; the last pattern stays.
      EXPECT_FALSE(k.findGenericPasswordWithAccount("u", "AUTHNR.data", "g")) << level;
      EXPECT_FALSE(
          k.findGenericPasswordWithAccount("bio_account_h", "bio_service_h", std::nullopt));
      EXPECT_TRUE(k.findGenericPasswordWithAccount("u", "AUTHNR.last_patternlock", std::nullopt));
    }
  }
}

TEST_P(KeychainTest, BiometryFailuresCarryTheKeychainStatus) {
  Error error;
  ASSERT_TRUE(
      chain().insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("one"), &error));
  // A second insert replaces the item.
  ASSERT_TRUE(
      chain().insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("two"), &error));
  ASSERT_TRUE(chain().insertGenericPasswordWithAccount("u", "AUTHNR.data", "g", secret("record")));
  struct Case {
    ScriptedBiometry::Prompt prompt;
    int64_t status;
  };
  for (const Case& c : {Case{ScriptedBiometry::Prompt::userCancel, -128},
                        Case{ScriptedBiometry::Prompt::failed, -25293}}) {
    rig_.biometry.queuePrompt(c.prompt);
    EXPECT_FALSE(chain().findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", &error));
    EXPECT_EQ(error, Error::corvane(c.status, "Unable find item to keychain with status : " +
                                                  std::to_string(c.status)));
  }
  rig_.biometry.setAvailability(BiometryAvailability::lockout);
  EXPECT_FALSE(chain().findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", &error));
  EXPECT_EQ(error.code(), -25308);
  rig_.biometry.setAvailability(BiometryAvailability::available);
  EXPECT_TRUE(chain().findGenericPasswordWithAccount("u", "AUTHNR.data", "g"));  // no wipe
  rig_.biometry.queuePrompt(ScriptedBiometry::Prompt::success);
  EXPECT_EQ(chain().findBioAuthDataWithAccount("acc", "svc", std::nullopt, "p", nullptr),
            secret("two"));

  rig_.biometry.failProtect(true);
  EXPECT_FALSE(
      chain().insertBioAuthDataWithAccount("acc", "svc", std::nullopt, secret("x"), &error));
  EXPECT_EQ(error, Error::corvane(-36, "Unable add item to keychain with status : -36"));
  EXPECT_EQ(rig_.biometry.unscriptedPrompts(), 0);

  // A missing item: not found, and the wipe.
  EXPECT_FALSE(chain().findBioAuthDataWithAccount("nobody", "svc", std::nullopt, "p", &error));
  EXPECT_EQ(error.code(), -25300);
  EXPECT_FALSE(chain().findGenericPasswordWithAccount("u", "AUTHNR.data", "g"));
}

TEST_P(KeychainTest, AttestationSignatureVerifies) {
  struct Source : AttestationKeySource {
    std::optional<SecretBytes> key;
    std::optional<SecretBytes> attestationKey() const override { return key; }
  } source;
  EVP_PKEY* made = EVP_EC_gen("P-256");
  ASSERT_NE(made, nullptr);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(made, EVP_PKEY_free);
  SecretBytes raw(97);
  size_t pointLength = 0;
  BIGNUM* d = nullptr;
  ASSERT_EQ(
      EVP_PKEY_get_octet_string_param(made, "pub", raw.mutableSecret().data(), 65, &pointLength),
      1);
  ASSERT_EQ(EVP_PKEY_get_bn_param(made, "priv", &d), 1);
  ASSERT_EQ(BN_bn2binpad(d, raw.mutableSecret().data() + 65, 32), 32);
  BN_clear_free(d);
  unsigned char* der = nullptr;
  const int derLength = i2d_PUBKEY(made, &der);
  ASSERT_GT(derLength, 0);
  const Bytes spki(der, der + derLength);
  OPENSSL_free(der);

  Keychain signer(rig_.items(), rig_.keys, rig_.biometry, rig_.configuration, &source);
  const Bytes message = utf8("attested registration");
  EXPECT_FALSE(signer.signSHA256withECDSAX962ForBasicFull(message));  // no key from the source
  source.key = raw;
  std::optional<Bytes> signature = signer.signSHA256withECDSAX962ForBasicFull(message);
  ASSERT_TRUE(signature);
  EXPECT_TRUE(verifies(spki, message, *signature));
  EXPECT_FALSE(Keychain(rig_.items(), rig_.keys, rig_.biometry, rig_.configuration)
                   .signSHA256withECDSAX962ForBasicFull(message));

  // Every shorter form, and a point that does not belong to the scalar, is refused.
  for (size_t length = 0; length < 97; ++length) {
    source.key = SecretBytes(raw.exposeSecret().first(length));
    EXPECT_FALSE(signer.signSHA256withECDSAX962ForBasicFull(message)) << length;
  }
  for (size_t byte : {size_t{0}, size_t{1}, size_t{40}, size_t{64}, size_t{80}}) {
    source.key = raw;
    source.key->mutableSecret()[byte] ^= 0x01;
    EXPECT_FALSE(signer.signSHA256withECDSAX962ForBasicFull(message)) << byte;
  }
}

// Without a bundle seed ID there is no access group, and nothing is read or written.
TEST_P(KeychainTest, NoAccessGroupMeansNoAccess) {
  KeychainRig rig(GetParam(), /*defaultAccessGroup=*/false);
  Keychain& k = *rig.keychain;
  EXPECT_EQ(k.bundleSeedID(), std::nullopt);
  EXPECT_EQ(k.corvaneAccessGroup(), std::nullopt);
  EXPECT_FALSE(k.insertGenericPasswordWithAccount("a", "s", "g", secret("v")));
  EXPECT_FALSE(k.insertOrUpdateGenericPasswordWithAccount("a", "s", "g", secret("v")));
  EXPECT_FALSE(k.generate256EcKeyPair("p", "q"));
  Error error;
  EXPECT_FALSE(k.insertBioAuthDataWithAccount("a", "s", std::nullopt, secret("v"), &error));
  EXPECT_EQ(error, Error::corvane(-34018, "Unable add item to keychain with status : -34018"));
  EXPECT_TRUE(k.resetAllKeyChain());
}

TEST_P(KeychainTest, SeedIsTheFirstPieceOfTheStoredAccessGroup) {
  for (auto [group, seed] : std::vector<std::pair<std::string, std::string>>{
           {"TEAM.com.x", "TEAM"}, {"NODOT", "NODOT"}, {".lead", ""}}) {
    KeychainRig rig(GetParam(), false);
    ItemAttributes item{"bundleSeedID", "", std::nullopt, std::nullopt, group, std::nullopt};
    ASSERT_EQ(rig.items().add(item, SecretBytes()), StoreStatus::ok);
    EXPECT_EQ(rig.keychain->bundleSeedID(), seed);
    EXPECT_EQ(rig.keychain->corvaneAccessGroup(), seed + ".com.example.host");
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, KeychainTest,
                         ::testing::Values(StoreKind::fake, StoreKind::sqlite),
                         [](const auto& info) { return testing::storeKindName(info.param); });

TEST(KeychainFakeStoreTest, StoreFailuresAreFalseOrAbsent) {
  KeychainRig rig(StoreKind::fake);
  Keychain& k = *rig.keychain;
  ASSERT_TRUE(k.insertGenericPasswordWithAccount("a", "s", "g", secret("v")));
  rig.fake()->failAllWrites(true);
  EXPECT_FALSE(k.insertOrUpdateGenericPasswordWithAccount("a", "s", "g", secret("w")));
  EXPECT_FALSE(k.updateGenericPasswordWithAccount("a", "s", "g", secret("w")));
  EXPECT_FALSE(k.deleteGenericPasswordWithAccount("a", "s", "g"));
  EXPECT_FALSE(k.deregAllDatas());
  Error error;
  EXPECT_FALSE(k.insertBioAuthDataWithAccount("b", "s", std::nullopt, secret("v"), &error));
  EXPECT_EQ(error.code(), -36);
  rig.fake()->failAllWrites(false);
  rig.fake()->failAllReads(true);
  EXPECT_FALSE(k.findGenericPasswordWithAccount("a", "s", "g"));
  EXPECT_FALSE(k.findGenericPasswordAccountDescWithService("s"));
  EXPECT_FALSE(k.getAesEncryptKey());
}

TEST(NoBiometryTest, ReportsNotSupportedForEverything) {
  linux::NoBiometry none;
  EXPECT_EQ(none.availability(), BiometryAvailability::notAvailable);
  EXPECT_EQ(none.biometryType(), BiometryType::none);
  EXPECT_EQ(none.enrolmentState(), std::nullopt);
  std::vector<uint8_t> form;
  EXPECT_EQ(none.protectItem(secret("v"), BiometryBinding::anyEnrolment, &form),
            BiometryStatus::notAvailable);
  SecretBytes value;
  EXPECT_EQ(none.readProtectedItem(form, "prompt", &value), BiometryStatus::notAvailable);

  KeychainRig rig(StoreKind::fake);
  Keychain k(rig.items(), rig.keys, none, rig.configuration);
  Error error;
  EXPECT_FALSE(k.insertBioAuthDataWithAccount("a", "s", std::nullopt, secret("v"), &error));
  EXPECT_EQ(error, Error::corvane(-25308, "Unable add item to keychain with status : -25308"));
}

}  // namespace
}  // namespace corvane
