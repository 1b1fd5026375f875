// PatternManager: each user's unlock pattern at rest, sealed with AES-256-GCM in the keychain, the
// check of an entered pattern against it, and a copy of the previous pattern so that the pattern
// screen can refuse a new pattern that repeats the old one.
//
// A pattern is the ordered list of 0-based dot indices the grid hands out. It is serialised into a
// SecretBytes buffer (wiped when released) and sealed before it is stored; it is never stored,
// returned or logged in clear, and user names reach the store only as SHA-256 hex.
//
// A store that fails is an error, never a "wrong pattern": a disk error must not count as a failed
// try against the lockout. Missing items, short or damaged blobs, failed tag checks and failed
// decodes make the comparisons false.
//
// Thread-safety: none of its own; calls must not overlap (the Keychain's ports serve one call at a
// time).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "corvane/secret_bytes.h"
#include "foundation/result.h"
#include "storage/keychain.h"

namespace corvane {

class PatternManager {
 public:
  // `count` random bytes, or absent when the generator fails.
  using RandomSource = std::function<std::optional<SecretBytes>(size_t count)>;

  static constexpr size_t kKeySize = 32;
  static constexpr size_t kTagSize = 16;
  static constexpr size_t kIvSize = 12;
  // Largest number of dots a serialised pattern may hold.
  static constexpr size_t kMaxPatternLength = 0xffff;

  // `random` defaults to the system's CSPRNG.
  explicit PatternManager(Keychain& keychain, RandomSource random = {});

  // The pattern-store key (account "0F3D#0002", service "AUTHNR.authKeyTag", read through
  // getAesEncryptKey), made of 32 random bytes and stored first when there is none. An error when
  // it can be neither read nor made and stored.
  Result<SecretBytes> getPatternLockEncryptKey();

  // True when the user's current pattern item opens under the key and holds this pattern; false
  // for another pattern or no stored pattern; an error when the store fails.
  Result<bool> isCorrectPattern(std::span<const uint32_t> pattern, std::string_view username);
  // True when the user's last pattern item opens under the key it carries and holds this pattern;
  // an error when the store fails.
  Result<bool> isSameAsLastPattern(std::span<const uint32_t> pattern, std::string_view username);
  // Same length and same elements in the same order.
  static bool pattern(std::span<const uint32_t> pattern, std::span<const uint32_t> otherPattern);

  // Seals the pattern under the key and inserts or replaces the user's current pattern item.
  Result<void> updatePattern(std::span<const uint32_t> pattern, std::string_view username);
  // The two halves of updatePattern: the pattern sealed under the pattern-store key (made first
  // when there is none), and the sealed form stored as the user's current pattern. A screen
  // seals the pattern the moment it is confirmed, so no clear copy outlives the call, and the
  // registration stores it with its other records.
  Result<SecretBytes> sealForStore(std::span<const uint32_t> pattern);
  Result<void> storeSealedPattern(const SecretBytes& sealed, std::string_view username);
  // Copies the user's current sealed pattern, with the current key, into the last pattern item
  // (nothing to do without a current pattern).
  Result<void> updateLastPatternForUsername(std::string_view username);
  // Writes a last pattern item for every account that has a current pattern item.
  Result<void> updateLastPatternForTheFirstTime();

  // The serialised form: "CP", version 1, the count as a big-endian 16-bit number, then each dot
  // index as a big-endian 32-bit number. Absent for a pattern longer than kMaxPatternLength.
  [[nodiscard]] static std::optional<SecretBytes> serializePattern(
      std::span<const uint32_t> pattern);
  // True when `serialized` is exactly a serialised pattern (of this form) equal to `pattern`.
  // Any other content, even one that differs only in length, gives false.
  static bool serializedPatternEquals(const SecretBytes& serialized,
                                      std::span<const uint32_t> pattern);

  // AES-256-GCM under `key` with a fresh random 12-byte IV and empty additional data:
  // 0x01 (the format) || IV || ciphertext || tag. Two seals of one pattern never look alike, and
  // no IV is used twice under the key, which also seals the key handles.
  [[nodiscard]] static std::optional<SecretBytes> sealPattern(const SecretBytes& key,
                                                              const SecretBytes& serialized);
  // The inverse. A blob of another format or too short to hold an IV, a tag and one byte is
  // refused before any attempt to open it; absent too when the tag does not verify.
  [[nodiscard]] static std::optional<SecretBytes> openSealedPattern(const SecretBytes& key,
                                                                    const SecretBytes& sealed);

  // "<sha256 hex of the user name>.0F3D#0002" and
  // "AUTHNR.last_patternlock.<sha256 hex of the user name>.0F3D#0002".
  static std::string currentPatternAccount(std::string_view username);
  static std::string lastPatternAccount(std::string_view username);

 private:
  // Writes the last pattern item `account` holding `key` and the sealed pattern.
  Result<void> writeLastPattern(const std::string& account, const SecretBytes& key,
                                const SecretBytes& sealed);

  Keychain& keychain_;
  RandomSource random_;
};

}  // namespace corvane
