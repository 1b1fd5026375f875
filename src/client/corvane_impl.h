// What one Corvane object owns besides its delegate: the platform's ports, the objects built over
// them (configuration, keychain, pattern store, record database, policy helper) and the one
// long-lived ASM, whose answers arrive after the user was verified. Members refer to one another,
// so the order of declaration is the order of construction and the object never moves.
//
// The Impl is the ASM's CorvaneDelegate; hosts cannot reach that side.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "asm/asm.h"
#include "asm/corvane_delegate.h"
#include "authenticator/authenticator_info.h"
#include "client/facet_trust.h"
#include "client/messages/authentication.h"
#include "client/messages/registration.h"
#include "client/messages/required_fields.h"
#include "configuration/configuration.h"
#include "corvane/corvane.h"
#include "corvane/platform_value.h"
#include "corvane/status_codes.h"
#include "crypto/attestation_material.h"
#include "foundation/result.h"
#include "policy/policy_helper.h"
#include "storage/core_data_manager.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"

namespace corvane {

struct Corvane::Impl final : CorvaneDelegate {
  // `platform` must be complete (Platform::missingPort answers absent).
  explicit Impl(Platform ports);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Whether the library has run over these stores before: the installation marker, or, for data
  // kept before the marker existed, the "Corvane.installed" flag (such data gets its marker now,
  // so that a settings file lost later cannot make it look fresh). An error when the item store
  // cannot be read.
  Result<bool> installedBefore();
  // Writes the marker and the two flags; false when the marker could not be written. A fresh
  // installation needs no first-initialisation step, so "Corvane.initiated" is set too. A flush
  // that fails keeps the flags pending in memory for the next one; the marker is what counts.
  bool markInstalled();

  std::string facetID() const { return facetTrust.facetID(); }
  // The ASM, made at first use, after the first-run steps (a wipe would take its token away).
  Asm& assistant();
  // Runs a request that answers by return value.
  AsmResponse execute(const AsmRequest& request);
  // Runs a deregister request; false with the translated status (and no text) in `error` when
  // the ASM failed.
  bool runDeregister(const AsmRequest& request, Error* error);

  // The candidate search: the authenticators the policy lists accept for `username`, each marked
  // enrolled (status 4, the key ID of its first registration and user verification) when the user
  // has a registration. The ASM is asked once per authenticator index, however many catalogue
  // entries share it, unless a request in between (a stale-key deregistration) may have changed
  // the records.
  // Absent with DISALLOW_POLICY when none matched and the policy said why. A registration whose
  // server does not list the user's key removes the user's registrations under `appID` (the
  // request's application ID) as stale, and only those.
  [[nodiscard]] std::optional<std::vector<AuthenticatorInfo>> candidates(
      const std::optional<nlohmann::json>& accepted,
      const std::optional<nlohmann::json>& disallowed, const std::string& username, bool isReg,
      std::string_view appID, Error* error);

  // The context the request checks run with.
  RequestCheckContext requestCheckContext(const ExtsData& extsData) const;
  // Absent when the caller may answer `header`'s appID; otherwise UNTRUSTED_FACET_ID with
  // "facetID:<facet ID> is not trusted under <appID>". No check is made when the header has no
  // appID or names the caller's own facet ID.
  std::optional<Error> facetRefusal(const std::optional<OperationHeader>& header);

  // Reports a result to the host, once; the operation is over.
  void completeRegistration(std::optional<std::string> response, const Error& error);
  void completeAuthentication(std::optional<std::string> response, const Error& error);

  // CorvaneDelegate.
  void asmRegisterResponse(const AsmResponse& response, const std::optional<Error>& error) override;
  void asmAuthenticateResponse(const AsmResponse& response,
                               const std::optional<Error>& error) override;

  Platform platform;
  Configuration configuration;
  // The caller's facet ID and the trusted-facets check of the registration, authentication and
  // deregistration flows.
  FacetTrust facetTrust;
  WhiteboxAttestationKeySource attestation;
  Keychain keychain;
  PatternManager patternManager;
  // The users' white-box tables, in the platform's record database folder.
  CoreDataManager records;
  PolicyHelper policy;
  std::unique_ptr<Asm> asm_;
  // How many requests that may change the ASM's records (all but getInfo and getRegistrations)
  // execute() has run: the candidate search reuses a registrations answer only while it stays.
  uint64_t changingRequests = 0;
  // Set by Corvane: where results go (may be null).
  AuthUIControllerDelegate* host = nullptr;

  // The operation whose answer is awaited; one at a time.
  enum class Pending { none, registration, authentication };
  Pending pending = Pending::none;
  std::optional<RegistrationResponse> tempRes;
  std::optional<AuthenticationResponse> tempAuthRes;
};

}  // namespace corvane
