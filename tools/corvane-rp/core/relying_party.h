// RelyingParty: issues UAF requests and verifies the responses to them, over an RpStore. Each
// request is remembered under its challenge until it expires; the first response naming the
// challenge uses it up, whether it verifies or not, so a replayed response is refused.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane-rp/core/rp_store.h"
#include "corvane-rp/core/verifier.h"
#include "foundation/result.h"

namespace corvane::rp {

// The AAID the registration policy accepts.
inline constexpr std::string_view kAcceptedAaid = "0F3D#0002";

struct RelyingPartyConfig {
  std::string appID;
  TrustSettings trust;
  int64_t challengeLifetimeSeconds = 300;
  // Seconds since the epoch; the system clock when empty.
  std::function<int64_t()> clock;
};

struct AuthenticationOptions {
  std::optional<std::string> username;          // restricts the policy to this user's keys
  std::optional<std::string> transactionText;   // shown to the user as a text/plain transaction
  std::optional<std::string> wbEncryptionData;  // sent in a "wb_encryption" header extension
};

class RelyingParty {
 public:
  // `store` must outlive the relying party.
  RelyingParty(RpStore& store, RelyingPartyConfig config);

  [[nodiscard]] Result<std::string> registrationRequest(std::string_view username);
  [[nodiscard]] Result<std::string> authenticationRequest(const AuthenticationOptions& options);
  // A deregistration request for one key; the key is forgotten at once.
  [[nodiscard]] Result<std::string> deregistrationRequest(std::string_view aaid,
                                                          std::string_view keyID);

  // challenge.known, challenge.unexpired, challenge.unused, then the verifier's checks; on
  // success the registrations are stored, and the challenge is used up either way.
  RegistrationOutcome receiveRegistration(std::string_view responseText);
  AuthenticationOutcome receiveAuthentication(std::string_view responseText);

  // The user's white-box secret, made (a random AES-256 key and random external encoding) and
  // stored on first use.
  [[nodiscard]] Result<WbUserSecret> userSecret(std::string_view username);

  const RelyingPartyConfig& config() const { return config_; }

 private:
  int64_t now() const;
  // Remembers the request under its challenge and returns its text.
  [[nodiscard]] Result<std::string> remember(const std::string& challenge, std::string text);
  // The pending request a response answers, with the three challenge checks recorded.
  std::optional<std::string> claim(std::string_view responseText, Report& report,
                                   std::string& challenge);

  RpStore& store_;
  RelyingPartyConfig config_;
};

}  // namespace corvane::rp
