#include "verification/pattern_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "crypto/iag_aes_gcm.h"
#include "storage/keychain_rig.h"

namespace corvane {
namespace {

using testing::KeychainRig;
using testing::secret;
using testing::StoreKind;
using Pattern = std::vector<uint32_t>;

SecretBytes serialized(const Pattern& pattern) {
  std::optional<SecretBytes> out = PatternManager::serializePattern(pattern);
  return out ? *out : SecretBytes();
}

// The serialised form and the sealing, each pinned by a known answer, then broken every way.
TEST(PatternFormatTest, KnownAnswerAndEveryDamage) {
  const Pattern pattern = {1, 2, 3, 0x01020304};
  const Bytes expected = {'C', 'P', 1, 0, 4, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 1, 2, 3, 4};
  const SecretBytes form = serialized(pattern);
  ASSERT_EQ(form, SecretBytes(expected));
  EXPECT_TRUE(PatternManager::serializedPatternEquals(form, pattern));
  EXPECT_TRUE(PatternManager::serializedPatternEquals(serialized({}), Pattern{}));
  EXPECT_FALSE(PatternManager::serializePattern(Pattern(PatternManager::kMaxPatternLength + 1, 0)));
  for (size_t bit = 0; bit < expected.size() * 8; ++bit) {
    SecretBytes flipped = form;
    flipped.mutableSecret()[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(PatternManager::serializedPatternEquals(flipped, pattern)) << bit;
  }
  for (size_t length = 0; length < expected.size(); ++length) {
    EXPECT_FALSE(PatternManager::serializedPatternEquals(
        SecretBytes(form.exposeSecret().first(length)), pattern))
        << length;
  }
  // Another serialisation of the same list (a JSON array) does not match.
  EXPECT_FALSE(PatternManager::serializedPatternEquals(secret("[1,2,3,16909060]"), pattern));
}

TEST(PatternFormatTest, ListEquality) {
  struct Case {
    Pattern a, b;
    bool equal;
  };
  for (const Case& c : std::vector<Case>{{{1, 2, 3}, {1, 2, 3}, true},
                                         {{1, 2, 3}, {3, 2, 1}, false},
                                         {{}, {}, true},
                                         {{1, 2}, {1, 2, 3}, false},
                                         {{0}, {}, false},
                                         {{4, 4}, {4, 5}, false}}) {
    EXPECT_EQ(PatternManager::pattern(c.a, c.b), c.equal);
    EXPECT_EQ(PatternManager::pattern(c.b, c.a), c.equal);
    EXPECT_EQ(PatternManager::serializedPatternEquals(serialized(c.a), c.b), c.equal);
  }
}

TEST(PatternFormatTest, SealingAndTheSeventeenByteFloor) {
  const SecretBytes key(
      Utils::hexString2NSData("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"));
  const std::optional<SecretBytes> sealed = PatternManager::sealPattern(key, serialized({1, 2, 3}));
  ASSERT_TRUE(sealed);
  ASSERT_EQ(sealed->size(), 17u + 16u);
  EXPECT_EQ(PatternManager::openSealedPattern(key, *sealed), serialized({1, 2, 3}));
  for (size_t bit = 0; bit < sealed->size() * 8; ++bit) {
    SecretBytes flipped = *sealed;
    flipped.mutableSecret()[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_FALSE(PatternManager::openSealedPattern(key, flipped)) << bit;
  }
  // A tag alone (the valid sealing of nothing) is refused without being opened; one byte more is
  // opened.
  const std::optional<SecretBytes> empty = PatternManager::sealPattern(key, SecretBytes());
  const std::optional<SecretBytes> one = PatternManager::sealPattern(key, secret("x"));
  ASSERT_TRUE(empty && one);
  ASSERT_EQ(empty->size(), 16u);
  ASSERT_EQ(one->size(), 17u);
  const std::array<uint8_t, 12> zeroIv{};
  const Bytes tag(empty->exposeSecret().begin(), empty->exposeSecret().end());
  ASSERT_TRUE(IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(
      IAGCipheredData({}, tag), {}, zeroIv, key.exposeSecret(), nullptr));
  EXPECT_FALSE(PatternManager::openSealedPattern(key, *empty));
  EXPECT_EQ(PatternManager::openSealedPattern(key, *one), secret("x"));
}

class PatternManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(rig_.opened()); }
  // Replaces the pattern-store key.
  void setKey(std::string_view text) {
    ASSERT_TRUE(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
        Keychain::kAaid, Keychain::kServiceAuthKeyTag, std::nullopt, SecretBytes::fromText(text)));
  }
  void putCurrentItem(std::string_view user, const SecretBytes& data) {
    ASSERT_TRUE(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
        PatternManager::currentPatternAccount(user), Keychain::kServicePatternLock, std::nullopt,
        data));
  }

