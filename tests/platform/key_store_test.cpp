// The OpenSSL key store: public keys and signatures that OpenSSL verifies on its own, sealed
// records that fail closed when touched, the store key file, and wipes by attribute.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fakes/fake_item_store.h"
#include "fakes/fake_key_store.h"
#include "linux/openssl_key_store.h"
#include "linux/sqlite_item_store.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using linux::OpenSslKeyStore;
using linux::SqliteItemStore;
using testing::FakeItemStore;
using testing::TempDir;
using testing::verifies;
namespace fs = std::filesystem;

std::vector<uint8_t> bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

ItemQuery recordQuery(std::string_view tag) {
  return {std::string(tag), std::string(OpenSslKeyStore::kService), std::nullopt,
          bytes(OpenSslKeyStore::kItemLabel), std::nullopt};
}

class OpenSslKeyStoreTest : public ::testing::Test {
 protected:
  fs::path keyFile() const { return dir_.path() / "data" / "keystore.key"; }

  TempDir dir_;
  std::shared_ptr<FakeItemStore> items_ = std::make_shared<FakeItemStore>();
  OpenSslKeyStore keys_{items_, keyFile()};
};

TEST_F(OpenSslKeyStoreTest, PublicKeyIsP256SpkiAndSignaturesVerify) {
  std::vector<uint8_t> spki;
  ASSERT_EQ(keys_.generate("app.0F3D#0002.PRI.hash", {}, &spki), StoreStatus::ok);
  ASSERT_EQ(spki.size(), kP256SpkiSize);
  EXPECT_TRUE(std::equal(std::begin(kP256SpkiPrefix), std::end(kP256SpkiPrefix), spki.begin()));
  EXPECT_EQ(spki[26], 0x04);

  const unsigned char* cursor = spki.data();
  EVP_PKEY* parsed = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(spki.size()));
  ASSERT_NE(parsed, nullptr);
  char group[32] = {};
  EXPECT_EQ(EVP_PKEY_get_group_name(parsed, group, sizeof group, nullptr), 1);
  EXPECT_STREQ(group, "prime256v1");
  BIGNUM* privatePart = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(parsed, "priv", &privatePart), 0);  // public half only
  EVP_PKEY_free(parsed);

  for (size_t size : {0u, 1u, 32u, 1000u, 70000u}) {
    const std::vector<uint8_t> message(size, static_cast<uint8_t>(size));
    std::vector<uint8_t> signature;
    ASSERT_EQ(keys_.sign("app.0F3D#0002.PRI.hash", message, &signature), StoreStatus::ok);
    EXPECT_TRUE(verifies(spki, message, signature)) << size;
    std::vector<uint8_t> other = message;
    other.push_back(1);
    EXPECT_FALSE(verifies(spki, other, signature)) << size;
  }
}

