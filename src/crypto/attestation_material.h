// The development attestation identity that the library carries: the attestation private key
// enciphered with the built-in white-box tables under the fixed IV, and the attestation
// certificate that the relying party's metadata vouches for. Both are made by
// `wbgen attestation` and copied from resources/attestation/ (a test keeps them equal).
// WhiteboxAttestationKeySource deciphers the key for each attestation signature.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvane/secret_bytes.h"
#include "crypto/attestation_key_source.h"
#include "foundation/utils.h"

namespace corvane {

// 194 lower-case hex characters: 04 || X || Y || D (97 bytes) enciphered with the built-in tables
// and AesWBHelper::kBuiltinIV.
extern const std::string_view kEncipheredAttestationKey;

// The DER form of the attestation certificate (X.509 v3, P-256, signed by the development root).
ByteView attestationCertificateDer();

// CFB encryption with the built-in table set, the fixed IV and no output encoding: the inverse of
// AesWBHelper::decryptAesWB. Returns 2 * plain.size() lower-case hex characters; absent when
// `plain` is empty or the built-in set is unusable. Used to encipher an attestation key.
[[nodiscard]] std::optional<std::string> encipherWithBuiltinTables(ByteView plain);

// The attestation key source of a build: deciphers kEncipheredAttestationKey with the built-in
// tables on every call. The deciphered bytes exist only in the returned SecretBytes.
class WhiteboxAttestationKeySource : public AttestationKeySource {
 public:
  [[nodiscard]] std::optional<SecretBytes> attestationKey() const override;
};

}  // namespace corvane
