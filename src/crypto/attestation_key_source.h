// AttestationKeySource: where the attestation private key comes from. The Keychain signs with it;
// WhiteboxAttestationKeySource (attestation_material.h) is the implementation a build carries.
#pragma once

#include <cstddef>
#include <optional>

#include "corvane/secret_bytes.h"

namespace corvane {

// The system carries the key enciphered and deciphers it for each signature; an implementation
// answers the 97 bytes 04 || X || Y || D (uncompressed public point, then the private scalar), or
// absent when it cannot.
class AttestationKeySource {
 public:
  static constexpr size_t kAttestationKeySize = 97;

  virtual ~AttestationKeySource() = default;
  [[nodiscard]] virtual std::optional<SecretBytes> attestationKey() const = 0;
};

}  // namespace corvane
