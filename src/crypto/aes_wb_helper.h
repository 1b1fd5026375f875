// AesWBHelper: the class-level entry points of the white-box cipher. Per-user encryption with the
// server's tables, decryption with the built-in tables and the fixed IV, and IV derivation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "corvane/secret_bytes.h"
#include "crypto/whitebox_tables.h"
#include "foundation/utils.h"

namespace corvane {

struct AesWBHelper {
  // The IV used with the built-in table set.
  static constexpr std::string_view kBuiltinIV = "5c1e07d93b28fa4610ad7e2c94b3f851";

  // Enciphers `plain` in CFB mode with the user's tables and the built-in authXor; every ciphertext
  // byte is passed through the external encoding of its position. `iv` is 32 hex characters.
  // Absent when the IV is not 32 hex characters, a table has the wrong size, or the external
  // encoding is not 16 byte permutations (no output is made from unusable inputs).
  [[nodiscard]] static std::optional<Bytes> encryptAesWB(ByteView plain, std::string_view iv,
                                                         std::span<const uint32_t> tyboxes,
                                                         std::span<const uint8_t> tboxesLast,
                                                         std::span<const uint32_t> mbl,
                                                         std::span<const uint8_t> externalEncoding);
  // The same with a parsed per-user table set.
  [[nodiscard]] static std::optional<Bytes> encryptAesWB(
      ByteView plain, std::string_view iv, const whitebox::WhiteboxUserTables& tables);

  // Deciphers `length` bytes given as 2 * length hex characters with the built-in tables and
  // kBuiltinIV. Absent when the text is not exactly 2 * length hex characters, length is 0, or the
  // built-in set is unusable.
  [[nodiscard]] static std::optional<SecretBytes> decryptAesWB(std::string_view cipherHexString,
                                                               size_t length);

  // The first 32 characters of the SHA-256 hex digest of `text`.
  static std::string generateIV(std::string_view text);
};

}  // namespace corvane
