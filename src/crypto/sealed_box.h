// Sealing of stored secrets under one long-lived key: AES-256-GCM with a fresh random 96-bit nonce
// per seal, stored in front of the ciphertext, and the 16-byte tag after it (as Tink's Aead
// lays out its output). The associated data binds a sealed value to where it is stored, so a copy
// moved elsewhere no longer opens.
//
// Used by the Linux stores for every item value and every private key; OpenSSL's EVP AES-GCM does
// the work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "corvane/secret_bytes.h"
#include "foundation/utils.h"

namespace corvane::sealed_box {

inline constexpr size_t kKeySize = 32;
inline constexpr size_t kNonceSize = 12;
inline constexpr size_t kTagSize = 16;
// Bytes a seal adds to its plaintext.
inline constexpr size_t kOverhead = kNonceSize + kTagSize;

// nonce || ciphertext || tag of `plain`. Absent when the key is not 32 bytes, an input is over
// 2 GiB, the random generator or OpenSSL fails.
[[nodiscard]] std::optional<Bytes> seal(const SecretBytes& key, ByteView associatedData,
                                        ByteView plain);

// The plaintext of a seal made by seal() under `key` with the same associated data. Absent when
// the seal is shorter than kOverhead, its plaintext would exceed `maxPlainSize`, or the tag does
// not match (any changed bit, another key or other associated data); nothing of the plaintext is
// released then.
[[nodiscard]] std::optional<SecretBytes> open(const SecretBytes& key, ByteView associatedData,
                                              ByteView sealed, size_t maxPlainSize = SIZE_MAX);

// Appends a 32-bit big-endian length and the bytes: fields of associated data written this way
// cannot be shifted into one another.
void appendField(Bytes& out, ByteView field);
// Appends a presence byte (0 absent, 1 present) and, when present, the field as appendField does,
// so an absent field and an empty one differ.
void appendOptionalField(Bytes& out, std::optional<ByteView> field);

}  // namespace corvane::sealed_box
