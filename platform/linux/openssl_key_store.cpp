#include "linux/openssl_key_store.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "crypto/openssl_handles.h"
#include "crypto/sealed_box.h"
#include "foundation/private_paths.h"
#include "foundation/utils.h"

namespace corvane::linux_platform {

namespace {

constexpr uint8_t kRecordVersion = 1;
constexpr uint8_t kHasLabel = 1;
constexpr uint8_t kHasApplicationLabel = 2;
constexpr uint8_t kHasAccessGroup = 4;
// The first bytes of every record's associated data, so that a sealed key cannot be mistaken for
// any other AES-GCM message made under the same key.
constexpr std::string_view kAadContext = "corvane.keystore.v1";
// A private key's SEC1 DER is about 121 bytes; anything far bigger is not a key of ours.
constexpr size_t kMaxPrivateKeyDer = 512;
// Two DER INTEGERs of at most 33 bytes in a SEQUENCE.
constexpr size_t kMaxSignatureSize = 72;

using sealed_box::appendField;

// Clear header of a record: version, presence flags, then each present attribute with its length.
std::vector<uint8_t> encodeHeader(const KeyAttributes& attributes) {
  std::vector<uint8_t> header{kRecordVersion, 0};
  if (attributes.label) {
    header[1] |= kHasLabel;
    appendField(header, *attributes.label);
  }
  if (attributes.applicationLabel) {
    header[1] |= kHasApplicationLabel;
    appendField(header, *attributes.applicationLabel);
  }
  if (attributes.accessGroup) {
    header[1] |= kHasAccessGroup;
    appendField(header, asBytes(*attributes.accessGroup));
  }
  return header;
}

struct ParsedRecord {
  KeyAttributes attributes;
  std::span<const uint8_t> header;  // the bytes the attributes were read from
  std::span<const uint8_t> sealed;  // nonce, ciphertext, GCM tag
};

// Reads a record's clear part; absent when it is malformed. Nothing here is trusted until the
// sealed part opens with the header as associated data.
std::optional<ParsedRecord> parseRecord(std::span<const uint8_t> record) {
  if (record.size() < 2 || record[0] != kRecordVersion) return std::nullopt;
  const uint8_t flags = record[1];
  if ((flags & ~(kHasLabel | kHasApplicationLabel | kHasAccessGroup)) != 0) return std::nullopt;
  size_t offset = 2;
  auto readField = [&](std::vector<uint8_t>& out) {
    if (record.size() - offset < 4) return false;
    size_t length = 0;
    for (int i = 0; i < 4; ++i) length = (length << 8) | record[offset + i];
    offset += 4;
    if (record.size() - offset < length) return false;
    out.assign(record.begin() + offset, record.begin() + offset + length);
    offset += length;
    return true;
  };
  ParsedRecord parsed;
  if (flags & kHasLabel) {
    if (!readField(parsed.attributes.label.emplace())) return std::nullopt;
  }
  if (flags & kHasApplicationLabel) {
    if (!readField(parsed.attributes.applicationLabel.emplace())) return std::nullopt;
  }
  if (flags & kHasAccessGroup) {
    std::vector<uint8_t> group;
    if (!readField(group)) return std::nullopt;
    parsed.attributes.accessGroup.emplace(group.begin(), group.end());
  }
  if (record.size() - offset < sealed_box::kOverhead) return std::nullopt;
  parsed.header = record.first(offset);
  parsed.sealed = record.subspan(offset);
  return parsed;
}

std::vector<uint8_t> associatedData(std::string_view tag, std::span<const uint8_t> header) {
  std::vector<uint8_t> aad(kAadContext.begin(), kAadContext.end());
  appendField(aad, asBytes(tag));
  aad.insert(aad.end(), header.begin(), header.end());
  return aad;
}

// The encodings of a new key pair are written here rather than by i2d_PrivateKey and i2d_PUBKEY:
// OpenSSL's encoder look-up behind those calls costs more than generating the key. Both are the
// bytes OpenSSL writes for a P-256 key.
constexpr size_t kPointSize = 65;  // 04 X Y
constexpr size_t kScalarSize = 32;
// ECPrivateKey: SEQUENCE { INTEGER 1, OCTET STRING d, [0] prime256v1, [1] BIT STRING point }.
constexpr uint8_t kSec1Version[] = {0x30, 0x77, 0x02, 0x01, 0x01, 0x04, 0x20};
constexpr uint8_t kSec1CurveAndPoint[] = {0xA0, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D,
                                          0x03, 0x01, 0x07, 0xA1, 0x44, 0x03, 0x42, 0x00};

// The uncompressed public point of a P-256 key; absent for any other key.
std::optional<std::array<uint8_t, kPointSize>> publicPoint(EVP_PKEY* key) {
  std::array<uint8_t, kPointSize> point{};
  size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point.data(),
                                      point.size(), &length) != 1 ||
      length != point.size() || point[0] != 0x04) {
    return std::nullopt;
  }
  return point;
}