  KeychainRig rig_{StoreKind::fake};
  int randomCalls_ = 0;
  bool randomFails_ = false;
  PatternManager manager_{*rig_.keychain, [this](size_t count) -> std::optional<SecretBytes> {
                            ++randomCalls_;
                            if (randomFails_) return std::nullopt;
                            return SecretBytes(Bytes(count, static_cast<uint8_t>(randomCalls_)));
                          }};
};

TEST_F(PatternManagerTest, KeyIsMadeOnceAndOnlyWhenItCanBeStored) {
  randomFails_ = true;
  EXPECT_FALSE(manager_.getPatternLockEncryptKey());
  randomFails_ = false;
  rig_.fake()->failAllWrites(true);
  EXPECT_FALSE(manager_.getPatternLockEncryptKey());
  manager_.updatePattern(Pattern{1, 2, 3}, "alice");
  rig_.fake()->failAllWrites(false);
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));

  const std::optional<SecretBytes> key = manager_.getPatternLockEncryptKey();
  ASSERT_TRUE(key);
  EXPECT_EQ(key->size(), 32u);
  EXPECT_EQ(rig_.keychain->getAesEncryptKey(), key);
  const int calls = randomCalls_;
  EXPECT_EQ(manager_.getPatternLockEncryptKey(), key);
  EXPECT_EQ(randomCalls_, calls);
}

TEST_F(PatternManagerTest, StoredPatternChecksPerUser) {
  manager_.updatePattern(Pattern{1, 2, 3}, "alice");
  manager_.updatePattern(Pattern{3, 2, 1}, "bob");
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{3, 2, 1}, "alice"));
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{3, 2, 1}, "bob"));
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "bob"));
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "carol"));
  EXPECT_EQ(PatternManager::currentPatternAccount("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.0F3D#0002");
  EXPECT_EQ(PatternManager::lastPatternAccount("abc"),
            "AUTHNR.last_patternlock."
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.0F3D#0002");
  manager_.updatePattern(Pattern{4, 5}, "alice");  // replaces
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{4, 5}, "alice"));
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));
}

TEST_F(PatternManagerTest, ShortOrForeignItemsNeverMatch) {
  const std::optional<SecretBytes> key = manager_.getPatternLockEncryptKey();
  ASSERT_TRUE(key);
  std::optional<SecretBytes> sealed = PatternManager::sealPattern(*key, serialized({1, 2, 3}));
  ASSERT_TRUE(sealed);
  putCurrentItem("alice", *sealed);
  EXPECT_TRUE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));
  for (size_t length = 0; length < sealed->size(); ++length) {
    putCurrentItem("alice", SecretBytes(sealed->exposeSecret().first(length)));
    EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice")) << length;
  }
  putCurrentItem("alice", *PatternManager::sealPattern(*key, secret("[1,2,3]")));
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));
}

TEST_F(PatternManagerTest, LastPatternCarriesItsOwnKey) {
  manager_.updatePattern(Pattern{1, 2, 3}, "alice");
  EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice"));  // no last item yet
  manager_.updateLastPatternForUsername("alice");
  manager_.updateLastPatternForUsername("nobody");  // no current item: nothing written
  EXPECT_TRUE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice"));
  EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{3, 2, 1}, "alice"));
  EXPECT_FALSE(rig_.keychain->findGenericPasswordWithAccount(
      PatternManager::lastPatternAccount("nobody"), Keychain::kServiceLastPatternLock,
      std::nullopt));

  setKey("a different key of 32 bytes ....");
  EXPECT_FALSE(manager_.isCorrectPattern(Pattern{1, 2, 3}, "alice"));
  EXPECT_TRUE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice"));
}

