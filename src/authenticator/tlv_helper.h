// TlvHelper: builds the two assertions a built-in authenticator returns, in the UAF V1 TLV wire
// format: the registration assertion (key registration data with basic full attestation) and the
// sign assertion. The relying party verifies these bytes, so tag values, element order and byte
// order are fixed; docs/tlv.md shows both layouts.
//
// The builders do not validate their input: an absent text or byte field is written as an empty
// value, an absent number as 0. They answer absent, and no assertion is made, when a value is too
// long for its 16-bit length (over 65,535 bytes, extension data included), when a signature
// cannot be made, or when the nonce source gives an empty nonce: a relying party never receives
// an assertion with a cut length, an empty signature or an empty authenticator nonce. The
// authenticator answers an error instead.
//
// Signing reaches the key store, so a TlvHelper is an object over a Keychain (and a nonce source
// for the sign assertion's authenticator nonce); the pure encoders are static.
//
// Thread-safety: as the Keychain it is built on.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "authenticator/assertion_fields.h"
#include "client/messages/extension.h"
#include "foundation/byte_io.h"
#include "foundation/utils.h"
#include "storage/keychain.h"

namespace corvane {

// Tags and algorithm numbers as the FIDO UAF registry names them.
namespace tlv {
inline constexpr uint16_t TAG_UAFV1_REG_ASSERTION = 0x3E01;
inline constexpr uint16_t TAG_UAFV1_AUTH_ASSERTION = 0x3E02;
inline constexpr uint16_t TAG_UAFV1_KRD = 0x3E03;
inline constexpr uint16_t TAG_UAFV1_SIGNED_DATA = 0x3E04;
inline constexpr uint16_t TAG_ATTESTATION_CERT = 0x2E05;
inline constexpr uint16_t TAG_SIGNATURE = 0x2E06;
inline constexpr uint16_t TAG_ATTESTATION_BASIC_FULL = 0x3E07;
inline constexpr uint16_t TAG_ATTESTATION_BASIC_SURROGATE = 0x3E08;  // never written
inline constexpr uint16_t TAG_KEYID = 0x2E09;
inline constexpr uint16_t TAG_FINAL_CHALLENGE_HASH = 0x2E0A;
inline constexpr uint16_t TAG_AAID = 0x2E0B;
inline constexpr uint16_t TAG_PUB_KEY = 0x2E0C;
inline constexpr uint16_t TAG_COUNTERS = 0x2E0D;
inline constexpr uint16_t TAG_ASSERTION_INFO = 0x2E0E;
inline constexpr uint16_t TAG_AUTHENTICATOR_NONCE = 0x2E0F;
inline constexpr uint16_t TAG_TRANSACTION_CONTENT_HASH = 0x2E10;
inline constexpr uint16_t TAG_EXTENSION = 0x3E11;
inline constexpr uint16_t TAG_EXTENSION_NON_CRITICAL = 0x3E12;
inline constexpr uint16_t TAG_EXTENSION_ID = 0x2E13;
inline constexpr uint16_t TAG_EXTENSION_DATA = 0x2E14;

inline constexpr uint16_t UAF_ALG_SIGN_SECP256R1_ECDSA_SHA256_DER = 0x0002;
inline constexpr uint16_t UAF_ALG_KEY_ECC_X962_DER = 0x0101;
inline constexpr uint16_t kAuthenticatorVersion = 0x0001;
// Authentication mode of the assertion info: the user was verified, and (mode 2) also confirmed a
// transaction shown to them.
inline constexpr uint8_t kAuthenticationModeUserVerified = 0x01;
inline constexpr uint8_t kAuthenticationModeTransactionConfirmed = 0x02;
inline constexpr size_t kAuthenticatorNonceLength = 8;
}  // namespace tlv

class TlvHelper {
 public:
  // Answers the TAG_AUTHENTICATOR_NONCE text of one sign assertion.
  using NonceSource = std::function<std::string()>;

  // `keychain` must outlive the helper. Without a nonce source, every sign assertion gets 8 fresh
  // characters of randomStringWithLength.
  explicit TlvHelper(Keychain& keychain, NonceSource nonceSource = nullptr);

