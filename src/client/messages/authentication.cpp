#include "client/messages/authentication.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<AuthenticationRequest>> AuthenticationRequest::properties() {
  using R = AuthenticationRequest;
  static constexpr jsonmodel::Property<R> kTable[] = {
      property<&R::header>("header", Presence::kRequired),
      property<&R::challenge>("challenge", Presence::kRequired, Mistyped::kCoerce),
      property<&R::policy>("policy", Presence::kRequired),
      property<&R::transaction>("transaction", Presence::kOptional),
  };
  return kTable;
}

std::optional<AuthenticationRequest> AuthenticationRequest::fromJson(const nlohmann::json& json,
                                                                     Error* error) {
  return jsonmodel::fromJson<AuthenticationRequest>(json, error);
}
nlohmann::json AuthenticationRequest::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string AuthenticationRequest::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<AuthenticatorSignAssertion>>
AuthenticatorSignAssertion::properties() {
  using A = AuthenticatorSignAssertion;
  static constexpr jsonmodel::Property<A> kTable[] = {
      property<&A::assertionScheme>("assertionScheme", Presence::kRequired),
      property<&A::assertion>("assertion", Presence::kRequired),
      property<&A::exts>("exts", Presence::kOptional),
  };
  return kTable;
}

std::optional<AuthenticatorSignAssertion> AuthenticatorSignAssertion::fromJson(
    const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<AuthenticatorSignAssertion>(json, error);
}
nlohmann::json AuthenticatorSignAssertion::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string AuthenticatorSignAssertion::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<AuthenticationResponse>> AuthenticationResponse::properties() {
  using R = AuthenticationResponse;
  static constexpr jsonmodel::Property<R> kTable[] = {
      property<&R::header>("header", Presence::kRequired),
      property<&R::fcParams>("fcParams", Presence::kRequired),
      property<&R::assertions>("assertions", Presence::kRequired),
  };
  return kTable;
}

std::optional<AuthenticationResponse> AuthenticationResponse::fromJson(const nlohmann::json& json,
                                                                       Error* error) {
  return jsonmodel::fromJson<AuthenticationResponse>(json, error);
}
nlohmann::json AuthenticationResponse::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string AuthenticationResponse::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
