#include "corvane-rp/core/assertion_parser.h"

#include <cstdio>
#include <optional>
#include <string_view>

#include "foundation/byte_io.h"

namespace corvane::rp {
namespace {

constexpr uint16_t TAG_UAFV1_REG_ASSERTION = 0x3E01;
constexpr uint16_t TAG_UAFV1_AUTH_ASSERTION = 0x3E02;
constexpr uint16_t TAG_UAFV1_KRD = 0x3E03;
constexpr uint16_t TAG_UAFV1_SIGNED_DATA = 0x3E04;
constexpr uint16_t TAG_ATTESTATION_CERT = 0x2E05;
constexpr uint16_t TAG_SIGNATURE = 0x2E06;
constexpr uint16_t TAG_ATTESTATION_BASIC_FULL = 0x3E07;
constexpr uint16_t TAG_ATTESTATION_BASIC_SURROGATE = 0x3E08;
constexpr uint16_t TAG_KEYID = 0x2E09;
constexpr uint16_t TAG_FINAL_CHALLENGE_HASH = 0x2E0A;
constexpr uint16_t TAG_AAID = 0x2E0B;
constexpr uint16_t TAG_PUB_KEY = 0x2E0C;
constexpr uint16_t TAG_COUNTERS = 0x2E0D;
constexpr uint16_t TAG_ASSERTION_INFO = 0x2E0E;
constexpr uint16_t TAG_AUTHENTICATOR_NONCE = 0x2E0F;
constexpr uint16_t TAG_TRANSACTION_CONTENT_HASH = 0x2E10;
constexpr uint16_t TAG_EXTENSION = 0x3E11;
constexpr uint16_t TAG_EXTENSION_NON_CRITICAL = 0x3E12;
constexpr uint16_t TAG_EXTENSION_ID = 0x2E13;
constexpr uint16_t TAG_EXTENSION_DATA = 0x2E14;

constexpr size_t kRegAssertionInfoSize = 7;
constexpr size_t kSignAssertionInfoSize = 5;

std::string tagName(uint16_t tag) {
  switch (tag) {
    case TAG_UAFV1_REG_ASSERTION:
      return "TAG_UAFV1_REG_ASSERTION";
    case TAG_UAFV1_AUTH_ASSERTION:
      return "TAG_UAFV1_AUTH_ASSERTION";
    case TAG_UAFV1_KRD:
      return "TAG_UAFV1_KRD";
    case TAG_UAFV1_SIGNED_DATA:
      return "TAG_UAFV1_SIGNED_DATA";
    case TAG_ATTESTATION_CERT:
      return "TAG_ATTESTATION_CERT";
    case TAG_SIGNATURE:
      return "TAG_SIGNATURE";
    case TAG_ATTESTATION_BASIC_FULL:
      return "TAG_ATTESTATION_BASIC_FULL";
    case TAG_ATTESTATION_BASIC_SURROGATE:
      return "TAG_ATTESTATION_BASIC_SURROGATE";
    case TAG_KEYID:
      return "TAG_KEYID";
    case TAG_FINAL_CHALLENGE_HASH:
      return "TAG_FINAL_CHALLENGE_HASH";
    case TAG_AAID:
      return "TAG_AAID";
    case TAG_PUB_KEY:
      return "TAG_PUB_KEY";
    case TAG_COUNTERS:
      return "TAG_COUNTERS";
    case TAG_ASSERTION_INFO:
      return "TAG_ASSERTION_INFO";
    case TAG_AUTHENTICATOR_NONCE:
      return "TAG_AUTHENTICATOR_NONCE";
    case TAG_TRANSACTION_CONTENT_HASH:
      return "TAG_TRANSACTION_CONTENT_HASH";
    case TAG_EXTENSION:
      return "TAG_EXTENSION";
    case TAG_EXTENSION_NON_CRITICAL:
      return "TAG_EXTENSION_NON_CRITICAL";
    case TAG_EXTENSION_ID:
      return "TAG_EXTENSION_ID";
    case TAG_EXTENSION_DATA:
      return "TAG_EXTENSION_DATA";
    default:
      break;
  }
  char text[16];
  std::snprintf(text, sizeof text, "0x%04X", tag);
  return text;
}

Error malformed(std::string message) {
  return Error::corvane(1, std::move(message));
}

// Walks the elements of one value; every failure names the element and its offset in the whole
// assertion.
class Walker {
 public:
  Walker(ByteView whole, ByteReader reader) : whole_(whole), reader_(reader) {}

  bool empty() const { return reader_.empty(); }
  std::optional<uint16_t> nextTag() const { return reader_.peekU16(); }

