// The relying party's verifier: a registration or authentication response, checked against the
// request it answers, byte by byte. Every check is recorded under a stable name in a Report
// (docs/relying-party.md lists them), so that the caller learns which one refused the response.
//
// The verifier keeps no state: the caller hands in the request text it issued, the registrations
// it knows and the trust settings, and stores what the verifier answers (new registrations,
// raised sign counters). RelyingParty (relying_party.h) adds the pending challenges.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane-rp/core/report.h"
#include "corvane-rp/core/wb_extension.h"
#include "foundation/result.h"
#include "foundation/utils.h"

namespace corvane::rp {

// What a request the relying party issued asked for, read back from its JSON text.
struct IssuedRequest {
  std::string op;  // "Reg", "Auth" or "Dereg"
  std::optional<std::string> appID;
  std::optional<std::string> serverData;
  std::string challenge;
  std::optional<std::string> username;
  std::vector<std::string> acceptedAaids;  // empty: the policy names no AAID
  std::vector<std::string> disallowedAaids;
  std::vector<std::string> acceptedKeyIDs;      // empty: the policy names no key
  std::optional<std::string> transactionText;   // decoded content of the text/plain transaction
  std::optional<std::string> wbEncryptionData;  // data of a "wb_encryption" header extension

  // Reads a one-element UAF request array; an error says what is wrong with it.
  [[nodiscard]] static Result<IssuedRequest> fromJson(std::string_view text);
};

// One registered key, as the relying party keeps it.
struct Registration {
  std::string aaid;
  std::string keyID;         // base64url of the TAG_KEYID bytes: the key ID the UAF messages carry
  Bytes publicKey;           // DER SubjectPublicKeyInfo, whatever encoding the authenticator used
  uint32_t signCounter = 0;  // last accepted, as the counter field carried it
  std::string username;

  std::string toJson() const;
  [[nodiscard]] static Result<Registration> fromJson(std::string_view text);
};

struct TrustSettings {
  // The facet IDs a response's fcParams may name besides the appID itself.
  std::vector<std::string> trustedFacetIds;
  // PEM text of the attestation roots.
  std::string attestationRootsPem;
  // The white-box secret of a user, for reading a "wb_encryption" extension; none when empty.
  std::function<std::optional<WbUserSecret>(std::string_view username)> wbSecretFor;
};

struct RegistrationOutcome {
  Report report;
  std::vector<Registration> registrations;  // one per verified assertion, when the report is ok
};

struct AuthenticationOutcome {
  Report report;
  std::vector<Registration> updated;  // the matched registrations with the new sign counter
};

// The fcParams challenge of a response, for finding the request it answers; absent when the
// response or its fcParams cannot be read.
std::optional<std::string> responseChallenge(std::string_view responseText);

// Appends the checks to `report`, which may already hold the caller's own (the challenge state).
void verifyRegistration(std::string_view requestText, std::string_view responseText,
                        const TrustSettings& trust, RegistrationOutcome& outcome);
void verifyAuthentication(std::string_view requestText, std::string_view responseText,
                          std::span<const Registration> known, const TrustSettings& trust,
                          AuthenticationOutcome& outcome);

// True when `next` is above `last` in the 16 bits a counter field is guaranteed to carry: the
// difference modulo 65,536 lies in 1..32,767. Authenticators may write only the low 16 bits of
// their counter, so a wrap from 65,535 to 0 still counts as rising.
bool signCounterRises(uint32_t last, uint32_t next);

}  // namespace corvane::rp
