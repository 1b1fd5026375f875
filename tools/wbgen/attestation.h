// The development attestation material: a P-256 attestation key enciphered with the built-in
// white-box tables, a self-signed development root and the attestation certificate it signs.
#pragma once

#include <optional>
#include <string>

namespace wbgen {

struct AttestationMaterial {
  std::string rootPem;         // the development root certificate
  std::string attestationPem;  // the attestation certificate, signed by the root
  std::string keyHex;          // 04 || X || Y || D enciphered, 194 lower-case hex characters
};

// Makes fresh material. The root's private key is freed (and so wiped) before this returns: the
// root can never sign again. The enciphered key is checked to decipher to the attestation key and
// the certificate to verify under the root. Absent, with `error` set, on any failure.
std::optional<AttestationMaterial> makeAttestationMaterial(std::string* error);

}  // namespace wbgen
