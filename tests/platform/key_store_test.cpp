#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fakes/fake_item_store.h"
#include "linux/openssl_key_store.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using linux_platform::OpenSslKeyStore;
using testing::FakeItemStore;
using testing::TempDir;
using testing::verifies;
namespace fs = std::filesystem;

ItemQuery recordQuery(std::string_view tag) {
  return {std::string(tag), std::string(OpenSslKeyStore::kService), std::nullopt,
          toBytes(OpenSslKeyStore::kItemLabel), std::nullopt};
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

  for (size_t size : {0u, 70000u}) {
    const std::vector<uint8_t> message(size, static_cast<uint8_t>(size));
    std::vector<uint8_t> signature;
    ASSERT_EQ(keys_.sign("app.0F3D#0002.PRI.hash", message, &signature), StoreStatus::ok);
    EXPECT_TRUE(verifies(spki, message, signature)) << size;
    std::vector<uint8_t> other = message;
    other.push_back(1);
    EXPECT_FALSE(verifies(spki, other, signature)) << size;
  }
}

TEST_F(OpenSslKeyStoreTest, TamperedRecordsFailToSign) {
  KeyAttributes attributes{toBytes("label"), toBytes("app-label"), "group"};
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
    ASSERT_EQ(keys_.sign("tag", toBytes("m"), nullptr), StoreStatus::storeError) << "bit " << bit;
  }
  const std::vector<uint8_t> cut(original.begin(), original.end() - 1);
  ASSERT_EQ(items_->update(recordQuery("tag"), SecretBytes(cut)), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", toBytes("m"), nullptr), StoreStatus::storeError);
  // A valid record of another tag does not open under this one.
  ASSERT_EQ(items_->update(recordQuery("tag"), otherRecord), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", toBytes("m"), nullptr), StoreStatus::storeError);

  ASSERT_EQ(items_->update(recordQuery("tag"), good), StoreStatus::ok);
  EXPECT_EQ(keys_.sign("tag", toBytes("m"), nullptr), StoreStatus::ok);
}

// Kept keys follow the stored record, whatever changes it behind the key store's back.
TEST_F(OpenSslKeyStoreTest, KeptKeysNeverOutliveTheirRecord) {
  const std::vector<uint8_t> message = toBytes("challenge");
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
}

TEST_F(OpenSslKeyStoreTest, RemoveMatchesAttributesAsWritten) {
  ASSERT_EQ(keys_.generate("k1", {std::nullopt, toBytes("lib"), "G"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k2", {std::nullopt, toBytes("lib"), "H"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k3", {toBytes("lib"), std::nullopt, "G"}, nullptr), StoreStatus::ok);
  ASSERT_EQ(keys_.generate("k4", {}, nullptr), StoreStatus::ok);
  auto present = [this] {
    std::vector<std::string> tags;
    for (const char* tag : {"k1", "k2", "k3", "k4"}) {
      if (keys_.sign(tag, toBytes("m"), nullptr) == StoreStatus::ok) tags.push_back(tag);
    }
    return tags;
  };
  using Tags = std::vector<std::string>;
  // A key whose label attribute was never set is not found by label.
  EXPECT_EQ(keys_.remove({std::nullopt, std::nullopt, std::nullopt, "nope"}),
            StoreStatus::notFound);
  EXPECT_EQ(keys_.remove({std::nullopt, toBytes("lib"), std::nullopt, "H"}), StoreStatus::notFound);
  EXPECT_EQ(keys_.remove({std::nullopt, std::nullopt, toBytes("lib"), "G"}), StoreStatus::ok);
  EXPECT_EQ(present(), (Tags{"k2", "k3", "k4"}));
  EXPECT_EQ(keys_.remove({.tag = "k2", .applicationLabel = toBytes("lib")}), StoreStatus::ok);
  EXPECT_EQ(keys_.remove({std::nullopt, toBytes("lib"), std::nullopt, "G"}), StoreStatus::ok);
  EXPECT_EQ(present(), Tags{"k4"});
  EXPECT_EQ(keys_.remove({}), StoreStatus::ok);
  EXPECT_EQ(present(), Tags{});
  EXPECT_EQ(keys_.remove({}), StoreStatus::notFound);
}

}  // namespace
}  // namespace corvane
