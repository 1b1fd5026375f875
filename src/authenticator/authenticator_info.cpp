#include "authenticator/authenticator_info.h"

namespace corvane {

using jsonmodel::Presence;
using jsonmodel::property;

// Only "aaid" is required in either record: it names the authenticator, and every consumer
// (policy matching, the AAID look-ups, discovery) keys on it. Everything else is optional because
// the records are filled in stages (the ASM adds uvs, uv and status to the basic record) and
// discovery copies whatever the information record holds. A value of the wrong JSON type is an
// error, not absent: these records are ours, so a mistyped field is a fault to report.

std::span<const jsonmodel::Property<AuthenticatorInfo>> AuthenticatorInfo::properties() {
  using I = AuthenticatorInfo;
  static constexpr jsonmodel::Property<I> kTable[] = {
      property<&I::authenticatorIndex>("authenticatorIndex", Presence::kOptional),
      property<&I::asmVersions>("asmVersions", Presence::kOptional),
      property<&I::isUserEnrolled>("isUserEnrolled", Presence::kOptional),
      property<&I::hasSettings>("hasSettings", Presence::kOptional),
      property<&I::aaid>("aaid", Presence::kRequired),
      property<&I::assertionScheme>("assertionScheme", Presence::kOptional),
      property<&I::authenticationAlgorithm>("authenticationAlgorithm", Presence::kOptional),
      property<&I::attestationTypes>("attestationTypes", Presence::kOptional),
      property<&I::userVerification>("userVerification", Presence::kOptional),
      property<&I::keyProtection>("keyProtection", Presence::kOptional),
      property<&I::matcherProtection>("matcherProtection", Presence::kOptional),
      property<&I::attachmentHint>("attachmentHint", Presence::kOptional),
      property<&I::isSecondFactorOnly>("isSecondFactorOnly", Presence::kOptional),
      property<&I::isRoamingAuthenticator>("isRoamingAuthenticator", Presence::kOptional),
      property<&I::supportedExtensionIDs>("supportedExtensionIDs", Presence::kOptional),
      property<&I::tcDisplay>("tcDisplay", Presence::kOptional),
      property<&I::tcDisplayContentType>("tcDisplayContentType", Presence::kOptional),
      property<&I::tcDisplayPNGCharacteristics>("tcDisplayPNGCharacteristics", Presence::kOptional),
      property<&I::title>("title", Presence::kOptional),
      property<&I::desc>("desc", Presence::kOptional),
      property<&I::icon>("icon", Presence::kOptional),
      property<&I::keyIDs>("keyIDs", Presence::kOptional),
      property<&I::uvs>("uvs", Presence::kOptional),
      property<&I::uv>("uv", Presence::kOptional),
      property<&I::status>("status", Presence::kOptional),
  };
  return kTable;
}

std::optional<AuthenticatorInfo> AuthenticatorInfo::fromJson(const nlohmann::json& json,
                                                             Error* error) {
  return jsonmodel::fromJson<AuthenticatorInfo>(json, error);
}
nlohmann::json AuthenticatorInfo::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string AuthenticatorInfo::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<Authenticator>> Authenticator::properties() {
  using A = Authenticator;
  static constexpr jsonmodel::Property<A> kTable[] = {
      property<&A::title>("title", Presence::kOptional),
      property<&A::aaid>("aaid", Presence::kRequired),
      property<&A::desc>("desc", Presence::kOptional).mappedTo("description"),
      property<&A::supportedUAFVersions>("supportedUAFVersions", Presence::kOptional),
      property<&A::assertionScheme>("assertionScheme", Presence::kOptional),
      property<&A::authenticationAlgorithm>("authenticationAlgorithm", Presence::kOptional),
      property<&A::attestationTypes>("attestationTypes", Presence::kOptional),
      property<&A::userVerification>("userVerification", Presence::kOptional),
      property<&A::keyProtection>("keyProtection", Presence::kOptional),
      property<&A::matcherProtection>("matcherProtection", Presence::kOptional),
      property<&A::attachmentHint>("attachmentHint", Presence::kOptional),
      property<&A::isSecondFactorOnly>("isSecondFactorOnly", Presence::kOptional),
      property<&A::tcDisplay>("tcDisplay", Presence::kOptional),
      property<&A::tcDisplayContentType>("tcDisplayContentType", Presence::kOptional),
      property<&A::tcDisplayPNGCharacteristics>("tcDisplayPNGCharacteristics", Presence::kOptional),
      property<&A::icon>("icon", Presence::kOptional),
      property<&A::supportedExtensionIDs>("supportedExtensionIDs", Presence::kOptional),
  };
  return kTable;
}

std::optional<Authenticator> Authenticator::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<Authenticator>(json, error);
}
nlohmann::json Authenticator::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string Authenticator::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