// The SEC1 DER of a P-256 key pair, in wiped storage.
std::optional<SecretBytes> privateKeyDer(EVP_PKEY* key, std::span<const uint8_t> point) {
  BIGNUM* raw = nullptr;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &raw) != 1) return std::nullopt;
  const BnPtr scalar(raw);
  SecretBytes der(sizeof kSec1Version + kScalarSize + sizeof kSec1CurveAndPoint + point.size());
  std::span<uint8_t> out = der.mutableSecret();
  std::copy(std::begin(kSec1Version), std::end(kSec1Version), out.begin());
  out = out.subspan(sizeof kSec1Version);
  if (BN_bn2binpad(scalar.get(), out.data(), static_cast<int>(kScalarSize)) !=
      static_cast<int>(kScalarSize)) {
    return std::nullopt;
  }
  out = out.subspan(kScalarSize);
  std::copy(std::begin(kSec1CurveAndPoint), std::end(kSec1CurveAndPoint), out.begin());
  std::copy(point.begin(), point.end(), out.begin() + sizeof kSec1CurveAndPoint);
  return der;
}

// A P-256 private key from its SEC1 DER; null for anything else.
PkeyPtr privateKeyFromDer(const SecretBytes& der) {
  if (der.empty() || der.size() > kMaxPrivateKeyDer) return nullptr;
  const unsigned char* cursor = der.exposeSecret().data();
  PkeyPtr key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())));
  if (!key || cursor != der.exposeSecret().data() + der.size()) return nullptr;
  char group[32] = {};
  size_t groupLength = 0;
  if (EVP_PKEY_get_group_name(key.get(), group, sizeof group, &groupLength) != 1 ||
      std::string_view(group, groupLength) != "prime256v1") {
    return nullptr;
  }
  return key;
}

ItemAttributes itemFor(std::string_view tag) {
  ItemAttributes item;
  item.account = std::string(tag);
  item.service = std::string(OpenSslKeyStore::kService);
  item.label = toBytes(OpenSslKeyStore::kItemLabel);
  return item;
}

}  // namespace

// Decoded keys of the tags most recently generated or decoded, each with the sealed record it was
// decoded from and a signing context made ready for it (ECDSA with SHA-256), in the order they were
// kept; when the store is full the oldest entry makes room. An entry answers only for
// a record that is byte-identical to its own (compared in constant time), so it can never stand
// for a record that was replaced, moved or tampered with.
struct OpenSslKeyStore::KeptKeys {
  struct Entry {
    std::string tag;
    SecretBytes record;
    PkeyPtr key;
    MdCtxPtr signer;  // initialised and never finalised: each signature works on a copy
  };
  std::vector<Entry> entries;

