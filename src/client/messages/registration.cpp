#include "client/messages/registration.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<RegistrationRequest>> RegistrationRequest::properties() {
  using R = RegistrationRequest;
  static constexpr jsonmodel::Property<R> kTable[] = {
      property<&R::header>("header", Presence::kRequired),
      property<&R::challenge>("challenge", Presence::kRequired, Mistyped::kCoerce),
      property<&R::username>("username", Presence::kRequired, Mistyped::kCoerce),
      property<&R::policy>("policy", Presence::kRequired),
  };
  return kTable;
}

std::optional<RegistrationRequest> RegistrationRequest::fromJson(const nlohmann::json& json,
                                                                 Error* error) {
  return jsonmodel::fromJson<RegistrationRequest>(json, error);
}
nlohmann::json RegistrationRequest::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string RegistrationRequest::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<AuthenticatorRegistrationAssertion>>
AuthenticatorRegistrationAssertion::properties() {
  using A = AuthenticatorRegistrationAssertion;
  static constexpr jsonmodel::Property<A> kTable[] = {
      property<&A::assertionScheme>("assertionScheme", Presence::kRequired),
      property<&A::assertion>("assertion", Presence::kRequired),
      property<&A::exts>("exts", Presence::kOptional),
      property<&A::tcDisplayPNGCharacteristics>("tcDisplayPNGCharacteristics", Presence::kOptional),
  };
  return kTable;
}

std::optional<AuthenticatorRegistrationAssertion> AuthenticatorRegistrationAssertion::fromJson(
    const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<AuthenticatorRegistrationAssertion>(json, error);
}
nlohmann::json AuthenticatorRegistrationAssertion::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string AuthenticatorRegistrationAssertion::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<RegistrationResponse>> RegistrationResponse::properties() {
  using R = RegistrationResponse;
  static constexpr jsonmodel::Property<R> kTable[] = {
      property<&R::header>("header", Presence::kRequired),
      property<&R::fcParams>("fcParams", Presence::kRequired),
      property<&R::assertions>("assertions", Presence::kRequired),
  };
  return kTable;
}

std::optional<RegistrationResponse> RegistrationResponse::fromJson(const nlohmann::json& json,
                                                                   Error* error) {
  return jsonmodel::fromJson<RegistrationResponse>(json, error);
}
nlohmann::json RegistrationResponse::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string RegistrationResponse::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
