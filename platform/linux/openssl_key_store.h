// The Linux KeyStore: P-256 keys made and used with OpenSSL 3, kept sealed in an ItemStore.
//
// Each key is one item of the service "corvane.keystore" whose account is the key's tag. Its value
// is a sealed record: the key's attributes in clear, then the private key (SEC1 DER) enciphered
// with AES-256-GCM under the store key, with a fresh random 12-byte nonce per seal. The record's
// header and the tag are bound in as associated data, so a record moved to another tag or with
// edited attributes no longer opens. The items carry the label "corvane.keystore" and no access
// group, so no label-wide wipe of the library's generic-password items reaches them.
//
// The store key (linux/store_key.h) is the one that also seals the item store's values: 32 random
// bytes in a file (0600, in a 0700 folder), kept in memory (wiped on destruction) once read.
// docs/storage.md says what protects it.
//
// Decoding a private key is several times dearer than signing with it in OpenSSL 3, so the store
// keeps the decoded keys of the last few tags it generated or signed with, each beside the exact
// sealed record it came from. A signature still reads the record from the item store every time,
// and uses a kept key only when the record read is byte-identical to the one it was decoded from;
// any other record is opened and checked as usual. generate and remove drop the kept keys they
// touch. docs/storage.md gives the reasons.
//
// Thread-safety: as the port states. Give the key store its own ItemStore object so that it can
// run on a background thread while the library uses another object on the main thread.
#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "corvane/ports/item_store.h"
#include "corvane/ports/key_store.h"
#include "corvane/secret_bytes.h"
#include "linux/store_key.h"

namespace corvane::linux_platform {

class OpenSslKeyStore final : public KeyStore {
 public:
  static constexpr std::string_view kService = "corvane.keystore";
  static constexpr std::string_view kItemLabel = "corvane.keystore";
  static constexpr std::string_view kKeyFileName = StoreKey::kFileName;

  // `items` keeps the sealed keys; `keyFile` is the store key's file (usually
  // "<data directory>/keystore.key"). Nothing is read or created before the first call.
  OpenSslKeyStore(std::shared_ptr<ItemStore> items, std::filesystem::path keyFile);
  // `storeKey` is the store key already loaded (shared with the item store that holds the keys).
  OpenSslKeyStore(std::shared_ptr<ItemStore> items, std::shared_ptr<const StoreKey> storeKey);
  ~OpenSslKeyStore() override;
  OpenSslKeyStore(const OpenSslKeyStore&) = delete;
  OpenSslKeyStore& operator=(const OpenSslKeyStore&) = delete;

  StoreStatus generate(std::string_view tag, const KeyAttributes& attributes,
                       std::vector<uint8_t>* publicKey) override;
  StoreStatus sign(std::string_view tag, std::span<const uint8_t> message,
                   std::vector<uint8_t>* signature) override;
  // Deletes the matching keys one by one; a store failure part way leaves the rest in place.
  StoreStatus remove(const KeyQuery& query) override;

  // The most decoded keys kept at once; past that the oldest kept key is dropped.
  static constexpr size_t kMaxKeptKeys = 8;
  // How many decoded keys are kept now (for tests).
  size_t keptKeyCount() const;

 private:
  struct KeptKeys;
  [[nodiscard]] bool loadStoreKey();

  std::shared_ptr<ItemStore> items_;
  std::filesystem::path keyFile_;
  std::shared_ptr<const StoreKey> storeKey_;
  std::unique_ptr<KeptKeys> kept_;
};

}  // namespace corvane::linux_platform
