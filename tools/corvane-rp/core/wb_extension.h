// The "wb_encryption" extension: the relying party sends random data in an authentication
// request; the client enciphers that text with the user's white-box tables (AesWBHelper::
// encryptAesWB, IV = AesWBHelper::generateIV of the request's challenge) and the authenticator
// signs the base64url (no padding) of the ciphertext as the extension's data. The relying party,
// which holds the user's AES-256 key and external encoding, deciphers it: it undoes the external
// encoding of each position, then runs AES-256 in CFB mode (128-bit feedback), as the tables
// compute it.
#pragma once

#include <optional>
#include <string_view>

#include "corvane/secret_bytes.h"
#include "foundation/utils.h"

namespace corvane::rp {

// What the relying party keeps per user to make the bundle and read the extension.
struct WbUserSecret {
  SecretBytes key;         // AES-256, 32 bytes
  Bytes externalEncoding;  // 16 byte permutations, 4096 bytes (position k at 256 * k)
};

// The text of the extension's data deciphered; absent when it is not base64url or the secret is not
// of the sizes above.
[[nodiscard]] std::optional<Bytes> decipherWbExtension(const WbUserSecret& secret,
                                                       std::string_view challenge,
                                                       std::string_view cipherText);

}  // namespace corvane::rp