  // base64url of the whole registration assertion (TAG_UAFV1_REG_ASSERTION). The assertion is
  // signed with the attestation key only; `privateTagString` is accepted and not used.
  [[nodiscard]] std::optional<std::string> getRegAssertions(const AssertionFields& fields,
                                                            std::string_view privateTagString);
  // The value of TAG_UAFV1_REG_ASSERTION: the KRD element, then TAG_ATTESTATION_BASIC_FULL.
  [[nodiscard]] std::optional<Bytes> getRegAssertionData(const AssertionFields& fields,
                                                         std::string_view privateTagString);
  // The value of TAG_UAFV1_KRD.
  [[nodiscard]] static std::optional<Bytes> getKrdData(const AssertionFields& fields);
  // The value of TAG_ATTESTATION_BASIC_FULL: the attestation signature over `toSign`, then the
  // attestation certificate.
  [[nodiscard]] std::optional<Bytes> getAttestationBasicFull(ByteView toSign);
  // One TAG_SIGNATURE element over `toSign` with the user's key under `privateTagString`.
  // Surrogate attestation is never used by the built-in authenticators.
  [[nodiscard]] std::optional<Bytes> getAttestationBasicSurrogate(
      ByteView toSign, std::string_view privateTagString);

  // base64url of the whole sign assertion (TAG_UAFV1_AUTH_ASSERTION), signed with the user's key
  // under `privateTagString`.
  [[nodiscard]] std::optional<std::string> getAuthAssertions(const AssertionFields& fields,
                                                             std::string_view privateTagString);
  // The value of TAG_UAFV1_AUTH_ASSERTION: the signed-data element, then TAG_SIGNATURE.
  [[nodiscard]] std::optional<Bytes> getAuthAssertionData(const AssertionFields& fields,
                                                          std::string_view privateTagString);
  // The value of TAG_UAFV1_SIGNED_DATA, with a fresh nonce.
  [[nodiscard]] std::optional<Bytes> getAuthSignedData(const AssertionFields& fields);

  // The value of one extension element: TAG_EXTENSION_ID then TAG_EXTENSION_DATA.
  [[nodiscard]] static std::optional<Bytes> getExtensionData(const Extension& extension);
  // Version 1, the authentication mode (2 only for a confirmed transaction outside registration),
  // the signature algorithm and, for a registration, the public-key algorithm: 7 or 5 bytes.
  static Bytes makeAssertionInfo(bool isReg, bool isTxAuth);
  // The sign counter, and for a registration the registration counter, each as encodeIntUint32.
  static Bytes getCounters(uint64_t signCounter, uint64_t regCounter, bool isReg);

  // ECDSA P-256 with SHA-256 (DER) with the user's key; absent when the key store cannot sign.
  [[nodiscard]] std::optional<Bytes> getSignature(ByteView data, std::string_view privateTagString);
  // The same with the attestation key.
  [[nodiscard]] std::optional<Bytes> getSignatureBasicFull(ByteView data);

  // Little-endian: the low 8 bits; the low 16 bits; four bytes of which only the low 16 bits of
  // the value are kept (so 65,536 is 00 00 00 00), which is how the counters are written.
  static Bytes encodeIntUint8(uint64_t value);
  static Bytes encodeIntUint16(uint64_t value);
  static Bytes encodeIntUint32(uint64_t value);
  // The UTF-8 bytes of the text.
  static Bytes getBytes(std::string_view text);
  // `count` characters drawn uniformly from a-z, A-Z, 0-9; empty for a count of zero or less.
  static std::string randomStringWithLength(int64_t count);

 private:
  // The add* steps write into one writer; those that return false found that no assertion can be
  // made (a failed signature, an empty nonce, or a writer that refused a value).
  static void addKrd(ByteWriter& writer, const AssertionFields& fields);
  static void addExtensionData(ByteWriter& writer, const Extension& extension);
  static void addExtensions(ByteWriter& writer, const AssertionFields& fields);
  [[nodiscard]] bool addSignedData(ByteWriter& writer, const AssertionFields& fields);
  [[nodiscard]] bool addRegAssertionData(ByteWriter& writer, const AssertionFields& fields);
  [[nodiscard]] bool addAuthAssertionData(ByteWriter& writer, const AssertionFields& fields,
                                          std::string_view privateTagString);

  Keychain& keychain_;
  NonceSource nonceSource_;
};

}  // namespace corvane
