#include "storage/pattern_manager.h"

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <openssl/crypto.h>
#include <nlohmann/json.hpp>

#include "crypto/iag_aes_gcm.h"
#include "foundation/utils.h"
#include "json/secret_json.h"

namespace corvane {

namespace {

constexpr std::string_view kLastKey = "last_key";
constexpr std::string_view kLastPattern = "last_pattern";
constexpr uint8_t kFormatMagic[2] = {'C', 'P'};
constexpr uint8_t kFormatVersion = 1;
constexpr size_t kFormatHeader = 5;
constexpr uint8_t kSealFormat = 0x01;
// The format byte, the IV, at least one byte of ciphertext and the tag.
constexpr size_t kSealedMinimum = 1 + PatternManager::kIvSize + 1 + PatternManager::kTagSize;

// The key a last pattern item carries leaves no copy behind on the heap.
using jsonmodel::SecretJson;
using jsonmodel::SecretString;

// Base64url without padding, appended to a secret buffer.
void appendBase64Url(SecretBytes& out, std::span<const uint8_t> data) {
  const size_t at = out.size();
  out.resize(at + base64UrlLength(data.size()));
  encodeBase64Url(data, {reinterpret_cast<char*>(out.mutableSecret().data()) + at,
                         base64UrlLength(data.size())});
}

// Utils::decodeBase64Url into a secret buffer, keeping no intermediate copy.
std::optional<SecretBytes> decodeBase64UrlSecret(std::string_view text) {
  SecretBytes out((text.size() + 3) / 4 * 3);
  const std::optional<size_t> length = decodeBase64UrlInto(text, out.mutableSecret());
  if (!length) return std::nullopt;
  out.resize(*length);
  return out;
}

std::optional<SecretBytes> systemRandom(size_t count) {
  if (count > UINT32_MAX) return std::nullopt;
  std::optional<Bytes> bytes = Utils::randomBytesWithLength(static_cast<uint32_t>(count));
  if (!bytes) return std::nullopt;
  SecretBytes secret(*bytes);
  OPENSSL_cleanse(bytes->data(), bytes->size());
  return secret;
}

// The text member `key` of a JSON object, decoded from base64url.
std::optional<SecretBytes> decodedMember(const SecretJson& object, std::string_view key) {
  auto member = object.find(SecretString(key));
  if (member == object.end() || !member->is_string()) return std::nullopt;
  const SecretString& text = member->get_ref<const SecretString&>();
  return decodeBase64UrlSecret(std::string_view(text.data(), text.size()));
}

}  // namespace

PatternManager::PatternManager(Keychain& keychain, RandomSource random)
    : keychain_(keychain), random_(random ? std::move(random) : RandomSource(systemRandom)) {}

std::string PatternManager::currentPatternAccount(std::string_view username) {
  return Utils::sha256(username) + "." + std::string(Keychain::kAaid);
}

std::string PatternManager::lastPatternAccount(std::string_view username) {
  return std::string(Keychain::kServiceLastPatternLock) + "." + currentPatternAccount(username);
}

std::optional<SecretBytes> PatternManager::serializePattern(std::span<const uint32_t> pattern) {
  if (pattern.size() > kMaxPatternLength) return std::nullopt;
  SecretBytes out(kFormatHeader + 4 * pattern.size());
  std::span<uint8_t> bytes = out.mutableSecret();
  bytes[0] = kFormatMagic[0];
  bytes[1] = kFormatMagic[1];
  bytes[2] = kFormatVersion;
  bytes[3] = static_cast<uint8_t>(pattern.size() >> 8);
  bytes[4] = static_cast<uint8_t>(pattern.size());
  size_t at = kFormatHeader;
  for (uint32_t dot : pattern) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes[at++] = static_cast<uint8_t>(dot >> shift);
  }
  return out;
}

