// KeyStore: the port to non-exportable P-256 signing keys addressed by a tag (a text).
//
// A key is generated inside the store, its public half comes back as a DER SubjectPublicKeyInfo
// and its private half is only ever used inside the store to sign. No method returns, exports or
// accepts private key material.
//
// Besides its tag a key carries three optional attributes, set when it is generated: a label and an
// application label (bytes) and an access group (text). They exist so that a wipe can find every
// key of the system by attributes, as the platform keychain's key class allows.
//
// Thread-safety: one object serves one thread at a time (calls must not overlap), which is how the
// library drives it: key work runs as background work, one request at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/ports/item_store.h"

namespace corvane {

// The DER SubjectPublicKeyInfo of a P-256 key is this 26-byte prefix (SEQUENCE, the algorithm
// identifier id-ecPublicKey with the named curve prime256v1, the BIT STRING header) followed by the
// 65-byte uncompressed point 04 X Y.
inline constexpr size_t kP256SpkiSize = 91;
inline constexpr uint8_t kP256SpkiPrefix[26] = {
    0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01,
    0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};

struct KeyAttributes {
  std::optional<std::vector<uint8_t>> label = std::nullopt;
  std::optional<std::vector<uint8_t>> applicationLabel = std::nullopt;
  std::optional<std::string> accessGroup = std::nullopt;
};

// Each present field must equal the key's (a key that lacks the attribute does not match); absent
// fields match anything.
struct KeyQuery {
  std::optional<std::string> tag = std::nullopt;
  std::optional<std::vector<uint8_t>> label = std::nullopt;
  std::optional<std::vector<uint8_t>> applicationLabel = std::nullopt;
  std::optional<std::string> accessGroup = std::nullopt;
};

class KeyStore {
 public:
  virtual ~KeyStore() = default;

  // Generates a fresh P-256 key pair under `tag` with these attributes and writes the 91-byte DER
  // SubjectPublicKeyInfo into `publicKey` (when not null). A key already under the tag is replaced
  // in the same step: the newest key is the one the relying party was last given.
  virtual StoreStatus generate(std::string_view tag, const KeyAttributes& attributes,
                               std::vector<uint8_t>* publicKey) = 0;

  // ECDSA over SHA-256 of `message` with the key under `tag`; the DER (X9.62) signature goes into
  // `signature` (when not null). `notFound` when no key has the tag, `storeError` when the key
  // cannot be used (including a stored key that fails its integrity check).
  virtual StoreStatus sign(std::string_view tag, std::span<const uint8_t> message,
                           std::vector<uint8_t>* signature) = 0;

  // Deletes every key the query matches; `notFound` when none matches.
  virtual StoreStatus remove(const KeyQuery& query) = 0;

  StoreStatus removeTag(std::string_view tag) {
    KeyQuery query;
    query.tag = std::string(tag);
    return remove(query);
  }
};

}  // namespace corvane