  // The next element, which must carry `tag`.
  Result<TlvElement> expect(uint16_t tag) {
    const size_t at = offset();
    const std::optional<uint16_t> found = reader_.peekU16();
    if (!found) {
      return malformed("expected " + tagName(tag) + " at offset " + std::to_string(at) +
                       ", found the end of its container");
    }
    if (*found != tag) {
      return malformed("expected " + tagName(tag) + " at offset " + std::to_string(at) +
                       ", found " + tagName(*found));
    }
    std::optional<TlvElement> element = reader_.readElement();
    if (!element) {
      return malformed(tagName(tag) + " at offset " + std::to_string(at) +
                       " is longer than its container");
    }
    return *element;
  }
  // The next element, which must carry `tag` and have a value of exactly `size` bytes.
  Result<TlvElement> expectSized(uint16_t tag, size_t size) {
    Result<TlvElement> element = expect(tag);
    if (element && element->value.remaining() != size) {
      return malformed(tagName(tag) + " at offset " + std::to_string(offsetOf(element->whole)) +
                       " has " + std::to_string(element->value.remaining()) + " bytes, not " +
                       std::to_string(size));
    }
    return element;
  }
  // Fails unless every byte was read.
  Result<void> end(std::string_view container) const {
    if (reader_.empty()) return {};
    const std::optional<uint16_t> tag = reader_.peekU16();
    return malformed(std::to_string(reader_.remaining()) + " trailing bytes at offset " +
                     std::to_string(offset()) + " after the last element of " +
                     std::string(container) +
                     (tag ? " (starting like " + tagName(*tag) + ")" : ""));
  }
  Walker inside(const TlvElement& element) const { return Walker(whole_, element.value); }

  size_t offsetOf(ByteView part) const { return static_cast<size_t>(part.data() - whole_.data()); }

 private:
  size_t offset() const { return whole_.size() - reader_.remaining(); }

