#include "corvane-rp/core/relying_party.h"

#include <openssl/crypto.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "client/messages/extension.h"
#include "json/json_text.h"

namespace corvane::rp {
namespace {

using nlohmann::json;

constexpr uint32_t kChallengeBytes = 32;

json header(std::string_view op, std::string_view appID) {
  return {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"appID", appID}};
}

// Accepted: the Corvane AAID, or only the given keys of it when authenticating a known user.
json policy(const std::vector<std::string>& keyIDs) {
  json criteria = {{"aaid", {kAcceptedAaid}}};
  if (!keyIDs.empty()) criteria["keyIDs"] = keyIDs;
  return {{"accepted", json::array({json::array({criteria})})}};
}

Result<std::string> newChallenge() {
  std::optional<Bytes> random = Utils::randomBytesWithLength(kChallengeBytes);
  if (!random) return Error::corvane(1, "no random bytes for a challenge");
  return Utils::base64URLSafeStringFromData(*random);
}

// 16 random byte permutations (Fisher-Yates over rejection-sampled random bytes).
std::optional<Bytes> randomExternalEncoding() {
  Bytes encoding(16 * 256);
  for (size_t k = 0; k < 16; ++k) {
    uint8_t* permutation = encoding.data() + 256 * k;
    for (size_t v = 0; v < 256; ++v) permutation[v] = static_cast<uint8_t>(v);
    for (size_t i = 255; i > 0; --i) {
      size_t j = 256;
      while (j > i) {
        std::optional<Bytes> random = Utils::randomBytesWithLength(1);
        if (!random) return std::nullopt;
        // Keep the largest multiple of i + 1 below 256 to stay uniform.
        const size_t limit = 256 - 256 % (i + 1);
        if ((*random)[0] < limit) j = (*random)[0] % (i + 1);
      }
      std::swap(permutation[i], permutation[j]);
    }
  }
  return encoding;
}

}  // namespace

RelyingParty::RelyingParty(RpStore& store, RelyingPartyConfig config)
    : store_(store), config_(std::move(config)) {
  if (!config_.trust.wbSecretFor) {
    config_.trust.wbSecretFor = [this](std::string_view username) -> std::optional<WbUserSecret> {
      Result<std::optional<WbUserSecret>> secret = store_.userSecret(username);
      return secret ? *secret : std::nullopt;
    };
  }
}

Result<WbUserSecret> RelyingParty::userSecret(std::string_view username) {
  Result<std::optional<WbUserSecret>> stored = store_.userSecret(username);
  if (!stored) return stored.error();
  if (*stored) return std::move(**stored);
  std::optional<Bytes> key = Utils::randomBytesWithLength(32);
  std::optional<Bytes> encoding = randomExternalEncoding();
  if (!key || !encoding) return Error::corvane(1, "no random bytes for a user secret");
  WbUserSecret secret{SecretBytes(*key), std::move(*encoding)};
  OPENSSL_cleanse(key->data(), key->size());
  Result<void> saved = store_.saveUserSecret(username, secret);
  if (!saved) return saved.error();
  return secret;
}

