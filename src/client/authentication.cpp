// Authentication: the request checked, the user's registered authenticator chosen by the policy,
// the facet decision, the ASM asked; the response built when the ASM answers.
#include <utility>

#include "client/corvane_impl.h"
#include "client/flow_support.h"
#include "client/messages/fc_params.h"
#include "client/messages/uaf_message_array.h"
#include "client/wb_bundle.h"
#include "crypto/aes_wb_helper.h"

namespace corvane {

namespace {

Error tablesUnusable(std::string_view text) {
  return clientError(CorvaneStatusCode::PRECONDITION_FAILED, text);
}

// The "wb_encryption" data as it goes to the authenticator: `plain` (the request's extension data,
// UTF-8) enciphered with the user's stored tables, IV generateIV(challenge), as base64url without
// padding. Absent with the error when the user has no usable tables.
std::optional<std::string> encipherWithUserTables(CoreDataManager& records,
                                                  const std::string& username,
                                                  std::string_view plain,
                                                  std::string_view challenge, Error* error) {
  Result<std::optional<WBTable>> record = records.fetchFirstRecordFromTable(
      kWBTableEntityName, RecordPredicate::usernameEquals(username));
  if (!record) {
    setError(error, record.error());
    return std::nullopt;
  }
  if (!*record || !(*record)->wbTable || !(*record)->permutations) {
    setError(error, tablesUnusable(kNoWBTableText));
    return std::nullopt;
  }
  std::optional<nlohmann::json> data1 =
      decodeBundleField((*record)->wbTable->exposeSecretText(), nullptr, nullptr);
  if (!data1 || !missingTableArrays(*data1).empty()) {
    setError(error, tablesUnusable(kInvalidWBTableText));
    return std::nullopt;
  }
  std::optional<nlohmann::json> data2 =
      decodeBundleField((*record)->permutations->exposeSecretText(), nullptr, nullptr);
  if (!data2 || !hasPermutations(*data2)) {
    setError(error, tablesUnusable(kInvalidPermutationsText));
    return std::nullopt;
  }
  UserTablesFault fault{};
  std::optional<whitebox::WhiteboxUserTables> tables = userTablesFrom(*data1, *data2, &fault);
  if (!tables) {
    setError(error, tablesUnusable(fault == UserTablesFault::tables ? kInvalidWBTableText
                                                                    : kInvalidPermutationsText));
    return std::nullopt;
  }
  std::optional<Bytes> cipher =
      AesWBHelper::encryptAesWB(asBytes(plain), AesWBHelper::generateIV(challenge), *tables);
  if (!cipher) {
    setError(error, tablesUnusable(kInvalidWBTableText));
    return std::nullopt;
  }
  return Utils::base64URLSafeStringFromData(*cipher);
}

}  // namespace

void Corvane::doAuthentication(const DoAuthReq& input) {
  if (!impl_) {
    if (authUIControllerDelegate_) {
      authUIControllerDelegate_->onAuthenticationComplete(
          std::nullopt, clientError(CorvaneStatusCode::UNKNOWN, "The platform is incomplete."));
    }
    return;
  }
  Impl& impl = *impl_;
  if (impl.pending != Impl::Pending::none) {
    // The pending request keeps its own answer; this one is refused at once.
    if (impl.host != nullptr) {
      impl.host->onAuthenticationComplete(
          std::nullopt,
          clientError(CorvaneStatusCode::INSUFFICIENT_AUTHENTICATOR_RESOURCES, kBusyText));
    }
    return;
  }
  impl.pending = Impl::Pending::authentication;
  const auto fail = [&impl](const Error& error) {
    impl.completeAuthentication(std::nullopt, error);
  };

  Error error;
  std::optional<UafMessageChoice<AuthenticationRequest>> choice =
      chooseUafMessageFromText<AuthenticationRequest>(input.req, &error);
  if (!choice) return fail(error);
  std::optional<std::vector<Extension>> exts =
      checkAuthenticationRequest(choice->message, impl.requestCheckContext(input.extsData), &error);
  if (!exts) return fail(error);
  const AuthenticationRequest& message = *choice->message;
  const std::optional<Policy>& policy = message.policy;

  const std::string facetID = impl.facetID();
  const std::optional<std::string>& headerAppID = message.header->appID;
  std::optional<std::vector<AuthenticatorInfo>> candidates = impl.candidates(
      policy ? policy->accepted : std::nullopt, policy ? policy->disallowed : std::nullopt,
      input.username, false, applicationIdFor(headerAppID, facetID), &error);
  if (!candidates) return fail(error);
  if (candidates->empty()) {
    return fail(clientError(CorvaneStatusCode::DISALLOW_POLICY, kPolicyNotMetText));
  }
  if (std::optional<Error> refusal = impl.facetRefusal(message.header)) return fail(*refusal);

  const std::string fcParams =
      buildFcParams(headerAppID, message.challenge.value_or(std::string()), facetID);
  const AuthenticatorInfo& chosen = candidates->front();

  // The candidate search gave the chosen authenticator the key ID of the user's first
  // registration there; the ASM reads that registration again when it authenticates.
  if (!chosen.keyIDs || chosen.keyIDs->empty()) {
    return fail(Error::corvane(code(CorvaneStatusCode::USER_NOT_ENROLLED)));
  }

  // The white-box extension carries the request's data enciphered with the user's tables, so the
  // assertion signs proof that this device holds them.
  for (Extension& extension : *exts) {
    if (extension.extID != kExtensionWbEncryption) continue;
    std::optional<std::string> enciphered =
        encipherWithUserTables(impl.records, input.username, extension.data.value_or(""),
                               message.challenge.value_or(std::string()), &error);
    if (!enciphered) return fail(error);
    extension.data = std::move(*enciphered);
  }

  AsmRequest request;
  request.requestType = static_cast<uint64_t>(AsmRequestType::kAuthenticate);
  request.authenticatorIndex = chosen.authenticatorIndex.value_or(0);
  request.asmVersion = message.header->upv;
  request.exts = std::move(*exts);
  request.args = AuthenticateIn{
      applicationIdFor(headerAppID, facetID),
      std::vector<std::string>{chosen.keyIDs->front()},
      input.username,
      fcParams,
      message.transaction,
      input.displayName.empty() ? std::nullopt : std::optional<std::string>(input.displayName)};

  impl.tempAuthRes = AuthenticationResponse{message.header, fcParams, std::nullopt};
  static_cast<void>(impl.platform.userDefaults->synchronize(nullptr));
  impl.platform.scheduler->waitForBackgroundWork();
  impl.assistant().executeWithAsmRequest(request);
}

void Corvane::Impl::asmAuthenticateResponse(const AsmResponse& response,
                                            const std::optional<Error>& error) {
  if (pending != Pending::authentication) return;
  if (response.statusCode != 0 || !tempAuthRes) {
    tempAuthRes.reset();
    completeAuthentication(std::nullopt, hostError(response.statusCode, error));
    return;
  }
  const AuthenticateOut* out = std::get_if<AuthenticateOut>(&response.responseData);
  AuthenticatorSignAssertion assertion;
  if (out != nullptr) {
    assertion.assertion = out->assertion;
    assertion.assertionScheme = out->assertionScheme;
  }
  assertion.exts = response.exts;
  tempAuthRes->assertions = std::vector<AuthenticatorSignAssertion>{std::move(assertion)};
  completeAuthentication("[" + tempAuthRes->toJsonString() + "]", successError(error));
}

}  // namespace corvane