  const EVP_MD_CTX* find(std::string_view tag, const SecretBytes& record) const {
    for (const Entry& entry : entries) {
      if (entry.tag == tag) return entry.record == record ? entry.signer.get() : nullptr;
    }
    return nullptr;
  }
  // Keeps `key` for `tag` in place of any older entry; the entry's signing context, or null when
  // no context could be made (then nothing is kept).
  const EVP_MD_CTX* keep(std::string_view tag, SecretBytes record, PkeyPtr key) {
    drop(tag);
    MdCtxPtr signer(EVP_MD_CTX_new());
    if (!signer ||
        EVP_DigestSignInit(signer.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1) {
      return nullptr;
    }
    if (entries.size() >= kMaxKeptKeys) entries.erase(entries.begin());
    entries.push_back({std::string(tag), std::move(record), std::move(key), std::move(signer)});
    return entries.back().signer.get();
  }
  void drop(std::string_view tag) {
    std::erase_if(entries, [tag](const Entry& entry) { return entry.tag == tag; });
  }
};

OpenSslKeyStore::OpenSslKeyStore(std::shared_ptr<ItemStore> items, std::filesystem::path keyFile)
    : items_(std::move(items)), keyFile_(std::move(keyFile)), kept_(std::make_unique<KeptKeys>()) {}

OpenSslKeyStore::OpenSslKeyStore(std::shared_ptr<ItemStore> items,
                                 std::shared_ptr<const StoreKey> storeKey)
    : items_(std::move(items)),
      storeKey_(std::move(storeKey)),
      kept_(std::make_unique<KeptKeys>()) {}

OpenSslKeyStore::~OpenSslKeyStore() = default;

size_t OpenSslKeyStore::keptKeyCount() const {
  return kept_->entries.size();
}

bool OpenSslKeyStore::loadStoreKey() {
  if (storeKey_) return true;
  if (keyFile_.empty()) return false;
  const std::unique_ptr<PrivateDirectory> folder = PrivateDirectory::open(
      keyFile_.parent_path().empty() ? "." : keyFile_.parent_path(), nullptr);
  if (folder) storeKey_ = StoreKey::load(*folder, keyFile_.filename().string(), nullptr);
  return storeKey_ != nullptr;
}

StoreStatus OpenSslKeyStore::generate(std::string_view tag, const KeyAttributes& attributes,
                                      std::vector<uint8_t>* publicKey) {
  if (!items_ || !loadStoreKey()) return StoreStatus::storeError;
  PkeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  if (!key) return StoreStatus::storeError;
  kept_->drop(tag);
  const std::optional<std::array<uint8_t, kPointSize>> point = publicPoint(key.get());
  if (!point) return StoreStatus::storeError;
  std::optional<SecretBytes> der = privateKeyDer(key.get(), *point);
  if (!der) return StoreStatus::storeError;

  const std::vector<uint8_t> header = encodeHeader(attributes);
  std::optional<Bytes> sealed =
      sealed_box::seal(storeKey_->bytes(), associatedData(tag, header), der->exposeSecret());
  if (!sealed) return StoreStatus::storeError;
  SecretBytes record(header);
  record.append(*sealed);

  const StoreStatus status = items_->upsert(itemFor(tag), record);
  if (status != StoreStatus::ok) return status;
  kept_->keep(tag, std::move(record), std::move(key));
  if (publicKey != nullptr) {
    publicKey->assign(std::begin(kP256SpkiPrefix), std::end(kP256SpkiPrefix));
    publicKey->insert(publicKey->end(), point->begin(), point->end());
  }
  return StoreStatus::ok;
}

StoreStatus OpenSslKeyStore::sign(std::string_view tag, std::span<const uint8_t> message,
                                  std::vector<uint8_t>* signature) {
  if (!items_) return StoreStatus::storeError;
  // The record is read on every call: the item store is the one truth about which key the tag
  // names, and a key that was deleted or replaced there must not sign.
  SecretBytes record;
  const StoreStatus found = items_->findFirst(itemFor(tag).asQuery(), &record);
  if (found != StoreStatus::ok) {
    kept_->drop(tag);
    return found;
  }
  const EVP_MD_CTX* signer = kept_->find(tag, record);
  if (signer == nullptr) {
    kept_->drop(tag);
    if (!loadStoreKey()) return StoreStatus::storeError;
    std::optional<ParsedRecord> parsed = parseRecord(record.exposeSecret());
    if (!parsed) return StoreStatus::storeError;
    std::optional<SecretBytes> der = sealed_box::open(
        storeKey_->bytes(), associatedData(tag, parsed->header), parsed->sealed, kMaxPrivateKeyDer);
    if (!der) return StoreStatus::storeError;
    PkeyPtr key = privateKeyFromDer(*der);
    der->clear();
    if (!key) return StoreStatus::storeError;
    signer = kept_->keep(tag, std::move(record), std::move(key));
    if (signer == nullptr) return StoreStatus::storeError;
  }

  // A DER ECDSA P-256 signature takes at most 72 bytes.
  std::vector<uint8_t> out(kMaxSignatureSize);
  size_t length = out.size();
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_MD_CTX_copy_ex(ctx.get(), signer) != 1 ||
      EVP_DigestSign(ctx.get(), out.data(), &length, message.data(), message.size()) != 1 ||
      length > out.size()) {
    return StoreStatus::storeError;
  }
  out.resize(length);
  if (signature != nullptr) *signature = std::move(out);
  return StoreStatus::ok;
}

StoreStatus OpenSslKeyStore::remove(const KeyQuery& query) {
  if (!items_) return StoreStatus::storeError;
  // Removal is rare: every kept key is dropped rather than only the matching ones.
  kept_->entries.clear();
  const bool byTagOnly = query.tag && !query.label && !query.applicationLabel && !query.accessGroup;
  if (byTagOnly) return items_->remove(itemFor(*query.tag).asQuery());

  ItemQuery all = itemFor("").asQuery();
  all.account.reset();
  std::vector<std::string> tags;
  const StoreStatus listed = items_->listAccounts(all, &tags);
  if (listed != StoreStatus::ok) return listed;

  bool removedAny = false;
  for (const std::string& tag : tags) {
    if (query.tag && *query.tag != tag) continue;
    const ItemQuery item = itemFor(tag).asQuery();
    SecretBytes record;
    const StoreStatus found = items_->findFirst(item, &record);
    if (found == StoreStatus::notFound) continue;
    if (found != StoreStatus::ok) return StoreStatus::storeError;
    // Attribute filters read the clear header; a record too damaged to read has no attributes.
    std::optional<ParsedRecord> parsed = parseRecord(record.exposeSecret());
    const KeyAttributes* attributes = parsed ? &parsed->attributes : nullptr;
    auto matches = [attributes](const auto& wanted, auto member) {
      return !wanted || (attributes != nullptr && attributes->*member == wanted);
    };
    if (!matches(query.label, &KeyAttributes::label) ||
        !matches(query.applicationLabel, &KeyAttributes::applicationLabel) ||
        !matches(query.accessGroup, &KeyAttributes::accessGroup)) {
      continue;
    }
    const StoreStatus removed = items_->remove(item);
    if (removed == StoreStatus::storeError) return StoreStatus::storeError;
    removedAny = removedAny || removed == StoreStatus::ok;
  }
  return removedAny ? StoreStatus::ok : StoreStatus::notFound;
}

}  // namespace corvane::linux_platform
