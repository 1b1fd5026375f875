// FakeKeyStore: an in-memory KeyStore with real P-256 keys (so that signatures verify), fault
// switches and a call history for tests of the layers above it.
#pragma once

#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/ports/key_store.h"

namespace corvane::testing {

class FakeKeyStore : public KeyStore {
 public:
  enum class Op { generate, sign, remove };
  struct Call {
    Op op;
    std::string tag;  // empty for a remove without a tag
    StoreStatus status;
  };

  FakeKeyStore();
  ~FakeKeyStore() override;

  // Fault switches: a failing call changes nothing and answers storeError.
  void failGenerate(bool fail) { failGenerate_ = fail; }
  void failSign(bool fail) { failSign_ = fail; }
  void failRemove(bool fail) { failRemove_ = fail; }
  // The `n`th call of any kind from now fails (1: the next one); 0 switches it off.
  void failCallNumber(int n) { callsUntilFailure_ = n; }

  const std::vector<Call>& calls() const { return calls_; }
  std::vector<std::string> tags() const;
  bool contains(std::string_view tag) const { return keys_.count(std::string(tag)) != 0; }
  // The public key (DER SubjectPublicKeyInfo) under a tag; empty when there is none.
  std::vector<uint8_t> publicKey(std::string_view tag) const;

  StoreStatus generate(std::string_view tag, const KeyAttributes& attributes,
                       std::vector<uint8_t>* publicKey) override;
  StoreStatus sign(std::string_view tag, std::span<const uint8_t> message,
                   std::vector<uint8_t>* signature) override;
  StoreStatus remove(const KeyQuery& query) override;

 private:
  struct Key;
  bool fault(bool switchedOn);
  StoreStatus record(Op op, std::string_view tag, StoreStatus status);

  std::map<std::string, std::unique_ptr<Key>, std::less<>> keys_;
  std::vector<Call> calls_;
  bool failGenerate_ = false;
  bool failSign_ = false;
  bool failRemove_ = false;
  int callsUntilFailure_ = 0;
};

}  // namespace corvane::testing