bool PatternManager::serializedPatternEquals(const SecretBytes& serialized,
                                             std::span<const uint32_t> pattern) {
  const std::span<const uint8_t> bytes = serialized.exposeSecret();
  if (bytes.size() < kFormatHeader || bytes[0] != kFormatMagic[0] || bytes[1] != kFormatMagic[1] ||
      bytes[2] != kFormatVersion) {
    return false;
  }
  const size_t count = (size_t{bytes[3]} << 8) | bytes[4];
  if (bytes.size() != kFormatHeader + 4 * count || count != pattern.size()) return false;
  // Every dot is compared, whatever the first difference, so the time taken does not tell where
  // the patterns part.
  uint32_t difference = 0;
  for (size_t i = 0; i < count; ++i) {
    const uint8_t* p = bytes.data() + kFormatHeader + 4 * i;
    const uint32_t dot =
        (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
    difference |= dot ^ pattern[i];
  }
  return difference == 0;
}

bool PatternManager::pattern(std::span<const uint32_t> pattern,
                             std::span<const uint32_t> otherPattern) {
  if (pattern.size() != otherPattern.size()) return false;
  uint32_t difference = 0;
  for (size_t i = 0; i < pattern.size(); ++i) difference |= pattern[i] ^ otherPattern[i];
  return difference == 0;
}

std::optional<SecretBytes> PatternManager::sealPattern(const SecretBytes& key,
                                                       const SecretBytes& serialized) {
  std::optional<Bytes> iv = Utils::randomBytesWithLength(kIvSize);
  if (!iv) return std::nullopt;
  std::optional<IAGCipheredData> sealed = IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(
      serialized.exposeSecret(), ByteView(), kTagSize, *iv, key.exposeSecret(), nullptr);
  if (!sealed) return std::nullopt;
  SecretBytes out(std::span<const uint8_t>(&kSealFormat, 1));
  out.append(*iv);
  out.append(sealed->buffer());
  out.append(sealed->authenticationTag());
  return out;
}

std::optional<SecretBytes> PatternManager::openSealedPattern(const SecretBytes& key,
                                                             const SecretBytes& sealed) {
  const std::span<const uint8_t> bytes = sealed.exposeSecret();
  if (bytes.size() < kSealedMinimum || bytes[0] != kSealFormat) return std::nullopt;
  const ByteView iv = bytes.subspan(1, kIvSize);
  const ByteView cipher = bytes.subspan(1 + kIvSize, bytes.size() - 1 - kIvSize - kTagSize);
  const ByteView tag = bytes.last(kTagSize);
  const IAGCipheredData parts(Bytes(cipher.begin(), cipher.end()), Bytes(tag.begin(), tag.end()));
  return IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(parts, ByteView(), iv,
                                                                   key.exposeSecret(), nullptr);
}

namespace {

// The error of a pattern that could not be sealed (serialising, random IV or cipher failed).
Error sealFailure() {
  return Error::corvane(-1, "The pattern could not be sealed.");
}

Result<void> written(StoreStatus status) {
  if (status == StoreStatus::ok) return {};
  return Keychain::storeFailure();
}

}  // namespace

Result<SecretBytes> PatternManager::getPatternLockEncryptKey() {
  Result<std::optional<SecretBytes>> stored = keychain_.getAesEncryptKey();
  if (!stored) return stored.error();
  if (*stored) return std::move(**stored);
  std::optional<SecretBytes> fresh = random_(kKeySize);
  if (!fresh || fresh->size() != kKeySize) return sealFailure();
  // A key that could not be stored would seal patterns nobody can open later.
  if (keychain_.insertGenericPasswordWithAccount(Keychain::kAaid, Keychain::kServiceAuthKeyTag,
                                                 std::nullopt, *fresh) != StoreStatus::ok) {
    return Keychain::storeFailure();
  }
  return std::move(*fresh);
}

Result<bool> PatternManager::isCorrectPattern(std::span<const uint32_t> pattern,
                                              std::string_view username) {
  Result<std::optional<SecretBytes>> sealed = keychain_.findGenericPasswordWithAccount(
      currentPatternAccount(username), Keychain::kServicePatternLock, std::nullopt);
  if (!sealed) return sealed.error();
  if (!*sealed) return false;
  // Read, never made here: a pattern sealed under a key that is gone opens under no new key.
  Result<std::optional<SecretBytes>> key = keychain_.getAesEncryptKey();
  if (!key) return key.error();
  if (!*key) return false;
  std::optional<SecretBytes> serialized = openSealedPattern(**key, **sealed);
  return serialized && serializedPatternEquals(*serialized, pattern);
}

Result<bool> PatternManager::isSameAsLastPattern(std::span<const uint32_t> pattern,
                                                 std::string_view username) {
  Result<std::optional<SecretBytes>> item = keychain_.findGenericPasswordWithAccount(
      lastPatternAccount(username), Keychain::kServiceLastPatternLock, std::nullopt);
  if (!item) return item.error();
  if (!*item) return false;
  const std::string_view text = (*item)->exposeSecretText();
  SecretJson json = SecretJson::parse(text.begin(), text.end(), nullptr, false);
  if (!json.is_object()) return false;
  std::optional<SecretBytes> key = decodedMember(json, kLastKey);
  std::optional<SecretBytes> sealed = decodedMember(json, kLastPattern);
  if (!key || !sealed) return false;
  std::optional<SecretBytes> serialized = openSealedPattern(*key, *sealed);
  return serialized && serializedPatternEquals(*serialized, pattern);
}

Result<SecretBytes> PatternManager::sealForStore(std::span<const uint32_t> pattern) {
  Result<SecretBytes> key = getPatternLockEncryptKey();
  if (!key) return key.error();
  std::optional<SecretBytes> serialized = serializePattern(pattern);
  if (!serialized) return sealFailure();
  std::optional<SecretBytes> sealed = sealPattern(*key, *serialized);
  if (!sealed) return sealFailure();
  return std::move(*sealed);
}

Result<void> PatternManager::storeSealedPattern(const SecretBytes& sealed,
                                                std::string_view username) {
  return written(keychain_.insertOrUpdateGenericPasswordWithAccount(
      currentPatternAccount(username), Keychain::kServicePatternLock, std::nullopt, sealed));
}

Result<void> PatternManager::updatePattern(std::span<const uint32_t> pattern,
                                           std::string_view username) {
  Result<SecretBytes> sealed = sealForStore(pattern);
  if (!sealed) return sealed.error();
  return storeSealedPattern(*sealed, username);
}

Result<void> PatternManager::writeLastPattern(const std::string& account, const SecretBytes& key,
                                              const SecretBytes& sealed) {
  SecretBytes json;
  json.append(asBytes("{\""));
  json.append(asBytes(kLastKey));
  json.append(asBytes("\":\""));
  appendBase64Url(json, key.exposeSecret());
  json.append(asBytes("\",\""));
  json.append(asBytes(kLastPattern));
  json.append(asBytes("\":\""));
  appendBase64Url(json, sealed.exposeSecret());
  json.append(asBytes("\"}"));
  return written(keychain_.insertOrUpdateGenericPasswordWithAccount(
      account, Keychain::kServiceLastPatternLock, std::nullopt, json));
}

Result<void> PatternManager::updateLastPatternForUsername(std::string_view username) {
  Result<std::optional<SecretBytes>> sealed = keychain_.findGenericPasswordWithAccount(
      currentPatternAccount(username), Keychain::kServicePatternLock, std::nullopt);
  if (!sealed) return sealed.error();
  Result<std::optional<SecretBytes>> key = keychain_.getAesEncryptKey();
  if (!key) return key.error();
  if (!*sealed || !*key) return {};
  return writeLastPattern(lastPatternAccount(username), **key, **sealed);
}

Result<void> PatternManager::updateLastPatternForTheFirstTime() {
  Result<std::vector<std::string>> accounts =
      keychain_.findGenericPasswordAccountDescWithService(Keychain::kServicePatternLock);
  if (!accounts) return accounts.error();
  Result<std::optional<SecretBytes>> key = keychain_.getAesEncryptKey();
  if (!key) return key.error();
  if (!*key) return {};
  for (const std::string& account : *accounts) {
    Result<std::optional<SecretBytes>> sealed = keychain_.findGenericPasswordWithAccount(
        account, Keychain::kServicePatternLock, std::nullopt);
    if (!sealed) return sealed.error();
    if (!*sealed) continue;
    Result<void> kept = writeLastPattern(
        std::string(Keychain::kServiceLastPatternLock) + "." + account, **key, **sealed);
    if (!kept) return kept;
  }
  return {};
}

}  // namespace corvane
