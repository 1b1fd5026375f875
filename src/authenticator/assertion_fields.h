// The fields an authenticator hands to the assertion builders (TlvHelper), and, for a
// registration, back to the ASM as the key-registration data it encoded.
//
// The builders do not validate: an absent text or byte field is written as an empty value, an
// absent number as 0, absent extensions as none.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/messages/extension.h"
#include "foundation/utils.h"

namespace corvane {

struct AssertionFields {
  std::optional<std::string> aaid;             // "aaid": UTF-8 into TAG_AAID
  std::optional<Bytes> finalChallengeHash;     // "finalChallengeHash": bytes, unchanged
  std::optional<std::string> keyID;            // "keyID": 64 hex characters, UTF-8 into TAG_KEYID
  std::optional<std::string> base64UrlKeyID;   // "base64UrlKeyID": the key ID of the UAF messages;
                                               // not encoded, read by the ASM
  std::optional<Bytes> publicKey;              // "publicKey": DER SubjectPublicKeyInfo
  std::optional<uint64_t> signCounter;         // "signCounter"
  std::optional<uint64_t> regCounter;          // "regCounter"
  std::optional<std::vector<Extension>> exts;  // "exts"
  std::optional<bool> isTxAuth;                // "isTxAuth": authentication mode 0x02 when true
  std::optional<Bytes> tcHash;                 // "tcHash": transaction content hash

  bool operator==(const AssertionFields&) const = default;
};

}  // namespace corvane
