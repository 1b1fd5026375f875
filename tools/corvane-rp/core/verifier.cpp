#include "corvane-rp/core/verifier.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "client/messages/extension.h"
#include "corvane-rp/core/assertion_parser.h"
#include "corvane-rp/core/ec_keys.h"
#include "json/json_text.h"

namespace corvane::rp {
namespace {

using nlohmann::json;

constexpr std::string_view kAssertionScheme = "UAFV1TLV";
constexpr size_t kHashSize = 32;
constexpr size_t kMinNonceSize = 8;
constexpr size_t kMaxNonceSize = 64;
constexpr size_t kMaxKeyIdSize = 2048;
constexpr uint8_t kModeUserVerified = 0x01;
constexpr uint8_t kModeTransactionConfirmed = 0x02;

Error invalid(std::string message) {
  return Error::corvane(1, std::move(message));
}

// A string member, or absent when missing or of another type.
std::optional<std::string> stringMember(const json& object, std::string_view key) {
  if (!object.is_object()) return std::nullopt;
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

const json* member(const json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// The only element of a UAF message array.
Result<json> singleMessage(std::string_view text, std::string_view what) {
  Error error;
  std::optional<json> parsed = jsonmodel::parseJson(text, &error);
  if (!parsed) return invalid(std::string(what) + " is not JSON: " + error.localizedDescription());
  if (!parsed->is_array() || parsed->size() != 1 || !(*parsed)[0].is_object()) {
    return invalid(std::string(what) + " is not an array of one message object");
  }
  return (*parsed)[0];
}

void collectStrings(const json& criteria, std::string_view key, std::vector<std::string>& out) {
  const json* aaids = member(criteria, key);
  if (!aaids || !aaids->is_array()) return;
  for (const json& aaid : *aaids) {
    if (aaid.is_string()) out.push_back(aaid.get<std::string>());
  }
}

bool equalBytes(ByteView a, ByteView b) {
  return a.size() == b.size() && (a.empty() || CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0);
}

std::string hexOf(ByteView bytes) {
  return hexadecimalString(bytes);
}

// The parts of a response that both operations share.
struct Framing {
  json message;
  std::string fcParams;
  std::vector<std::pair<std::string, std::string>> assertions;  // scheme, assertion text
};

// response.json, header.*, fcParams.*: false when a later check cannot run.
bool checkFraming(const IssuedRequest& request, std::string_view responseText,
                  const TrustSettings& trust, Report& report, Framing& out) {
  Result<json> message = singleMessage(responseText, "the response");
  if (!message) return report.fail("response.json", message.error().localizedDescription());
  const json* header = member(*message, "header");
  const std::optional<std::string> fcParams = stringMember(*message, "fcParams");
  const json* assertions = member(*message, "assertions");
  if (!header || !header->is_object()) return report.fail("response.json", "no header object");
  if (!fcParams) return report.fail("response.json", "no fcParams string");
  if (!assertions || !assertions->is_array() || assertions->empty()) {
    return report.fail("response.json", "no assertions");
  }
  for (const json& assertion : *assertions) {
    const std::optional<std::string> scheme = stringMember(assertion, "assertionScheme");
    const std::optional<std::string> text = stringMember(assertion, "assertion");
    if (!scheme || !text) {
      return report.fail("response.json", "an assertion lacks assertionScheme or assertion");
    }
    out.assertions.emplace_back(*scheme, *text);
  }
  report.pass("response.json");
  out.message = *message;
  out.fcParams = *fcParams;

  const json* upv = member(*header, "upv");
  const json* major = upv ? member(*upv, "major") : nullptr;
  const json* minor = upv ? member(*upv, "minor") : nullptr;
  report.check("header.upv",
               major && minor && major->is_number_integer() && minor->is_number_integer() &&
                   *major == 1 && *minor == 1,
               "upv is not 1.1");
  const std::optional<std::string> op = stringMember(*header, "op");
  report.check("header.op", op == request.op,
               "op is \"" + op.value_or("") + "\", the request's is \"" + request.op + "\"");
  const std::optional<std::string> appID = stringMember(*header, "appID");
  report.check("header.appID", appID == request.appID,
               "appID \"" + appID.value_or("") + "\" is not the request's");
  const std::optional<std::string> serverData = stringMember(*header, "serverData");
  report.check("header.serverData", serverData == request.serverData,
               "serverData differs from the request's");

  const std::optional<Bytes> decoded =
      Utils::isBase64urlString(*fcParams) ? Utils::decodeBase64Url(*fcParams) : std::nullopt;
  Error error;
  std::optional<json> params =
      decoded ? jsonmodel::parseJson(asText(*decoded), &error) : std::nullopt;
  if (!params || !params->is_object()) {
    return report.fail("fcParams.decode", "fcParams is not base64url of a JSON object");
  }
  report.pass("fcParams.decode");
  const std::optional<std::string> fcAppID = stringMember(*params, "appID");
  const std::optional<std::string> challenge = stringMember(*params, "challenge");
  const std::optional<std::string> facetID = stringMember(*params, "facetID");
  const std::string expectedAppID = request.appID.value_or(facetID.value_or(""));
  report.check("fcParams.appID", fcAppID && *fcAppID == expectedAppID,
               "appID \"" + fcAppID.value_or("") + "\", expected \"" + expectedAppID + "\"");
  report.check("fcParams.challenge", challenge == request.challenge,
               "challenge is not the request's");
  const bool facetTrusted = facetID && !facetID->empty() &&
                            (*facetID == expectedAppID ||
                             std::find(trust.trustedFacetIds.begin(), trust.trustedFacetIds.end(),
                                       *facetID) != trust.trustedFacetIds.end());
  report.check("fcParams.facetID", facetTrusted,
               "facetID \"" + facetID.value_or("") + "\" is not a trusted facet");
  const json* channelBinding = member(*params, "channelBinding");
  report.check("fcParams.channelBinding", channelBinding && channelBinding->is_object(),
               "channelBinding is not an object");
  return true;
}

// assertion.scheme, assertion.decode: the assertion bytes, or absent.
std::optional<Bytes> decodeAssertion(const std::pair<std::string, std::string>& assertion,
                                     Report& report) {
  if (!report.check("assertion.scheme", assertion.first == kAssertionScheme,
                    "assertionScheme \"" + assertion.first + "\" is not \"UAFV1TLV\"")) {
    return std::nullopt;
  }
  std::optional<Bytes> bytes = Utils::isBase64urlString(assertion.second)
                                   ? Utils::decodeBase64Url(assertion.second)
                                   : std::nullopt;
  if (!bytes || Utils::base64URLSafeStringFromData(*bytes) != assertion.second) {
    report.fail("assertion.decode", "the assertion is not canonical base64url");
    return std::nullopt;
  }
  report.pass("assertion.decode");
  return bytes;
}

void checkFinalChallengeHash(std::string_view fcParams, ByteView hash, Report& report) {
  const std::array<uint8_t, 32> expected = Utils::sha256BackData(fcParams);
  report.check("finalChallengeHash", equalBytes(hash, expected),
               "the final challenge hash " + hexOf(hash) + " is not SHA-256 of fcParams");
}

void checkAaid(const IssuedRequest& request, const std::string& aaid, Report& report) {
  if (!Utils::checkAaidFormat(aaid)) {
    report.fail("aaid", "\"" + aaid + "\" is not an AAID");
    return;
  }
  const auto& accepted = request.acceptedAaids;
  const auto& disallowed = request.disallowedAaids;
  if (std::find(disallowed.begin(), disallowed.end(), aaid) != disallowed.end()) {
    report.fail("aaid", "the policy disallows " + aaid);
  } else if (!accepted.empty() &&
             std::find(accepted.begin(), accepted.end(), aaid) == accepted.end()) {
    report.fail("aaid", "the policy does not accept " + aaid);
  } else {
    report.pass("aaid");
  }
}

bool knownSignatureAlgorithm(uint16_t algorithm) {
  return algorithm == kSignSecp256r1EcdsaSha256Raw || algorithm == kSignSecp256r1EcdsaSha256Der;
}

bool checkKeyId(ByteView keyID, Report& report) {
  return report.check("keyID", !keyID.empty() && keyID.size() <= kMaxKeyIdSize,
                      "the key ID has " + std::to_string(keyID.size()) + " bytes");
}

void verifyRegAssertion(const IssuedRequest& request, const Framing& framing, const Bytes& bytes,
                        const TrustSettings& trust, RegistrationOutcome& outcome) {
  Report& report = outcome.report;
  Result<RegAssertion> parsed = parseRegAssertion(bytes);
  if (!report.check("tlv.structure", parsed.ok(),
                    parsed ? std::string() : parsed.error().localizedDescription())) {
    return;
  }
  const RegAssertion& a = *parsed;
  checkFinalChallengeHash(framing.fcParams, a.finalChallengeHash, report);
  checkAaid(request, a.aaid, report);
  const AssertionInfo& info = a.info;
  const bool infoOk =
      info.authenticationMode == kModeUserVerified &&
      knownSignatureAlgorithm(info.signatureAlgorithm) &&
      (info.publicKeyAlgorithm == kKeyEccX962Raw || info.publicKeyAlgorithm == kKeyEccX962Der);
  report.check("assertionInfo", infoOk,
               "mode " + std::to_string(info.authenticationMode) + ", signature algorithm " +
                   std::to_string(info.signatureAlgorithm) + ", key algorithm " +
                   std::to_string(info.publicKeyAlgorithm) +
                   " (a registration is mode 1 with a P-256 key)");
  const bool keyIdOk = checkKeyId(a.keyID, report);
  Result<PkeyPtr> key = parsePublicKey(a.publicKey, info.publicKeyAlgorithm);
  report.check("publicKey", key.ok(), key ? std::string() : key.error().localizedDescription());

  // Basic full: the attestation certificate's key signs the KRD element. Surrogate: the new key
  // itself does, and there is no chain to check.
  std::optional<Result<X509Ptr>> leaf;
  if (a.surrogate) {
    if (key) {
      Result<void> verified = verifySignature(key->get(), info.signatureAlgorithm, a.krdElement,
                                              a.attestationSignature);
      report.check("attestation.signature", verified.ok(),
                   verified ? std::string() : verified.error().localizedDescription());
    } else {
      report.fail("attestation.signature", "no public key to verify the surrogate signature");
    }
  } else {
    leaf.emplace(parseCertificateDer(a.certificates.front()));
    if (!*leaf) {
      report.fail("attestation.signature",
                  "attestation certificate: " + leaf->error().localizedDescription());
    } else {
      Result<void> verified =
          verifySignature(X509_get0_pubkey((*leaf)->get()), info.signatureAlgorithm, a.krdElement,
                          a.attestationSignature);
      report.check("attestation.signature", verified.ok(),
                   verified ? std::string() : verified.error().localizedDescription());
    }
    Result<std::vector<X509Ptr>> roots = readPemCertificates(trust.attestationRootsPem);
    std::vector<X509Ptr> intermediates;
    std::optional<std::string> chainProblem;
    if (!roots) chainProblem = "attestation root: " + roots.error().localizedDescription();
    if (!*leaf && !chainProblem) chainProblem = leaf->error().localizedDescription();
    for (size_t i = 1; i < a.certificates.size() && !chainProblem; ++i) {
      Result<X509Ptr> certificate = parseCertificateDer(a.certificates[i]);
      if (!certificate) {
        chainProblem =
            "certificate " + std::to_string(i) + ": " + certificate.error().localizedDescription();
      } else {
        intermediates.push_back(std::move(*certificate));
      }
    }
    if (!chainProblem) {
      Result<void> chained = verifyChain((*leaf)->get(), intermediates, *roots);
      if (!chained) chainProblem = chained.error().localizedDescription();
    }
    report.check("attestation.chain", !chainProblem, chainProblem.value_or(""));
  }

  if (!report.ok() || !key || !keyIdOk) return;
  Result<Bytes> der = publicKeyDer(key->get());
  if (!der) {
    report.fail("publicKey", der.error().localizedDescription());
    return;
  }
  Registration registration;
  registration.aaid = a.aaid;
  registration.keyID = Utils::base64URLSafeStringFromData(a.keyID);
  registration.publicKey = std::move(*der);
  // No authentication was accepted yet: the registration's own counter is not one to rise over
  // (an authenticator may start its signatures at the counter it registered with).
  registration.signCounter = 0;
  registration.username = request.username.value_or("");
  outcome.registrations.push_back(std::move(registration));
}

void verifySignAssertion(const IssuedRequest& request, const Framing& framing, const Bytes& bytes,
                         std::span<const Registration> known, const TrustSettings& trust,
                         AuthenticationOutcome& outcome) {
  Report& report = outcome.report;
  Result<SignAssertion> parsed = parseSignAssertion(bytes);
  if (!report.check("tlv.structure", parsed.ok(),
                    parsed ? std::string() : parsed.error().localizedDescription())) {
    return;
  }
  const SignAssertion& a = *parsed;
  checkFinalChallengeHash(framing.fcParams, a.finalChallengeHash, report);
  checkAaid(request, a.aaid, report);
  const uint8_t expectedMode =
      request.transactionText ? kModeTransactionConfirmed : kModeUserVerified;
  report.check("assertionInfo",
               a.info.authenticationMode == expectedMode &&
                   knownSignatureAlgorithm(a.info.signatureAlgorithm),
               "mode " + std::to_string(a.info.authenticationMode) + " (expected " +
                   std::to_string(expectedMode) + "), signature algorithm " +
                   std::to_string(a.info.signatureAlgorithm));
  checkKeyId(a.keyID, report);

  const std::string keyID = Utils::base64URLSafeStringFromData(a.keyID);
  const Registration* registration = nullptr;
  for (const Registration& r : known) {
    if (r.aaid == a.aaid && r.keyID == keyID) registration = &r;
  }
  const auto& asked = request.acceptedKeyIDs;
  const bool askedFor =
      asked.empty() || std::find(asked.begin(), asked.end(), keyID) != asked.end();
  report.check("registration.known", registration != nullptr && askedFor,
               registration ? "the policy does not name key ID " + keyID
                            : "no key registered for AAID " + a.aaid + " and key ID " + keyID);
  if (!askedFor) registration = nullptr;
  if (registration) {
    Result<PkeyPtr> key = parsePublicKeyDer(registration->publicKey);
    Result<void> verified = key ? verifySignature(key->get(), a.info.signatureAlgorithm,
                                                  a.signedDataElement, a.signature)
                                : Result<void>(key.error());
    report.check("signature", verified.ok(),
                 verified ? std::string() : verified.error().localizedDescription());
    report.check("signCounter", signCounterRises(registration->signCounter, a.signCounter),
                 "sign counter " + std::to_string(a.signCounter & 0xFFFF) + " does not rise over " +
                     std::to_string(registration->signCounter & 0xFFFF) + " (compared in 16 bits)");
  }
  report.check(
      "authenticatorNonce",
      a.authenticatorNonce.size() >= kMinNonceSize && a.authenticatorNonce.size() <= kMaxNonceSize,
      "the authenticator nonce has " + std::to_string(a.authenticatorNonce.size()) +
          " bytes, not 8 to 64");
  if (request.transactionText) {
    const std::array<uint8_t, 32> expected = Utils::sha256BackData(*request.transactionText);
    report.check("transactionHash",
                 a.transactionContentHash.size() == kHashSize &&
                     equalBytes(a.transactionContentHash, expected),
                 "the transaction content hash is not SHA-256 of the issued transaction text");
  } else {
    report.check("transactionHash", a.transactionContentHash.empty(),
                 "a transaction content hash without a transaction");
  }
  if (request.wbEncryptionData) {
    const auto found =
        std::find_if(a.extensions.begin(), a.extensions.end(),
                     [](const ParsedExtension& e) { return e.id == kExtensionWbEncryption; });
    std::optional<WbUserSecret> secret;
    if (registration && trust.wbSecretFor) secret = trust.wbSecretFor(registration->username);
    std::optional<Bytes> plain;
    if (found != a.extensions.end() && secret) {
      plain = decipherWbExtension(*secret, request.challenge, asText(found->data));
    }
    std::string reason;
    if (found == a.extensions.end()) {
      reason = "the signed data carries no wb_encryption extension";
    } else if (!secret) {
      reason = "no white-box key for the registered user";
    } else if (!plain) {
      reason = "the wb_encryption data is not base64url of a ciphertext";
    } else {
      reason = "the wb_encryption data does not decipher to the data that was sent";
    }
    report.check("extension.wb_encryption",
                 plain && equalBytes(*plain, asBytes(*request.wbEncryptionData)), reason);
  }

  if (!report.ok() || !registration) return;
  Registration updated = *registration;
  updated.signCounter = a.signCounter;
  outcome.updated.push_back(std::move(updated));
}

}  // namespace

Result<IssuedRequest> IssuedRequest::fromJson(std::string_view text) {
  Result<json> message = singleMessage(text, "the request");
  if (!message) return message.error();
  IssuedRequest out;
  const json* header = member(*message, "header");
  const std::optional<std::string> op = header ? stringMember(*header, "op") : std::nullopt;
  if (!op) return invalid("the request has no header op");
  out.op = *op;
  out.appID = stringMember(*header, "appID");
  out.serverData = stringMember(*header, "serverData");
  if (const json* exts = member(*header, "exts"); exts && exts->is_array()) {
    for (const json& ext : *exts) {
      if (stringMember(ext, "id") == kExtensionWbEncryption) {
        out.wbEncryptionData = stringMember(ext, "data");
      }
    }
  }
  if (out.op == "Dereg") return out;
  const std::optional<std::string> challenge = stringMember(*message, "challenge");
  if (!challenge || challenge->empty()) return invalid("the request has no challenge");
  out.challenge = *challenge;
  out.username = stringMember(*message, "username");
  if (const json* policy = member(*message, "policy")) {
    if (const json* accepted = member(*policy, "accepted"); accepted && accepted->is_array()) {
      for (const json& set : *accepted) {
        if (!set.is_array()) continue;
        for (const json& criteria : set) {
          collectStrings(criteria, "aaid", out.acceptedAaids);
          collectStrings(criteria, "keyIDs", out.acceptedKeyIDs);
        }
      }
    }
    if (const json* disallowed = member(*policy, "disallowed");
        disallowed && disallowed->is_array()) {
      for (const json& criteria : *disallowed) {
        collectStrings(criteria, "aaid", out.disallowedAaids);
      }
    }
  }
  if (const json* transactions = member(*message, "transaction");
      transactions && transactions->is_array()) {
    for (const json& transaction : *transactions) {
      if (stringMember(transaction, "contentType") != "text/plain") continue;
      const std::optional<std::string> content = stringMember(transaction, "content");
      std::optional<Bytes> decoded = content ? Utils::decodeBase64Url(*content) : std::nullopt;
      if (!decoded) return invalid("a text/plain transaction is not base64url");
      out.transactionText = std::string(asText(*decoded));
      break;
    }
  }
  return out;
}

std::string Registration::toJson() const {
  const json object = {{"aaid", aaid},
                       {"keyID", keyID},
                       {"publicKey", Utils::base64URLSafeStringFromData(publicKey)},
                       {"signCounter", signCounter},
                       {"username", username}};
  return jsonmodel::dumpJson(object);
}

Result<Registration> Registration::fromJson(std::string_view text) {
  Error error;
  std::optional<json> parsed = jsonmodel::parseJson(text, &error);
  if (!parsed || !parsed->is_object())
    return invalid("the registration record is not a JSON object");
  Registration out;
  const std::optional<std::string> aaid = stringMember(*parsed, "aaid");
  const std::optional<std::string> keyID = stringMember(*parsed, "keyID");
  const std::optional<std::string> publicKey = stringMember(*parsed, "publicKey");
  const json* counter = member(*parsed, "signCounter");
  std::optional<Bytes> key = publicKey ? Utils::decodeBase64Url(*publicKey) : std::nullopt;
  if (!aaid || !keyID || !key || !counter || !counter->is_number_unsigned() ||
      counter->get<uint64_t>() > UINT32_MAX) {
    return invalid("the registration record lacks aaid, keyID, publicKey or signCounter");
  }
  out.aaid = *aaid;
  out.keyID = *keyID;
  out.publicKey = std::move(*key);
  out.signCounter = static_cast<uint32_t>(counter->get<uint64_t>());
  out.username = stringMember(*parsed, "username").value_or("");
  return out;
}

std::optional<std::string> responseChallenge(std::string_view responseText) {
  Result<json> message = singleMessage(responseText, "the response");
  if (!message) return std::nullopt;
  const std::optional<std::string> fcParams = stringMember(*message, "fcParams");
  const std::optional<Bytes> decoded = fcParams && Utils::isBase64urlString(*fcParams)
                                           ? Utils::decodeBase64Url(*fcParams)
                                           : std::nullopt;
  std::optional<json> params =
      decoded ? jsonmodel::parseJson(asText(*decoded), nullptr) : std::nullopt;
  return params ? stringMember(*params, "challenge") : std::nullopt;
}

void verifyRegistration(std::string_view requestText, std::string_view responseText,
                        const TrustSettings& trust, RegistrationOutcome& outcome) {
  Report& report = outcome.report;
  Result<IssuedRequest> request = IssuedRequest::fromJson(requestText);
  if (!report.check("request.json", request && request->op == "Reg",
                    request ? "the request is not a registration request"
                            : request.error().localizedDescription())) {
    return;
  }
  Framing framing;
  if (!checkFraming(*request, responseText, trust, report, framing)) return;
  for (const auto& assertion : framing.assertions) {
    std::optional<Bytes> bytes = decodeAssertion(assertion, report);
    if (bytes) verifyRegAssertion(*request, framing, *bytes, trust, outcome);
  }
  if (!report.ok()) outcome.registrations.clear();
}

void verifyAuthentication(std::string_view requestText, std::string_view responseText,
                          std::span<const Registration> known, const TrustSettings& trust,
                          AuthenticationOutcome& outcome) {
  Report& report = outcome.report;
  Result<IssuedRequest> request = IssuedRequest::fromJson(requestText);
  if (!report.check("request.json", request && request->op == "Auth",
                    request ? "the request is not an authentication request"
                            : request.error().localizedDescription())) {
    return;
  }
  Framing framing;
  if (!checkFraming(*request, responseText, trust, report, framing)) return;
  for (const auto& assertion : framing.assertions) {
    std::optional<Bytes> bytes = decodeAssertion(assertion, report);
    if (bytes) verifySignAssertion(*request, framing, *bytes, known, trust, outcome);
  }
  if (!report.ok()) outcome.updated.clear();
}

bool signCounterRises(uint32_t last, uint32_t next) {
  const uint16_t difference = static_cast<uint16_t>(next - last);
  return difference >= 1 && difference <= 0x7FFF;
}

}  // namespace corvane::rp
