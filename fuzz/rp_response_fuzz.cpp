// Feeds arbitrary input to the test relying party's response reader. The first byte picks the
// path: 0 the two strict TLV assertion parsers on the rest as bytes; 1 a registration response
// and 2 an authentication response, as JSON text, through every check of the verifier against a
// fixed request and a fixed registered key.
//
// Properties: the parsers' views lie inside the input and a parsed assertion's signed element is
// where the assertion says; the verifier names a check for every refusal and never accepts a
// response (the fixed key's private half is unknown, so nothing can verify).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "corvane-rp/core/assertion_parser.h"
#include "corvane-rp/core/verifier.h"
#include "foundation/utils.h"

namespace {

using corvane::ByteView;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// The request the seed corpus answers (challenge "fuzz-challenge", appID and facet below).
constexpr std::string_view kRegRequest =
    R"([{"header":{"upv":{"major":1,"minor":1},"op":"Reg","appID":"https://rp.example.test/facets.json"},)"
    R"("challenge":"fuzz-challenge","username":"alice","policy":{"accepted":[[{"aaid":["0F3D#0002"]}]]}}])";
constexpr std::string_view kAuthRequest =
    R"([{"header":{"upv":{"major":1,"minor":1},"op":"Auth","appID":"https://rp.example.test/facets.json"},)"
    R"("challenge":"fuzz-challenge","policy":{"accepted":[[{"aaid":["0F3D#0002"]}]]},)"
    R"("transaction":[{"contentType":"text/plain","content":"UGF5IDEwIEVVUg"}]}])";

// The P-256 generator point as a SubjectPublicKeyInfo: a valid key nobody signs with here.
const corvane::Bytes kPublicKey = corvane::Utils::hexString2NSData(
    "3059301306072A8648CE3D020106082A8648CE3D030107034200046B17D1F2E12C4247F8BCE6E563A440F2"
    "77037D812DEB33A0F4A13945D898C2964FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51"
    "F5");

constexpr std::string_view kKeyText =
    "fuzzkey0fuzzkey0fuzzkey0fuzzkey0fuzzkey0fuzzkey0fuzzkey0fuzzkey0";

bool inside(ByteView part, ByteView whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void parseBytes(ByteView bytes) {
  if (auto reg = corvane::rp::parseRegAssertion(bytes)) {
    check(inside(reg->krdElement, bytes) && inside(reg->publicKey, bytes));
    check(inside(reg->attestationSignature, bytes) && reg->krdElement.data() == bytes.data() + 4);
    check(reg->surrogate == reg->certificates.empty());
  }
  if (auto sign = corvane::rp::parseSignAssertion(bytes)) {
    check(inside(sign->signedDataElement, bytes) && inside(sign->signature, bytes));
    check(sign->signedDataElement.data() == bytes.data() + 4);
  }
}

void checkReport(const corvane::rp::Report& report) {
  check(!report.ok());
  check(report.failed() >= 1 && report.firstFailure().has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const ByteView rest(data + 1, size - 1);
  const std::string_view text = corvane::asText(rest);
  corvane::rp::TrustSettings trust;
  trust.trustedFacetIds = {"android:apk-key-hash:corvane-test"};
  switch (data[0] % 3) {
    case 0:
      parseBytes(rest);
      break;
    case 1: {
      corvane::rp::RegistrationOutcome outcome;
      corvane::rp::verifyRegistration(kRegRequest, text, trust, outcome);
      checkReport(outcome.report);
      check(outcome.registrations.empty());
      break;
    }
    default: {
      corvane::rp::Registration known;
      known.aaid = "0F3D#0002";
      known.keyID = corvane::Utils::base64URLSafeStringFromData(corvane::asBytes(kKeyText));
      known.publicKey = kPublicKey;
      known.signCounter = 1;
      corvane::rp::AuthenticationOutcome outcome;
      corvane::rp::verifyAuthentication(kAuthRequest, text, {&known, 1}, trust, outcome);
      checkReport(outcome.report);
      check(outcome.updated.empty());
      break;
    }
  }
  return 0;
}
