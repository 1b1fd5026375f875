#include "authenticator/tlv_helper.h"

#include <utility>

#include "crypto/attestation_material.h"

namespace corvane {

namespace {

ByteView textOrEmpty(const std::optional<std::string>& text) {
  return text ? asBytes(*text) : ByteView();
}

ByteView bytesOrEmpty(const std::optional<Bytes>& bytes) {
  return bytes ? ByteView(*bytes) : ByteView();
}

// Room for the fixed elements and headers, so that a builder appends without reallocating.
constexpr size_t kFixedRoom = 160;
// A DER ECDSA P-256 signature is at most 72 bytes.
constexpr size_t kSignatureRoom = 72;

size_t estimatedSize(const AssertionFields& fields) {
  size_t size = kFixedRoom + kSignatureRoom + textOrEmpty(fields.aaid).size() +
                bytesOrEmpty(fields.finalChallengeHash).size() + textOrEmpty(fields.keyID).size() +
                bytesOrEmpty(fields.publicKey).size() + bytesOrEmpty(fields.tcHash).size();
  if (fields.exts) {
    for (const Extension& extension : *fields.exts) {
      size += 12 + textOrEmpty(extension.extID).size() + textOrEmpty(extension.data).size();
    }
  }
  return size;
}

}  // namespace

TlvHelper::TlvHelper(Keychain& keychain, NonceSource nonceSource)
    : keychain_(keychain), nonceSource_(std::move(nonceSource)) {
  if (!nonceSource_) {
    nonceSource_ = [] { return randomStringWithLength(tlv::kAuthenticatorNonceLength); };
  }
}

Bytes TlvHelper::encodeIntUint8(uint64_t value) {
  return {static_cast<uint8_t>(value)};
}

Bytes TlvHelper::encodeIntUint16(uint64_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

Bytes TlvHelper::encodeIntUint32(uint64_t value) {
  // Only the low 16 bits are kept; the two high bytes are always zero.
  const uint64_t kept = value & 0xFFFF;
  return {static_cast<uint8_t>(kept), static_cast<uint8_t>(kept >> 8), 0x00, 0x00};
}

Bytes TlvHelper::getBytes(std::string_view text) {
  return toBytes(text);
}

std::string TlvHelper::randomStringWithLength(int64_t count) {
  return ::corvane::randomStringWithLength(count);
}

Bytes TlvHelper::makeAssertionInfo(bool isReg, bool isTxAuth) {
  Bytes info = encodeIntUint16(tlv::kAuthenticatorVersion);
  info.push_back(isTxAuth && !isReg ? tlv::kAuthenticationModeTransactionConfirmed
                                    : tlv::kAuthenticationModeUserVerified);
  const Bytes algorithm = encodeIntUint16(tlv::UAF_ALG_SIGN_SECP256R1_ECDSA_SHA256_DER);
  info.insert(info.end(), algorithm.begin(), algorithm.end());
  if (isReg) {
    const Bytes keyAlgorithm = encodeIntUint16(tlv::UAF_ALG_KEY_ECC_X962_DER);
    info.insert(info.end(), keyAlgorithm.begin(), keyAlgorithm.end());
  }
  return info;
}

Bytes TlvHelper::getCounters(uint64_t signCounter, uint64_t regCounter, bool isReg) {
  Bytes counters = encodeIntUint32(signCounter);
  if (isReg) {
    const Bytes reg = encodeIntUint32(regCounter);
    counters.insert(counters.end(), reg.begin(), reg.end());
  }
  return counters;
}

void TlvHelper::addExtensionData(ByteWriter& writer, const Extension& extension) {
  writer.addElement(tlv::TAG_EXTENSION_ID, textOrEmpty(extension.extID));
  writer.addElement(tlv::TAG_EXTENSION_DATA, textOrEmpty(extension.data));
}

std::optional<Bytes> TlvHelper::getExtensionData(const Extension& extension) {
  ByteWriter writer(8 + textOrEmpty(extension.extID).size() + textOrEmpty(extension.data).size());
  addExtensionData(writer, extension);
  return writer.finish();
}

void TlvHelper::addExtensions(ByteWriter& writer, const AssertionFields& fields) {
  if (!fields.exts) return;
  for (const Extension& extension : *fields.exts) {
    const uint16_t tag = extension.failIfUnknown.value_or(false) ? tlv::TAG_EXTENSION
                                                                 : tlv::TAG_EXTENSION_NON_CRITICAL;
    ByteWriter::Element element = writer.openElement(tag);
    addExtensionData(writer, extension);
  }
}

void TlvHelper::addKrd(ByteWriter& writer, const AssertionFields& fields) {
  writer.addElement(tlv::TAG_AAID, textOrEmpty(fields.aaid));
  writer.addElement(tlv::TAG_ASSERTION_INFO, makeAssertionInfo(true, false));
  writer.addElement(tlv::TAG_FINAL_CHALLENGE_HASH, bytesOrEmpty(fields.finalChallengeHash));
  writer.addElement(tlv::TAG_KEYID, textOrEmpty(fields.keyID));
  // The registration-counter field carries the low 16 bits of the stored registration counter.
  writer.addElement(tlv::TAG_COUNTERS, getCounters(fields.signCounter.value_or(0),
                                                   fields.regCounter.value_or(0), true));
  writer.addElement(tlv::TAG_PUB_KEY, bytesOrEmpty(fields.publicKey));
  addExtensions(writer, fields);
}

std::optional<Bytes> TlvHelper::getKrdData(const AssertionFields& fields) {
  ByteWriter writer(estimatedSize(fields));
  addKrd(writer, fields);
  return writer.finish();
}

std::optional<Bytes> TlvHelper::getSignature(ByteView data, std::string_view privateTagString) {
  return keychain_.signWithECDSASignatureMessageX962SHA256(data, privateTagString);
}

std::optional<Bytes> TlvHelper::getSignatureBasicFull(ByteView data) {
  return keychain_.signSHA256withECDSAX962ForBasicFull(data);
}

std::optional<Bytes> TlvHelper::getAttestationBasicFull(ByteView toSign) {
  const std::optional<Bytes> signature = getSignatureBasicFull(toSign);
  if (!signature || signature->empty()) return std::nullopt;
  const ByteView certificate = attestationCertificateDer();
  ByteWriter writer(8 + signature->size() + certificate.size());
  writer.addElement(tlv::TAG_SIGNATURE, *signature);
  writer.addElement(tlv::TAG_ATTESTATION_CERT, certificate);
  return writer.finish();
}

std::optional<Bytes> TlvHelper::getAttestationBasicSurrogate(ByteView toSign,
                                                             std::string_view privateTagString) {
  const std::optional<Bytes> signature = getSignature(toSign, privateTagString);
  if (!signature || signature->empty()) return std::nullopt;
  ByteWriter writer(4 + signature->size());
  writer.addElement(tlv::TAG_SIGNATURE, *signature);
  return writer.finish();
}

bool TlvHelper::addRegAssertionData(ByteWriter& writer, const AssertionFields& fields) {
  const size_t krdStart = writer.size();
  {
    ByteWriter::Element krd = writer.openElement(tlv::TAG_UAFV1_KRD);
    addKrd(writer, fields);
  }
  // Nothing is signed that cannot be sent.
  if (!writer.ok()) return false;
  // The attestation signature covers the whole KRD element: tag, length and value.
  const std::optional<Bytes> attestation =
      getAttestationBasicFull(writer.bytes().subspan(krdStart));
  if (!attestation) return false;
  writer.addElement(tlv::TAG_ATTESTATION_BASIC_FULL, *attestation);
  return true;
}

std::optional<Bytes> TlvHelper::getRegAssertionData(const AssertionFields& fields,
                                                    std::string_view /*privateTagString*/) {
  ByteWriter writer(estimatedSize(fields) + attestationCertificateDer().size());
  if (!addRegAssertionData(writer, fields)) return std::nullopt;
  return writer.finish();
}

std::optional<std::string> TlvHelper::getRegAssertions(const AssertionFields& fields,
                                                       std::string_view /*privateTagString*/) {
  ByteWriter writer(estimatedSize(fields) + attestationCertificateDer().size());
  bool made = false;
  {
    ByteWriter::Element assertion = writer.openElement(tlv::TAG_UAFV1_REG_ASSERTION);
    made = addRegAssertionData(writer, fields);
  }
  if (!made || !writer.ok()) return std::nullopt;
  return Utils::base64URLSafeStringFromData(writer.bytes());
}

bool TlvHelper::addSignedData(ByteWriter& writer, const AssertionFields& fields) {
  const std::string nonce = nonceSource_();
  if (nonce.empty()) return false;
  writer.addElement(tlv::TAG_AAID, textOrEmpty(fields.aaid));
  writer.addElement(tlv::TAG_ASSERTION_INFO,
                    makeAssertionInfo(false, fields.isTxAuth.value_or(false)));
  writer.addElement(tlv::TAG_AUTHENTICATOR_NONCE, asBytes(nonce));
  writer.addElement(tlv::TAG_FINAL_CHALLENGE_HASH, bytesOrEmpty(fields.finalChallengeHash));
  writer.addElement(tlv::TAG_TRANSACTION_CONTENT_HASH, bytesOrEmpty(fields.tcHash));
  writer.addElement(tlv::TAG_KEYID, textOrEmpty(fields.keyID));
  writer.addElement(tlv::TAG_COUNTERS, getCounters(fields.signCounter.value_or(0), 0, false));
  addExtensions(writer, fields);
  return true;
}

std::optional<Bytes> TlvHelper::getAuthSignedData(const AssertionFields& fields) {
  ByteWriter writer(estimatedSize(fields));
  if (!addSignedData(writer, fields)) return std::nullopt;
  return writer.finish();
}

bool TlvHelper::addAuthAssertionData(ByteWriter& writer, const AssertionFields& fields,
                                     std::string_view privateTagString) {
  const size_t signedStart = writer.size();
  bool made = false;
  {
    ByteWriter::Element signedData = writer.openElement(tlv::TAG_UAFV1_SIGNED_DATA);
    made = addSignedData(writer, fields);
  }
  // Nothing is signed that cannot be sent.
  if (!made || !writer.ok()) return false;
  // The user's signature covers the whole signed-data element: tag, length and value.
  const std::optional<Bytes> signature =
      getSignature(writer.bytes().subspan(signedStart), privateTagString);
  if (!signature || signature->empty()) return false;
  writer.addElement(tlv::TAG_SIGNATURE, *signature);
  return true;
}

std::optional<Bytes> TlvHelper::getAuthAssertionData(const AssertionFields& fields,
                                                     std::string_view privateTagString) {
  ByteWriter writer(estimatedSize(fields));
  if (!addAuthAssertionData(writer, fields, privateTagString)) return std::nullopt;
  return writer.finish();
}

std::optional<std::string> TlvHelper::getAuthAssertions(const AssertionFields& fields,
                                                        std::string_view privateTagString) {
  ByteWriter writer(estimatedSize(fields));
  bool made = false;
  {
    ByteWriter::Element assertion = writer.openElement(tlv::TAG_UAFV1_AUTH_ASSERTION);
    made = addAuthAssertionData(writer, fields, privateTagString);
  }
  if (!made || !writer.ok()) return std::nullopt;
  return Utils::base64URLSafeStringFromData(writer.bytes());
}

}  // namespace corvane
