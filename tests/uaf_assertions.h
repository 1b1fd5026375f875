// Readers of the assertions the built-in authenticators answer, for the suites that drive them
// through the ASM: the public key and key ID of a registration, and the sign counter of an
// authentication once its signature verified with OpenSSL alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "authenticator/tlv_helper.h"
#include "foundation/byte_io.h"
#include "foundation/utils.h"
#include "test_files.h"

namespace corvane::testing {

struct RegisteredKey {
  Bytes publicKey;    // DER SubjectPublicKeyInfo
  std::string keyID;  // base64url, as the ASM lists it
};

// From the base64url registration assertion; absent when it does not parse.
inline std::optional<RegisteredKey> registeredKey(std::string_view assertionText) {
  const std::optional<Bytes> assertion = Utils::decodeBase64Url(assertionText);
  if (!assertion) return std::nullopt;
  ByteReader top(*assertion);
  std::optional<ByteReader> reg = top.readElement(tlv::TAG_UAFV1_REG_ASSERTION);
  std::optional<ByteReader> krd = reg ? reg->readElement(tlv::TAG_UAFV1_KRD) : std::nullopt;
  if (!krd) return std::nullopt;
  RegisteredKey key;
  while (std::optional<TlvElement> element = krd->readElement()) {
    const Bytes value(element->value.rest().begin(), element->value.rest().end());
    if (element->tag == tlv::TAG_PUB_KEY) key.publicKey = value;
    if (element->tag == tlv::TAG_KEYID) key.keyID = Utils::base64URLSafeStringFromData(value);
  }
  return key;
}

// The sign counter of a base64url authentication assertion whose signature verifies under
// `publicKey`; absent otherwise.
inline std::optional<uint32_t> verifiedSignCounter(ByteView publicKey,
                                                   std::string_view assertionText) {
  const std::optional<Bytes> assertion = Utils::decodeBase64Url(assertionText);
  if (!assertion) return std::nullopt;
  ByteReader top(*assertion);
  std::optional<ByteReader> auth = top.readElement(tlv::TAG_UAFV1_AUTH_ASSERTION);
  if (!auth) return std::nullopt;
  std::optional<TlvElement> signedData = auth->readElement();
  std::optional<ByteReader> signature = auth->readElement(tlv::TAG_SIGNATURE);
  if (!signedData || !signature) return std::nullopt;
  if (!verifies(publicKey, signedData->whole, signature->rest())) return std::nullopt;
  std::optional<uint32_t> counter;
  while (std::optional<TlvElement> element = signedData->value.readElement()) {
    if (element->tag == tlv::TAG_COUNTERS && element->value.rest().size() >= 4) {
      const ByteView c = element->value.rest();
      counter = c[0] | c[1] << 8 | c[2] << 16 | static_cast<uint32_t>(c[3]) << 24;
    }
  }
  return counter;
}

}  // namespace corvane::testing
