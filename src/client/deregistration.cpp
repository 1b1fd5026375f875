// Deregistration: the server's request, the user's local removal, the removal of one key, and
// the keys a server pushes. Each sends ASM deregister requests synchronously and reports through
// its out error; none calls the host's delegate.
//
// What a server asks for never reaches beyond the application ID it names and that passed the
// facet check: the ASM request always carries that appID, and the ASM keeps to it (an empty appID
// would widen the request to every application's keys).
#include <utility>

#include "authenticator/generic_authenticator.h"
#include "client/corvane_impl.h"
#include "client/flow_support.h"
#include "client/messages/fc_params.h"
#include "client/messages/uaf_message_array.h"

namespace corvane {

namespace {

constexpr std::string_view kEmptyValuesText =
    "Empty string values for aaid or keyID must occur in the first and only "
    "DeregisterAuthenticator object.";
constexpr std::string_view kNoMatchedAaidText = "no matched authenticator for aaid:";
constexpr std::string_view kMissingAppIDText = "Missing Required Fields: appID";

AsmRequest deregisterRequest(DeregisterIn args) {
  AsmRequest request;
  request.requestType = static_cast<uint64_t>(AsmRequestType::kDeregister);
  request.args = std::move(args);
  return request;
}

// The error of an ASM deregister status: its translated code, no text.
Error statusError(uint64_t status) {
  return Error::corvane(AsmStatusCodeTranslater::translate(static_cast<int64_t>(status)));
}

Error incomplete() {
  return clientError(CorvaneStatusCode::UNKNOWN, "The platform is incomplete.");
}

}  // namespace

bool Corvane::Impl::runDeregister(const AsmRequest& request, Error* error) {
  const AsmResponse response = execute(request);
  if (response.statusCode == 0) return true;
  setError(error, statusError(response.statusCode));
  return false;
}

Result<std::optional<int64_t>> deregistrationIndexFor(const AuthenticatorInfo& builtIn,
                                                      std::optional<std::string_view> aaid) {
  if (!aaid) return std::optional<int64_t>();
  const int64_t index = builtIn.authenticatorIndex.value_or(0);
  if (index == 0) {
    return clientError(CorvaneStatusCode::NO_SUITABLE_AUTHENTICATOR,
                       std::string(kNoMatchedAaidText) + std::string(*aaid));
  }
  return std::optional<int64_t>(index);
}

Result<DeregisterAuthenticator> firstDeregisterEntry(
    const std::vector<DeregisterAuthenticator>& entries) {
  // The test is for absent values, which the field report refuses before; empty strings inside a
  // longer list pass.
  if (entries.empty() ||
      ((!entries.front().aaid || !entries.front().keyID) && entries.size() != 1)) {
    return clientError(CorvaneStatusCode::NO_SUITABLE_AUTHENTICATOR, kEmptyValuesText);
  }
  return entries.front();
}

bool Corvane::doDeregistrationReq(std::string_view req, Error* error) {
  if (!impl_) {
    setError(error, incomplete());
    return false;
  }
  Impl& impl = *impl_;
  const auto fail = [error](const Error& failure) {
    setError(error, failure);
    return false;
  };
  Error failure;
  std::optional<UafMessageChoice<DeregistrationRequest>> choice =
      chooseUafMessageFromText<DeregistrationRequest>(req, &failure);
  if (!choice) return fail(failure);
  if (!checkDeregistrationRequest(choice->message, &failure)) return fail(failure);
  const DeregistrationRequest& message = *choice->message;
  if (std::optional<Error> refusal = impl.facetRefusal(message.header)) return fail(*refusal);

  // Only the first entry is acted on.
  Result<DeregisterAuthenticator> first = firstDeregisterEntry(*message.authenticators);
  if (!first) return fail(first.error());
  // The application the request names: its appID, or the caller's own without one; never empty,
  // so that an empty key ID removes this application's keys and no other's.
  DeregisterIn args;
  args.appID = applicationIdFor(message.header->appID, impl.facetID());
  args.keyID = first->keyID;
  const AsmResponse response = impl.execute(deregisterRequest(std::move(args)));
  setError(error, response.statusCode == 0 ? Error::corvane(code(CorvaneStatusCode::NO_ERROR))
                                           : statusError(response.statusCode));
  return response.statusCode == 0;
}

bool Corvane::doDeregistrationUsername(std::string_view username, Error* error) {
  if (!impl_) {
    setError(error, incomplete());
    return false;
  }
  // An empty name would reach every user's keys.
  if (username.empty()) {
    RequiredFieldReport report;
    report.add(fieldlabel::kUsername);
    setError(error, report.error());
    return false;
  }
  return impl_->runDeregister(deregisterRequest(DeregisterIn{std::string(username), "", ""}),
                              error);
}

bool Corvane::doDeregistrationWithAaid(std::optional<std::string_view> aaid, std::string_view keyID,
                                       std::string_view appID, std::string_view username,
                                       Error* error) {
  if (!impl_) {
    setError(error, incomplete());
    return false;
  }
  Result<std::optional<int64_t>> index =
      deregistrationIndexFor(GenericAuthenticator::getBasicAuthenticatorInfo(), aaid);
  if (!index) {
    setError(error, index.error());
    return false;
  }
  AsmRequest request = deregisterRequest(
      DeregisterIn{std::string(username), std::string(appID), std::string(keyID)});
  if (*index) request.authenticatorIndex = **index;
  return impl_->runDeregister(request, error);
}

void Corvane::doDeregistration(std::string_view appID,
                               const std::vector<PushedAuthenticator>& authenticators,
                               Error* error) {
  if (!impl_) {
    setError(error, incomplete());
    return;
  }
  Impl& impl = *impl_;
  // Without an application ID there is nothing a server could be trusted for, and an empty one
  // would widen the removal to every application.
  if (appID.empty()) {
    setError(error, clientError(CorvaneStatusCode::MISS_REQUIRED_FIELD, kMissingAppIDText));
    return;
  }
  // Asked even for the caller's own facet ID.
  if (!impl.facetTrust.checkTrustedFacetID(appID)) {
    setError(error, clientError(CorvaneStatusCode::UNTRUSTED_FACET_ID,
                                "facetID:" + impl.facetID() + " is not trusted under " +
                                    std::string(appID)));
    return;
  }
  const AuthenticatorInfo builtIn = GenericAuthenticator::getBasicAuthenticatorInfo();
  const int64_t index = builtIn.authenticatorIndex.value_or(0);
  const std::string builtInAaid = builtIn.aaid.value_or(std::string());
  const auto request = [&](DeregisterIn args) {
    AsmRequest made = deregisterRequest(std::move(args));
    if (index != 0) made.authenticatorIndex = index;
    return made;
  };
  if (authenticators.empty()) {
    static_cast<void>(impl.runDeregister(request(DeregisterIn{"", std::string(appID), ""}), error));
    return;
  }
  for (const PushedAuthenticator& record : authenticators) {
    if (!record.aaid.empty() && record.aaid != builtInAaid) continue;
    // A failure stays in the slot (the last one wins) and the walk goes on.
    static_cast<void>(impl.runDeregister(
        request(DeregisterIn{record.username, std::string(appID), record.keyID}), error));
  }
}

}  // namespace corvane
