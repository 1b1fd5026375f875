#include "storage/pattern_manager.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "storage/keychain_rig.h"

namespace corvane {
namespace {

using testing::KeychainRig;
using testing::secret;
using testing::shown;
using testing::StoreKind;
using Pattern = std::vector<uint32_t>;

SecretBytes serialized(const Pattern& pattern) {
  return PatternManager::serializePattern(pattern).value_or(SecretBytes());
}

TEST(PatternFormatTest, KnownAnswerAndEveryDamage) {
  const Pattern pattern = {1, 2, 3, 0x01020304};
  const Bytes expected = {'C', 'P', 1, 0, 4, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 1, 2, 3, 4};
  const SecretBytes form = serialized(pattern);
  ASSERT_EQ(form, SecretBytes(expected));
  EXPECT_TRUE(PatternManager::serializedPatternEquals(form, pattern));
  EXPECT_FALSE(PatternManager::serializePattern(Pattern(PatternManager::kMaxPatternLength + 1, 0)));
  for (size_t bit = 0; bit < expected.size() * 8; ++bit) {
    SecretBytes flipped = form;
    flipped.mutableSecret()[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(PatternManager::serializedPatternEquals(flipped, pattern)) << bit;
  }
  EXPECT_FALSE(PatternManager::serializedPatternEquals(
      SecretBytes(form.exposeSecret().first(expected.size() - 1)), pattern));
  for (const auto& [a, b] : std::vector<std::pair<Pattern, Pattern>>{{{}, {0}}, {{1, 2}, {2, 1}}}) {
    EXPECT_FALSE(PatternManager::pattern(a, b));
    EXPECT_FALSE(PatternManager::serializedPatternEquals(serialized(a), b));
  }
}

TEST(PatternFormatTest, SealedPatternTamperFails) {
  const SecretBytes key(Bytes(32, 7));
  const std::optional<SecretBytes> sealed = PatternManager::sealPattern(key, serialized({1, 2, 3}));
  ASSERT_TRUE(sealed);
  // Format byte, 12-byte IV, 17 bytes of serialised pattern, 16-byte tag.
  ASSERT_EQ(sealed->size(), 1u + 12u + 17u + 16u);
  EXPECT_EQ(sealed->exposeSecret()[0], 0x01);
  EXPECT_EQ(PatternManager::openSealedPattern(key, *sealed), serialized({1, 2, 3}));
  // Every seal draws its own IV: sealing the same pattern twice never gives the same bytes, so
  // two users' equal patterns (or one user's old and new) cannot be told apart or XORed.
  const std::optional<SecretBytes> again = PatternManager::sealPattern(key, serialized({1, 2, 3}));
  ASSERT_TRUE(again);
  EXPECT_NE(*again, *sealed);
  EXPECT_FALSE(std::equal(sealed->exposeSecret().begin() + 1, sealed->exposeSecret().begin() + 13,
                          again->exposeSecret().begin() + 1));
  for (size_t bit = 0; bit < sealed->size() * 8; ++bit) {
    SecretBytes flipped = *sealed;
    flipped.mutableSecret()[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(PatternManager::openSealedPattern(key, flipped)) << bit;
  }
  // Format, IV and tag alone are refused; one byte more is opened.
  EXPECT_FALSE(PatternManager::openSealedPattern(key, *PatternManager::sealPattern(key, {})));
  EXPECT_EQ(PatternManager::openSealedPattern(key, *PatternManager::sealPattern(key, secret("x"))),
            secret("x"));
}

class PatternManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.opened()); }
  KeychainRig rig_{StoreKind::fake};
  PatternManager manager_{*rig_.keychain};
};

TEST_F(PatternManagerTest, CorrectAndIncorrectPatternPerUser) {
  ASSERT_TRUE(manager_.updatePattern(Pattern{1, 2, 3}, "alice").ok());
  ASSERT_TRUE(manager_.updatePattern(Pattern{3, 2, 1}, "bob").ok());
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice").value());
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{3, 2, 1}, "alice").value());
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{3, 2, 1}, "bob").value());
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "carol").value());
  EXPECT_EQ(PatternManager::lastPatternAccount("abc"),
            "AUTHNR.last_patternlock."
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.0F3D#0002");
  ASSERT_TRUE(manager_.updatePattern(Pattern{4, 5}, "alice").ok());  // replaces
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{4, 5}, "alice").value());
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice").value());
  // A store that cannot be read is an error, never a wrong pattern that would count against the
  // lockout; nor is a pattern that could not be stored a success.
  rig_.fake()->failAllReads(true);
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{4, 5}, "alice").ok());
  EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{4, 5}, "alice").ok());
  EXPECT_FALSE(manager_.updateLastPatternForTheFirstTime().ok());
  rig_.fake()->failAllReads(false);
  rig_.fake()->failAllWrites(true);
  EXPECT_FALSE(manager_.updatePattern(Pattern{6, 7}, "alice").ok());
  EXPECT_FALSE(manager_.updateLastPatternForUsername("alice").ok());
}