int64_t RelyingParty::now() const {
  if (config_.clock) return config_.clock();
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Result<std::string> RelyingParty::remember(const std::string& challenge, std::string text) {
  Result<void> stored =
      store_.addPending(challenge, text, now() + config_.challengeLifetimeSeconds);
  if (!stored) return stored.error();
  return text;
}

Result<std::string> RelyingParty::registrationRequest(std::string_view username) {
  Result<std::string> challenge = newChallenge();
  if (!challenge) return challenge;
  const json message = {{"header", header("Reg", config_.appID)},
                        {"challenge", *challenge},
                        {"username", username},
                        {"policy", policy({})}};
  return remember(*challenge, jsonmodel::dumpJson(json::array({message})));
}

Result<std::string> RelyingParty::authenticationRequest(const AuthenticationOptions& options) {
  Result<std::string> challenge = newChallenge();
  if (!challenge) return challenge;
  std::vector<std::string> keyIDs;
  if (options.username) {
    Result<std::vector<Registration>> known = store_.registrations();
    if (!known) return known.error();
    for (const Registration& r : *known) {
      if (r.username == *options.username) keyIDs.push_back(r.keyID);
    }
    if (keyIDs.empty()) return Error::corvane(1, "the user has no registered key");
  }
  json head = header("Auth", config_.appID);
  if (options.wbEncryptionData) {
    head["exts"] = json::array({{{"id", kExtensionWbEncryption},
                                 {"data", *options.wbEncryptionData},
                                 {"fail_if_unknown", false}}});
  }
  json message = {{"header", head}, {"challenge", *challenge}, {"policy", policy(keyIDs)}};
  if (options.transactionText) {
    message["transaction"] = json::array(
        {{{"contentType", "text/plain"},
          {"content", Utils::base64URLSafeStringFromData(asBytes(*options.transactionText))}}});
  }
  return remember(*challenge, jsonmodel::dumpJson(json::array({message})));
}

Result<std::string> RelyingParty::deregistrationRequest(std::string_view aaid,
                                                        std::string_view keyID) {
  Result<void> deleted = store_.deleteRegistration(aaid, keyID);
  if (!deleted) return deleted.error();
  const json message = {{"header", header("Dereg", config_.appID)},
                        {"authenticators", json::array({{{"aaid", aaid}, {"keyID", keyID}}})}};
  return jsonmodel::dumpJson(json::array({message}));
}

std::optional<std::string> RelyingParty::claim(std::string_view responseText, Report& report,
                                               std::string& challenge) {
  const std::optional<std::string> named = responseChallenge(responseText);
  Result<std::optional<PendingRequest>> pending =
      named ? store_.findPending(*named) : Result<std::optional<PendingRequest>>(std::nullopt);
  if (!pending) {
    report.fail("challenge.known", pending.error().localizedDescription());
    return std::nullopt;
  }
  if (!report.check("challenge.known", pending->has_value(),
                    named ? "no request was issued with this challenge"
                          : "the response names no challenge")) {
    return std::nullopt;
  }
  challenge = *named;
  const PendingRequest& request = **pending;
  const bool fresh = now() < request.expiresAt;
  report.check("challenge.unexpired", fresh, "the request expired");
  report.check("challenge.unused", !request.used, "a response already used this challenge");
  if (!fresh || request.used) {
    return std::nullopt;
  }
  return request.requestText;
}

RegistrationOutcome RelyingParty::receiveRegistration(std::string_view responseText) {
  RegistrationOutcome outcome;
  std::string challenge;
  const std::optional<std::string> request = claim(responseText, outcome.report, challenge);
  if (!request) return outcome;
  verifyRegistration(*request, responseText, config_.trust, outcome);
  if (!outcome.report.ok()) outcome.registrations.clear();
  Result<void> settled = store_.settle(challenge, outcome.registrations);
  if (!settled) {
    outcome.report.fail("state.store", settled.error().localizedDescription());
    outcome.registrations.clear();
  }
  return outcome;
}

AuthenticationOutcome RelyingParty::receiveAuthentication(std::string_view responseText) {
  AuthenticationOutcome outcome;
  std::string challenge;
  const std::optional<std::string> request = claim(responseText, outcome.report, challenge);
  if (!request) return outcome;
  Result<std::vector<Registration>> known = store_.registrations();
  if (!known) {
    outcome.report.fail("state.store", known.error().localizedDescription());
    return outcome;
  }
  verifyAuthentication(*request, responseText, *known, config_.trust, outcome);
  if (!outcome.report.ok()) outcome.updated.clear();
  Result<void> settled = store_.settle(challenge, outcome.updated);
  if (!settled) {
    outcome.report.fail("state.store", settled.error().localizedDescription());
    outcome.updated.clear();
  }
  return outcome;
}

}  // namespace corvane::rp
