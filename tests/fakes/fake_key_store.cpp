#include "fakes/fake_key_store.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace corvane::testing {

struct FakeKeyStore::Key {
  ~Key() { EVP_PKEY_free(pkey); }
  EVP_PKEY* pkey = nullptr;
  KeyAttributes attributes;
  std::vector<uint8_t> spki;
};

FakeKeyStore::FakeKeyStore() = default;
FakeKeyStore::~FakeKeyStore() = default;

std::vector<std::string> FakeKeyStore::tags() const {
  std::vector<std::string> out;
  for (const auto& [tag, key] : keys_) out.push_back(tag);
  return out;
}

std::vector<uint8_t> FakeKeyStore::publicKey(std::string_view tag) const {
  auto it = keys_.find(tag);
  return it == keys_.end() ? std::vector<uint8_t>() : it->second->spki;
}

bool FakeKeyStore::fault(bool switchedOn) {
  if (callsUntilFailure_ > 0 && --callsUntilFailure_ == 0) return true;
  return switchedOn;
}

StoreStatus FakeKeyStore::record(Op op, std::string_view tag, StoreStatus status) {
  calls_.push_back({op, std::string(tag), status});
  return status;
}

StoreStatus FakeKeyStore::generate(std::string_view tag, const KeyAttributes& attributes,
                                   std::vector<uint8_t>* publicKey) {
  if (fault(failGenerate_)) return record(Op::generate, tag, StoreStatus::storeError);
  auto key = std::make_unique<Key>();
  key->pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  unsigned char* der = nullptr;
  const int length = key->pkey != nullptr ? i2d_PUBKEY(key->pkey, &der) : 0;
  if (length <= 0) return record(Op::generate, tag, StoreStatus::storeError);
  key->spki.assign(der, der + length);
  OPENSSL_free(der);
  key->attributes = attributes;
  if (publicKey != nullptr) *publicKey = key->spki;
  keys_[std::string(tag)] = std::move(key);
  return record(Op::generate, tag, StoreStatus::ok);
}

StoreStatus FakeKeyStore::sign(std::string_view tag, std::span<const uint8_t> message,
                               std::vector<uint8_t>* signature) {
  if (fault(failSign_)) return record(Op::sign, tag, StoreStatus::storeError);
  auto it = keys_.find(tag);
  if (it == keys_.end()) return record(Op::sign, tag, StoreStatus::notFound);
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  size_t length = 0;
  std::vector<uint8_t> out;
  bool ok = ctx != nullptr &&
            EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, it->second->pkey) == 1 &&
            EVP_DigestSign(ctx, nullptr, &length, message.data(), message.size()) == 1;
  if (ok) {
    out.resize(length);
    ok = EVP_DigestSign(ctx, out.data(), &length, message.data(), message.size()) == 1;
    out.resize(length);
  }
  EVP_MD_CTX_free(ctx);
  if (!ok) return record(Op::sign, tag, StoreStatus::storeError);
  if (signature != nullptr) *signature = std::move(out);
  return record(Op::sign, tag, StoreStatus::ok);
}

StoreStatus FakeKeyStore::remove(const KeyQuery& query) {
  const std::string tag = query.tag.value_or("");
  if (fault(failRemove_)) return record(Op::remove, tag, StoreStatus::storeError);
  const size_t removed = std::erase_if(keys_, [&](const auto& entry) {
    const KeyAttributes& a = entry.second->attributes;
    return (!query.tag || entry.first == *query.tag) && (!query.label || a.label == query.label) &&
           (!query.applicationLabel || a.applicationLabel == query.applicationLabel) &&
           (!query.accessGroup || a.accessGroup == query.accessGroup);
  });
  return record(Op::remove, tag, removed > 0 ? StoreStatus::ok : StoreStatus::notFound);
}

}  // namespace corvane::testing
