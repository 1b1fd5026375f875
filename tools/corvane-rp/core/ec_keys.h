// P-256 keys, ECDSA signatures and X.509 chains for the verifier, over OpenSSL 3.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/openssl_handles.h"
#include "foundation/result.h"
#include "foundation/utils.h"

namespace corvane::rp {

// A P-256 public key from its UAF encoding: kKeyEccX962Raw (the 65-byte uncompressed point) or
// kKeyEccX962Der (a DER SubjectPublicKeyInfo that must re-encode to exactly the same bytes). The
// point must lie on the curve.
[[nodiscard]] Result<PkeyPtr> parsePublicKey(ByteView bytes, uint16_t algorithm);
// The DER SubjectPublicKeyInfo of a key.
[[nodiscard]] Result<Bytes> publicKeyDer(EVP_PKEY* key);
// A DER SubjectPublicKeyInfo as parsePublicKey reads it.
[[nodiscard]] Result<PkeyPtr> parsePublicKeyDer(ByteView der);

// Verifies an ECDSA P-256 / SHA-256 signature over `message` in the UAF encoding `algorithm`:
// kSignSecp256r1EcdsaSha256Raw (r || s, 64 bytes) or kSignSecp256r1EcdsaSha256Der (strict DER).
// An error says why it does not verify.
[[nodiscard]] Result<void> verifySignature(EVP_PKEY* key, uint16_t algorithm, ByteView message,
                                           ByteView signature);

// The certificates of a PEM text (one or more); an error when there are none.
[[nodiscard]] Result<std::vector<X509Ptr>> readPemCertificates(std::string_view pem);
// A DER certificate that must span the bytes exactly.
[[nodiscard]] Result<X509Ptr> parseCertificateDer(ByteView der);
// Verifies that `leaf` chains to one of `roots` through `intermediates`.
[[nodiscard]] Result<void> verifyChain(X509* leaf, const std::vector<X509Ptr>& intermediates,
                                       const std::vector<X509Ptr>& roots);

}  // namespace corvane::rp