TEST_F(PatternManagerTest, SameAsLastPatternCarriesItsOwnKey) {
  ASSERT_TRUE(manager_.updatePattern(Pattern{1, 2, 3}, "alice").ok());
  EXPECT_FALSE(
      manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice").value());  // no last item yet
  ASSERT_TRUE(manager_.updateLastPatternForUsername("alice").ok());
  EXPECT_TRUE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice").value());
  EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{3, 2, 1}, "alice").value());
  ASSERT_EQ(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
                Keychain::kAaid, Keychain::kServiceAuthKeyTag, std::nullopt,
                SecretBytes::fromText("a different key of 32 bytes ....")),
            StoreStatus::ok);
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice").value());
  EXPECT_TRUE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice").value());

  const std::string account = PatternManager::lastPatternAccount("alice");
  const std::string text(shown(rig_.keychain->findGenericPasswordWithAccount(
      account, Keychain::kServiceLastPatternLock, std::nullopt)));
  const std::string key = text.substr(13, 43), sealed = text.substr(74, 62);
  ASSERT_EQ(text, "{\"last_key\":\"" + key + "\",\"last_pattern\":\"" + sealed + "\"}");
  for (const std::string& junk :
       {std::string("{}"), "{\"last_key\":1,\"last_pattern\":\"" + sealed + "\"}",
        "{\"last_key\":\"" + key + "\",\"last_pattern\":\"" + sealed + "*\"}",
        text.substr(0, text.size() - 1)}) {
    ASSERT_EQ(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
                  account, Keychain::kServiceLastPatternLock, std::nullopt, secret(junk)),
              StoreStatus::ok);
    EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice").value()) << junk;
  }
}

// With both stored keys, patterns are sealed and opened under the "AUTHNR.authKeyTag" one,
// whichever was stored first: the older key alone cannot open them. With only the older key, it
// seals and no new key is made.
TEST(PatternManagerKeyTest, PatternsUseTheNewerKeyWhenBothExist) {
  const SecretBytes older = secret("older key, thirty-two bytes ....");
  const SecretBytes newer = secret("newer key, thirty-two bytes ....");
  ASSERT_EQ(older.size(), PatternManager::kKeySize);
  ASSERT_EQ(newer.size(), PatternManager::kKeySize);
  const auto store = [](Keychain& keychain, std::string_view service, const SecretBytes& key) {
    return keychain.insertOrUpdateGenericPasswordWithAccount("0F3D#0002", service, std::nullopt,
                                                             key) == StoreStatus::ok;
  };
  for (bool newerFirst : {false, true}) {
    SCOPED_TRACE(newerFirst ? "newer stored first" : "older stored first");
    KeychainRig rig(StoreKind::fake);
    ASSERT_TRUE(rig.opened());
    Keychain& keychain = *rig.keychain;
    PatternManager manager(keychain);
    for (bool newerNow : {newerFirst, !newerFirst}) {
      ASSERT_TRUE(newerNow ? store(keychain, "AUTHNR.authKeyTag", newer)
                           : store(keychain, "AUTHNR.encryptKey", older));
    }
    EXPECT_EQ(manager.getPatternLockEncryptKey().value(), newer);
    ASSERT_TRUE(manager.updatePattern(Pattern{1, 2, 3}, "alice").ok());
    ASSERT_EQ(
        keychain.deleteGenericPasswordWithAccount("0F3D#0002", "AUTHNR.encryptKey", std::nullopt),
        StoreStatus::ok);
    EXPECT_TRUE(manager.isCorrectPattern(Pattern{1, 2, 3}, "alice").value());
    ASSERT_TRUE(store(keychain, "AUTHNR.encryptKey", older));
    ASSERT_EQ(
        keychain.deleteGenericPasswordWithAccount("0F3D#0002", "AUTHNR.authKeyTag", std::nullopt),
        StoreStatus::ok);
    EXPECT_FALSE(manager.isCorrectPattern(Pattern{1, 2, 3}, "alice").value());
  }

  KeychainRig rig(StoreKind::fake);
  ASSERT_TRUE(rig.opened());
  PatternManager manager(*rig.keychain);
  ASSERT_TRUE(store(*rig.keychain, "AUTHNR.encryptKey", older));
  ASSERT_TRUE(manager.updatePattern(Pattern{4, 5}, "bob").ok());
  EXPECT_EQ(shown(rig.keychain->findGenericPasswordWithAccount("0F3D#0002", "AUTHNR.authKeyTag",
                                                               std::nullopt)),
            "-");
  EXPECT_EQ(manager.getPatternLockEncryptKey().value(), older);
  EXPECT_TRUE(manager.isCorrectPattern(Pattern{4, 5}, "bob").value());
}

TEST(PatternManagerSqliteTest, NoClearUserNameOrPatternInTheStoreFiles) {
  KeychainRig rig(StoreKind::sqlite);
  ASSERT_TRUE(rig.opened());
  PatternManager manager(*rig.keychain);
  const std::string user = "alice.liddell@example.org";
  ASSERT_TRUE(manager.updatePattern(Pattern{0, 4, 8, 5, 2}, user).ok());
  ASSERT_TRUE(manager.updateLastPatternForUsername(user).ok());
  ASSERT_TRUE(manager.isSameAsLastPattern(Pattern{0, 4, 8, 5, 2}, user).value());
  std::string contents;
  for (const char* suffix : {"", "-wal"}) {
    std::ifstream in(rig.file().string() + suffix, std::ios::binary);
    contents.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  EXPECT_NE(contents.find(Utils::sha256(user)), std::string::npos);
  EXPECT_EQ(contents.find("alice"), std::string::npos);
  EXPECT_EQ(contents.find(serialized({0, 4, 8, 5, 2}).exposeSecretText()), std::string::npos);
}

}  // namespace
}  // namespace corvane