TEST_F(PatternManagerTest, DamagedLastPatternItemsNeverMatch) {
  manager_.updatePattern(Pattern{1, 2, 3}, "alice");
  manager_.updateLastPatternForUsername("alice");
  const std::string account = PatternManager::lastPatternAccount("alice");
  std::optional<SecretBytes> good = rig_.keychain->findGenericPasswordWithAccount(
      account, Keychain::kServiceLastPatternLock, std::nullopt);
  ASSERT_TRUE(good);
  const std::string text(good->exposeSecretText());
  const std::string key = text.substr(13, 43);
  ASSERT_EQ(text,
            "{\"last_key\":\"" + key + "\",\"last_pattern\":\"" + text.substr(74, 44) + "\"}");
  const std::string sealed = text.substr(74, 44);
  for (const std::string& junk : std::vector<std::string>{
           "", "not json", "[]", "{}", "{\"last_key\":\"" + key + "\"}",
           "{\"last_key\":1,\"last_pattern\":\"" + sealed + "\"}",
           "{\"last_key\":\"" + key + "\",\"last_pattern\":\"" + sealed.substr(0, 20) + "\"}",
           "{\"last_key\":\"" + key + "\",\"last_pattern\":\"" + sealed + "*\"}",
           "{\"last_key\":\"" + key.substr(0, 42) + "*\",\"last_pattern\":\"" + sealed + "\"}",
           text.substr(0, text.size() - 1)}) {
    ASSERT_TRUE(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
        account, Keychain::kServiceLastPatternLock, std::nullopt, secret(junk)));
    EXPECT_FALSE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice")) << junk;
  }
  // Escapes, blanks and extra members are still JSON.
  ASSERT_TRUE(rig_.keychain->insertOrUpdateGenericPasswordWithAccount(
      account, Keychain::kServiceLastPatternLock, std::nullopt,
      secret(" { \"x\": [1], \"last_pattern\" : \"" + sealed + "\", \"last_key\":\"" + key +
             "\" } ")));
  EXPECT_TRUE(manager_.isSameAsLastPattern(Pattern{1, 2, 3}, "alice"));
}

TEST_F(PatternManagerTest, FirstTimeMigrationCoversEveryUser) {
  const std::vector<std::pair<std::string, Pattern>> users = {
      {"alice", {0, 1, 2}}, {"bob", {2, 1, 0}}, {"carol", {4, 8, 12, 13}}};
  manager_.updateLastPatternForTheFirstTime();  // no users: nothing happens
  for (const auto& [user, pattern] : users) manager_.updatePattern(pattern, user);
  manager_.updateLastPatternForTheFirstTime();
  for (const auto& [user, pattern] : users) {
    for (const auto& [other, otherPattern] : users) {
      EXPECT_EQ(manager_.isSameAsLastPattern(otherPattern, user), user == other) << user << other;
    }
  }
}

// After a flow on the SQLite store, neither a user name nor a pattern's serialised form appears
// anywhere in the store's files; the user name appears as its SHA-256 hex.
TEST(PatternManagerSqliteTest, NoClearUserNameOrPatternInTheStoreFiles) {
  KeychainRig rig(StoreKind::sqlite);
  ASSERT_TRUE(rig.opened());
  PatternManager manager(*rig.keychain);
  const std::string user = "alice.liddell@example.org";
  const Pattern pattern = {0, 4, 8, 5, 2};
  manager.updatePattern(pattern, user);
  manager.updateLastPatternForUsername(user);
  manager.updatePattern(Pattern{6, 7, 8}, user);
  ASSERT_TRUE(manager.isCorrectPattern(Pattern{6, 7, 8}, user));
  ASSERT_TRUE(manager.isSameAsLastPattern(pattern, user));

  std::string contents;
  for (const char* suffix : {"", "-wal"}) {
    std::ifstream in(rig.file().string() + suffix, std::ios::binary);
    contents.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  ASSERT_FALSE(contents.empty());
  const auto has = [&contents](std::string_view needle) {
    return contents.find(needle) != std::string::npos;
  };
  EXPECT_TRUE(has(Utils::sha256(user)));
  EXPECT_FALSE(has(user));
  EXPECT_FALSE(has("alice"));
  for (const Pattern& drawn : {pattern, Pattern{6, 7, 8}}) {
    const SecretBytes form = serialized(drawn);
    EXPECT_FALSE(has(form.exposeSecretText()));
  }
}

}  // namespace
}  // namespace corvane
