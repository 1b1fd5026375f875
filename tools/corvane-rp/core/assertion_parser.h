// Strict parsers of the two UAF V1 TLV assertions a relying party receives. Every element must be
// one the layout allows, at the place it allows it, with a length that matches its value exactly,
// and nothing may follow the last element. Extensions are accepted inside the key registration
// data or the signed data (after the fixed elements, where Corvane puts them) and at the end of
// the assertion (where other authenticators may put them).
//
// The parsers only take the bytes apart: signatures, hashes and counters are judged by the
// verifier. Parsed views point into the input, which must outlive them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/result.h"
#include "foundation/utils.h"

namespace corvane::rp {

// Assertion-info values.
inline constexpr uint16_t kSignSecp256r1EcdsaSha256Raw = 0x0001;
inline constexpr uint16_t kSignSecp256r1EcdsaSha256Der = 0x0002;
inline constexpr uint16_t kKeyEccX962Raw = 0x0100;
inline constexpr uint16_t kKeyEccX962Der = 0x0101;

struct ParsedExtension {
  bool critical = false;  // TAG_EXTENSION rather than TAG_EXTENSION_NON_CRITICAL
  std::string id;
  Bytes data;
};

struct AssertionInfo {
  uint16_t authenticatorVersion = 0;
  uint8_t authenticationMode = 0;
  uint16_t signatureAlgorithm = 0;
  uint16_t publicKeyAlgorithm = 0;  // registration only
};

struct RegAssertion {
  ByteView krdElement;  // the whole TAG_UAFV1_KRD element, header included: what is attested
  std::string aaid;
  Bytes assertionInfoBytes;
  AssertionInfo info;
  ByteView finalChallengeHash;
  ByteView keyID;
  uint32_t signCounter = 0;
  uint32_t regCounter = 0;
  ByteView publicKey;
  bool surrogate = false;  // TAG_ATTESTATION_BASIC_SURROGATE rather than _FULL
  ByteView attestationSignature;
  std::vector<ByteView> certificates;  // basic full: leaf first
  std::vector<ParsedExtension> extensions;
};

struct SignAssertion {
  ByteView signedDataElement;  // the whole TAG_UAFV1_SIGNED_DATA element: what is signed
  std::string aaid;
  AssertionInfo info;
  ByteView authenticatorNonce;
  ByteView finalChallengeHash;
  ByteView transactionContentHash;
  ByteView keyID;
  uint32_t signCounter = 0;
  ByteView signature;
  std::vector<ParsedExtension> extensions;
};

// The error's message says which element was wrong and at which offset.
[[nodiscard]] Result<RegAssertion> parseRegAssertion(ByteView bytes);
[[nodiscard]] Result<SignAssertion> parseSignAssertion(ByteView bytes);

}  // namespace corvane::rp