TEST_F(OpenSslKeyStoreTest, TagsAddressDistinctKeysAndRegenerationReplaces) {
  std::vector<uint8_t> first, second, replaced, signature;
  ASSERT_EQ(keys_.generate("one", {}, &first), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("two", {}, &second), StoreStatus::ok);
  EXPECT_NE(first, second);
  const std::vector<uint8_t> message = bytes("challenge");
  ASSERT_EQ(keys_.sign("two", message, &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(second, message, signature));
  EXPECT_FALSE(verifies(first, message, signature));

  ASSERT_EQ(keys_.generate("one", {}, &replaced), StoreStatus::ok);
  EXPECT_NE(replaced, first);
  ASSERT_EQ(keys_.sign("one", message, &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(replaced, message, signature));
  EXPECT_FALSE(verifies(first, message, signature));
  EXPECT_EQ(items_->items().size(), 2u);
}

TEST_F(OpenSslKeyStoreTest, DeletedOrUnknownTagCannotSign) {
  ASSERT_EQ(keys_.generate("tag", {}, nullptr), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("other", bytes("m"), nullptr), StoreStatus::notFound);
  EXPECT_EQ(keys_.removeTag("tag"), StoreStatus::ok);
  std::vector<uint8_t> signature{1};
  EXPECT_EQ(keys_.sign("tag", bytes("m"), &signature), StoreStatus::notFound);
  EXPECT_EQ(signature, std::vector<uint8_t>{1});
  EXPECT_EQ(keys_.removeTag("tag"), StoreStatus::notFound);
}

TEST_F(OpenSslKeyStoreTest, StoredRecordHoldsNoClearKeyMaterial) {
  std::vector<uint8_t> spki;
  ASSERT_EQ(keys_.generate("tag", {}, &spki), StoreStatus::ok);
  SecretBytes record;
  ASSERT_EQ(items_->findFirst(recordQuery("tag"), &record), StoreStatus::ok);
  // The sealed private key's DER embeds the public point: in clear it would show up here.
  const auto stored = record.exposeSecret();
  const std::vector<uint8_t> point(spki.begin() + 27, spki.end());
  EXPECT_EQ(std::search(stored.begin(), stored.end(), point.begin(), point.end()), stored.end());
  // Two seals of the same kind of content never share a nonce.
  ASSERT_EQ(keys_.generate("tag2", {}, nullptr), StoreStatus::ok);
  SecretBytes record2;
  ASSERT_EQ(items_->findFirst(recordQuery("tag2"), &record2), StoreStatus::ok);
  EXPECT_FALSE(
      std::equal(stored.begin() + 2, stored.begin() + 14, record2.exposeSecret().begin() + 2));
}

TEST_F(OpenSslKeyStoreTest, TamperedRecordsFailToSign) {
  KeyAttributes attributes{bytes("label"), bytes("app-label"), "group"};
  ASSERT_EQ(keys_.generate("tag", attributes, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("other", attributes, nullptr), StoreStatus::ok);
  SecretBytes good, otherRecord;
  ASSERT_EQ(items_->findFirst(recordQuery("tag"), &good), StoreStatus::ok);
  ASSERT_EQ(items_->findFirst(recordQuery("other"), &otherRecord), StoreStatus::ok);
  const std::vector<uint8_t> original(good.exposeSecret().begin(), good.exposeSecret().end());

  for (size_t bit = 0; bit < original.size() * 8; ++bit) {
    std::vector<uint8_t> flipped = original;
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    ASSERT_EQ(items_->update(recordQuery("tag"), SecretBytes(flipped)), StoreStatus::ok);
    ASSERT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::storeError) << "bit " << bit;
  }
  for (size_t length = 0; length < original.size(); ++length) {
    const std::vector<uint8_t> cut(original.begin(), original.begin() + length);
    ASSERT_EQ(items_->update(recordQuery("tag"), SecretBytes(cut)), StoreStatus::ok);
    ASSERT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::storeError)
        << "length " << length;
  }
  std::vector<uint8_t> extended = original;
  extended.push_back(0);
  ASSERT_EQ(items_->update(recordQuery("tag"), SecretBytes(extended)), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::storeError);
  // A valid record of another tag does not open under this one.
  ASSERT_EQ(items_->update(recordQuery("tag"), otherRecord), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::storeError);

  ASSERT_EQ(items_->update(recordQuery("tag"), good), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::ok);
}

// Decoded keys are kept only beside the exact record they came from: whatever happens to the
// store behind the key store's back (another object replacing the key, an old record restored,
// the item deleted), the key that signs is the one the stored record holds.
TEST_F(OpenSslKeyStoreTest, KeptKeysNeverOutliveTheirRecord) {
  const std::vector<uint8_t> message = bytes("challenge");
  std::vector<uint8_t> first, second, third, signature;
  ASSERT_EQ(keys_.generate("tag", {}, &first), StoreStatus::ok);
  SecretBytes firstRecord;
  ASSERT_EQ(items_->findFirst(recordQuery("tag"), &firstRecord), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("tag", {}, &second), StoreStatus::ok);
  EXPECT_EQ(keys_.keptKeyCount(), 1u);

  ASSERT_EQ(items_->update(recordQuery("tag"), firstRecord), StoreStatus::ok);
  ASSERT_EQ(keys_.sign("tag", message, &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(first, message, signature));
  EXPECT_FALSE(verifies(second, message, signature));

  OpenSslKeyStore other(items_, keyFile());
  ASSERT_EQ(other.generate("tag", {}, &third), StoreStatus::ok);
  ASSERT_EQ(keys_.sign("tag", message, &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(third, message, signature));

  ASSERT_EQ(items_->remove(recordQuery("tag")), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", message, &signature), StoreStatus::notFound);
  EXPECT_EQ(keys_.keptKeyCount(), 0u);

  // The number kept is bounded, and every key still signs once it has been let go.
  std::vector<std::vector<uint8_t>> spkis(OpenSslKeyStore::kMaxKeptKeys + 3);
  for (size_t i = 0; i < spkis.size(); ++i) {
    ASSERT_EQ(keys_.generate("k" + std::to_string(i), {}, &spkis[i]), StoreStatus::ok);
  }
  EXPECT_EQ(keys_.keptKeyCount(), OpenSslKeyStore::kMaxKeptKeys);
  for (size_t i = 0; i < spkis.size(); ++i) {
    ASSERT_EQ(keys_.sign("k" + std::to_string(i), message, &signature), StoreStatus::ok);
    EXPECT_TRUE(verifies(spkis[i], message, signature)) << i;
  }
  EXPECT_EQ(keys_.removeTag("k0"), StoreStatus::ok);
  EXPECT_EQ(keys_.keptKeyCount(), 0u);
}

TEST_F(OpenSslKeyStoreTest, RemoveMatchesAttributesAsWritten) {
  ASSERT_EQ(keys_.generate("k1", {std::nullopt, bytes("lib"), "G"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k2", {std::nullopt, bytes("lib"), "H"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k3", {bytes("lib"), std::nullopt, "G"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k4", {}, nullptr), StoreStatus::ok);
  auto present = [this] {
    std::vector<std::string> tags;
    for (const char* tag : {"k1", "k2", "k3", "k4"}) {
      if (keys_.sign(tag, bytes("m"), nullptr) == StoreStatus::ok) tags.push_back(tag);
    }
    return tags;
  };
  using Tags = std::vector<std::string>;
  // A key whose label attribute was never set is not found by label.
  EXPECT_EQ(keys_.remove({std::nullopt, std::nullopt, std::nullopt, "nope"}),
            StoreStatus::notFound);
  EXPECT_EQ(keys_.remove({std::nullopt, bytes("lib"), std::nullopt, "H"}), StoreStatus::notFound);
  EXPECT_EQ(keys_.remove({std::nullopt, std::nullopt, bytes("lib"), "G"}), StoreStatus::ok);
  EXPECT_EQ(present(), (Tags{"k2", "k3", "k4"}));
  EXPECT_EQ(keys_.remove({.tag = "k2", .applicationLabel = bytes("lib")}), StoreStatus::ok);
  EXPECT_EQ(keys_.remove({std::nullopt, bytes("lib"), std::nullopt, "G"}), StoreStatus::ok);
  EXPECT_EQ(present(), Tags{"k4"});
  EXPECT_EQ(keys_.remove({}), StoreStatus::ok);
  EXPECT_EQ(present(), Tags{});
  EXPECT_EQ(keys_.remove({}), StoreStatus::notFound);
}

TEST_F(OpenSslKeyStoreTest, ItemStoreFailuresSurface) {
  items_->failAllWrites(true);
  EXPECT_EQ(keys_.generate("tag", {}, nullptr), StoreStatus::storeError);
  items_->failAllWrites(false);
  ASSERT_EQ(keys_.generate("tag", {}, nullptr), StoreStatus::ok);
  items_->failAllReads(true);
  EXPECT_EQ(keys_.sign("tag", bytes("m"), nullptr), StoreStatus::storeError);
  EXPECT_EQ(keys_.remove({.label = bytes("x")}), StoreStatus::storeError);
}

TEST_F(OpenSslKeyStoreTest, StoreKeyFileIsPrivateAndSurvivesReopening) {
  const mode_t saved = ::umask(0);
  std::vector<uint8_t> spki;
  const StoreStatus generated = keys_.generate("tag", {}, &spki);
  ::umask(saved);
  ASSERT_EQ(generated, StoreStatus::ok);
  EXPECT_EQ(testing::modeOf(keyFile()), 0600u);
  EXPECT_EQ(fs::file_size(keyFile()), 32u);
  EXPECT_EQ(testing::modeOf(keyFile().parent_path()), 0700u);
  EXPECT_EQ(
      std::distance(fs::directory_iterator(keyFile().parent_path()), fs::directory_iterator()),
      1);  // no temporary file left behind

  OpenSslKeyStore again(items_, keyFile());
  std::vector<uint8_t> signature;
  ASSERT_EQ(again.sign("tag", bytes("m"), &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(spki, bytes("m"), signature));

  // Another store key cannot open the records.
  OpenSslKeyStore stranger(items_, dir_.path() / "elsewhere" / "keystore.key");
  EXPECT_EQ(stranger.sign("tag", bytes("m"), nullptr), StoreStatus::storeError);
}

TEST_F(OpenSslKeyStoreTest, UntrustworthyKeyFilesAreRefusedAndKept) {
  struct Case {
    const char* what;
    std::string content;
    mode_t mode;
  };
  const Case cases[] = {
      {"readable by others", std::string(32, 'k'), 0644},
      {"readable by group", std::string(32, 'k'), 0640},
      {"too short", std::string(31, 'k'), 0600},
      {"too long", std::string(33, 'k'), 0600},
      {"empty", std::string(), 0600},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path file = dir_.path() / c.what / "keystore.key";
    fs::create_directories(file.parent_path());
    std::ofstream(file) << c.content;
    ASSERT_EQ(::chmod(file.c_str(), c.mode), 0);
    OpenSslKeyStore keys(items_, file);
    EXPECT_EQ(keys.generate("t", {}, nullptr), StoreStatus::storeError);
    EXPECT_EQ(testing::readFile(file), c.content);
  }
  const fs::path link = dir_.path() / "link.key";
  ASSERT_EQ(::symlink(keyFile().c_str(), link.c_str()), 0);
  OpenSslKeyStore linked(items_, link);
  EXPECT_EQ(linked.generate("t", {}, nullptr), StoreStatus::storeError);
  EXPECT_TRUE(items_->items().empty());
}

TEST(OpenSslKeyStoreSqliteTest, KeysLiveInTheSqliteStore) {
  TempDir dir;
  std::vector<uint8_t> spki;
  {
    std::shared_ptr<ItemStore> items = SqliteItemStore::open(dir.path() / "keys.sqlite", nullptr);
    ASSERT_NE(items, nullptr);
    OpenSslKeyStore keys(items, dir.path() / "keystore.key");
    ASSERT_EQ(keys.generate("tag", {}, &spki), StoreStatus::ok);
    // The library's label-wide wipe of its generic-password items leaves keys alone.
    EXPECT_EQ(items->removeLabeled(bytes("bundle.Corvane"), "seed.bundle"), StoreStatus::notFound);
  }
  std::shared_ptr<ItemStore> items = SqliteItemStore::open(dir.path() / "keys.sqlite", nullptr);
  ASSERT_NE(items, nullptr);
  OpenSslKeyStore keys(items, dir.path() / "keystore.key");
  std::vector<uint8_t> signature;
  ASSERT_EQ(keys.sign("tag", bytes("m"), &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(spki, bytes("m"), signature));
}

TEST(FakeKeyStoreTest, SignsVerifiablyAndFailsOnRequest) {
  testing::FakeKeyStore fake;
  std::vector<uint8_t> spki, signature;
  ASSERT_EQ(fake.generate("t", {}, &spki), StoreStatus::ok);
  EXPECT_EQ(spki.size(), kP256SpkiSize);
  ASSERT_EQ(fake.sign("t", bytes("m"), &signature), StoreStatus::ok);
  EXPECT_TRUE(verifies(spki, bytes("m"), signature));
  fake.failCallNumber(2);
  EXPECT_EQ(fake.sign("t", bytes("m"), nullptr), StoreStatus::ok);
  EXPECT_EQ(fake.sign("t", bytes("m"), nullptr), StoreStatus::storeError);
  fake.failRemove(true);
  EXPECT_EQ(fake.removeTag("t"), StoreStatus::storeError);
  EXPECT_TRUE(fake.contains("t"));
  ASSERT_EQ(fake.calls().size(), 5u);
  EXPECT_EQ(fake.calls()[3].op, testing::FakeKeyStore::Op::sign);
  EXPECT_EQ(fake.calls()[3].status, StoreStatus::storeError);
}

}  // namespace
}  // namespace corvane