  ByteView whole_;
  ByteReader reader_;
};

#define CORVANE_RP_TRY(var, expr) \
  auto var = (expr);              \
  if (!var) return var.error()

Result<AssertionInfo> readAssertionInfo(TlvElement element, bool isReg) {
  AssertionInfo info;
  ByteReader r = element.value;
  // The sizes were checked by expectSized, so every read succeeds.
  info.authenticatorVersion = r.readU16().value_or(0);
  info.authenticationMode = r.readU8().value_or(0);
  info.signatureAlgorithm = r.readU16().value_or(0);
  if (isReg) info.publicKeyAlgorithm = r.readU16().value_or(0);
  return info;
}

// Zero or more extension elements, until the container ends.
Result<void> readExtensions(Walker& walker, std::string_view container,
                            std::vector<ParsedExtension>& out) {
  while (!walker.empty()) {
    const std::optional<uint16_t> tag = walker.nextTag();
    const uint16_t extensionTag =
        tag == TAG_EXTENSION_NON_CRITICAL ? TAG_EXTENSION_NON_CRITICAL : TAG_EXTENSION;
    if (tag != TAG_EXTENSION && tag != TAG_EXTENSION_NON_CRITICAL) {
      CORVANE_RP_TRY(done, walker.end(container));
    }
    CORVANE_RP_TRY(element, walker.expect(extensionTag));
    Walker fields = walker.inside(*element);
    CORVANE_RP_TRY(id, fields.expect(TAG_EXTENSION_ID));
    CORVANE_RP_TRY(data, fields.expect(TAG_EXTENSION_DATA));
    CORVANE_RP_TRY(end, fields.end(tagName(extensionTag)));
    const ByteView idBytes = id->value.rest();
    const ByteView dataBytes = data->value.rest();
    out.push_back({extensionTag == TAG_EXTENSION, std::string(asText(idBytes)),
                   Bytes(dataBytes.begin(), dataBytes.end())});
  }
  return {};
}

uint32_t readU32(const TlvElement& element, size_t at) {
  ByteReader r(element.value.rest().subspan(at));
  return r.readU32().value_or(0);
}

}  // namespace

Result<RegAssertion> parseRegAssertion(ByteView bytes) {
  RegAssertion out;
  Walker top(bytes, ByteReader(bytes));
  CORVANE_RP_TRY(outer, top.expect(TAG_UAFV1_REG_ASSERTION));
  CORVANE_RP_TRY(topEnd, top.end("the assertion"));
  Walker reg = top.inside(*outer);

  CORVANE_RP_TRY(krd, reg.expect(TAG_UAFV1_KRD));
  out.krdElement = krd->whole;
  Walker fields = reg.inside(*krd);
  CORVANE_RP_TRY(aaid, fields.expect(TAG_AAID));
  out.aaid = std::string(asText(aaid->value.rest()));
  CORVANE_RP_TRY(info, fields.expectSized(TAG_ASSERTION_INFO, kRegAssertionInfoSize));
  const ByteView infoBytes = info->value.rest();
  out.assertionInfoBytes.assign(infoBytes.begin(), infoBytes.end());
  CORVANE_RP_TRY(parsedInfo, readAssertionInfo(*info, true));
  out.info = *parsedInfo;
  CORVANE_RP_TRY(fch, fields.expect(TAG_FINAL_CHALLENGE_HASH));
  out.finalChallengeHash = fch->value.rest();
  CORVANE_RP_TRY(keyID, fields.expect(TAG_KEYID));
  out.keyID = keyID->value.rest();
  CORVANE_RP_TRY(counters, fields.expectSized(TAG_COUNTERS, 8));
  out.signCounter = readU32(*counters, 0);
  out.regCounter = readU32(*counters, 4);
  CORVANE_RP_TRY(publicKey, fields.expect(TAG_PUB_KEY));
  out.publicKey = publicKey->value.rest();
  CORVANE_RP_TRY(krdExtensions, readExtensions(fields, "TAG_UAFV1_KRD", out.extensions));

  const std::optional<uint16_t> attestationTag = reg.nextTag();
  out.surrogate = attestationTag == TAG_ATTESTATION_BASIC_SURROGATE;
  CORVANE_RP_TRY(attestation, reg.expect(out.surrogate ? TAG_ATTESTATION_BASIC_SURROGATE
                                                       : TAG_ATTESTATION_BASIC_FULL));
  Walker att = reg.inside(*attestation);
  CORVANE_RP_TRY(signature, att.expect(TAG_SIGNATURE));
  out.attestationSignature = signature->value.rest();
  if (out.surrogate) {
    CORVANE_RP_TRY(attEnd, att.end("TAG_ATTESTATION_BASIC_SURROGATE"));
  } else {
    // One certificate at least (the attestation certificate), then the rest of its chain.
    do {
      CORVANE_RP_TRY(certificate, att.expect(TAG_ATTESTATION_CERT));
      out.certificates.push_back(certificate->value.rest());
    } while (!att.empty() && att.nextTag() == TAG_ATTESTATION_CERT);
    CORVANE_RP_TRY(attEnd, att.end("TAG_ATTESTATION_BASIC_FULL"));
  }
  CORVANE_RP_TRY(outerExtensions, readExtensions(reg, "TAG_UAFV1_REG_ASSERTION", out.extensions));
  return out;
}

Result<SignAssertion> parseSignAssertion(ByteView bytes) {
  SignAssertion out;
  Walker top(bytes, ByteReader(bytes));
  CORVANE_RP_TRY(outer, top.expect(TAG_UAFV1_AUTH_ASSERTION));
  CORVANE_RP_TRY(topEnd, top.end("the assertion"));
  Walker auth = top.inside(*outer);

  CORVANE_RP_TRY(signedData, auth.expect(TAG_UAFV1_SIGNED_DATA));
  out.signedDataElement = signedData->whole;
  Walker fields = auth.inside(*signedData);
  CORVANE_RP_TRY(aaid, fields.expect(TAG_AAID));
  out.aaid = std::string(asText(aaid->value.rest()));
  CORVANE_RP_TRY(info, fields.expectSized(TAG_ASSERTION_INFO, kSignAssertionInfoSize));
  CORVANE_RP_TRY(parsedInfo, readAssertionInfo(*info, false));
  out.info = *parsedInfo;
  CORVANE_RP_TRY(nonce, fields.expect(TAG_AUTHENTICATOR_NONCE));
  out.authenticatorNonce = nonce->value.rest();
  CORVANE_RP_TRY(fch, fields.expect(TAG_FINAL_CHALLENGE_HASH));
  out.finalChallengeHash = fch->value.rest();
  CORVANE_RP_TRY(tcHash, fields.expect(TAG_TRANSACTION_CONTENT_HASH));
  out.transactionContentHash = tcHash->value.rest();
  CORVANE_RP_TRY(keyID, fields.expect(TAG_KEYID));
  out.keyID = keyID->value.rest();
  CORVANE_RP_TRY(counters, fields.expectSized(TAG_COUNTERS, 4));
  out.signCounter = readU32(*counters, 0);
  CORVANE_RP_TRY(innerExtensions, readExtensions(fields, "TAG_UAFV1_SIGNED_DATA", out.extensions));

  CORVANE_RP_TRY(signature, auth.expect(TAG_SIGNATURE));
  out.signature = signature->value.rest();
  CORVANE_RP_TRY(outerExtensions, readExtensions(auth, "TAG_UAFV1_AUTH_ASSERTION", out.extensions));
  return out;
}

}  // namespace corvane::rp
