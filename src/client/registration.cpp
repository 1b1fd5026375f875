// Registration: the request checked, an authenticator chosen by the policy, the facet decision,
// the ASM asked; the response built when the ASM answers.
#include <utility>

#include "authenticator/generic_authenticator.h"
#include "client/corvane_impl.h"
#include "client/flow_support.h"
#include "client/messages/fc_params.h"
#include "client/messages/uaf_message_array.h"

namespace corvane {

namespace {
constexpr uint64_t kEnrolled =
    static_cast<uint64_t>(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED);
constexpr std::string_view kEnrolledText = "user already enrolled this aaid.";
}  // namespace

void Corvane::doRegistration(const DoRegReq& input) {
  if (!impl_) {
    if (authUIControllerDelegate_) {
      authUIControllerDelegate_->onRegistrationComplete(
          std::nullopt, clientError(CorvaneStatusCode::UNKNOWN, "The platform is incomplete."));
    }
    return;
  }
  Impl& impl = *impl_;
  if (impl.pending != Impl::Pending::none) {
    // The pending request keeps its own answer; this one is refused at once.
    if (impl.host != nullptr) {
      impl.host->onRegistrationComplete(
          std::nullopt,
          clientError(CorvaneStatusCode::INSUFFICIENT_AUTHENTICATOR_RESOURCES, kBusyText));
    }
    return;
  }
  impl.pending = Impl::Pending::registration;
  const auto fail = [&impl](const Error& error) { impl.completeRegistration(std::nullopt, error); };

  Error error;
  std::optional<UafMessageChoice<RegistrationRequest>> choice =
      chooseUafMessageFromText<RegistrationRequest>(input.req, &error);
  if (!choice) return fail(error);
  const std::optional<std::string_view> userVerification =
      input.userVerification.empty() ? std::nullopt
                                     : std::optional<std::string_view>(input.userVerification);
  std::optional<std::vector<Extension>> exts = checkRegistrationRequest(
      choice->message, userVerification, impl.requestCheckContext(input.extsData), &error);
  if (!exts) return fail(error);
  const RegistrationRequest& message = *choice->message;
  const std::optional<Policy>& policy = message.policy;

  const std::string facetID = impl.facetID();
  const std::optional<std::string>& headerAppID = message.header->appID;
  const std::string appID = applicationIdFor(headerAppID, facetID);
  std::optional<std::vector<AuthenticatorInfo>> candidates = impl.candidates(
      policy ? policy->accepted : std::nullopt, policy ? policy->disallowed : std::nullopt,
      message.username.value_or(std::string()), true, appID, &error);
  if (!candidates) return fail(error);
  if (candidates->empty())
    return fail(clientError(CorvaneStatusCode::DISALLOW_POLICY, kPolicyNotMetText));
  const AuthenticatorInfo& chosen = candidates->front();
  if (chosen.status == kEnrolled) {
    return fail(clientError(CorvaneStatusCode::USER_HAS_ENROLLED, kEnrolledText));
  }
  if (std::optional<Error> refusal = impl.facetRefusal(message.header)) return fail(*refusal);

  const std::string fcParams =
      buildFcParams(headerAppID, message.challenge.value_or(std::string()), facetID);
  AsmRequest request;
  request.requestType = static_cast<uint64_t>(AsmRequestType::kRegistration);
  request.authenticatorIndex = chosen.authenticatorIndex.value_or(0);
  request.userVerification =
      GenericAuthenticator::getUserVerificationWithString(input.userVerification);
  request.asmVersion = message.header->upv;
  request.exts = std::move(*exts);
  request.args = RegisterIn{
      appID, message.username, fcParams,
      input.displayName.empty() ? std::nullopt : std::optional<std::string>(input.displayName)};

  impl.tempRes = RegistrationResponse{message.header, fcParams, std::nullopt};
  impl.platform.scheduler->waitForBackgroundWork();
  impl.assistant().executeWithAsmRequest(request);
}

void Corvane::Impl::asmRegisterResponse(const AsmResponse& response,
                                        const std::optional<Error>& error) {
  if (pending != Pending::registration) return;
  if (response.statusCode != 0 || !tempRes) {
    tempRes.reset();
    completeRegistration(std::nullopt, hostError(response.statusCode, error));
    return;
  }
  const RegisterOut* out = std::get_if<RegisterOut>(&response.responseData);
  AuthenticatorRegistrationAssertion assertion;
  if (out != nullptr) {
    assertion.assertion = out->assertion;
    assertion.assertionScheme = out->assertionScheme;
  }
  assertion.exts = response.exts;
  tempRes->assertions = std::vector<AuthenticatorRegistrationAssertion>{std::move(assertion)};
  completeRegistration("[" + tempRes->toJsonString() + "]", successError(error));
}

}  // namespace corvane
