#include "client/messages/policy.h"

namespace corvane {

using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<Policy>> Policy::properties() {
  static constexpr jsonmodel::Property<Policy> kTable[] = {
      property<&Policy::accepted>("accepted", Presence::kRequired),
      property<&Policy::disallowed>("disallowed", Presence::kOptional),
  };
  return kTable;
}

std::optional<Policy> Policy::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<Policy>(json, error);
}
nlohmann::json Policy::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string Policy::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<MatchCriteria>> MatchCriteria::properties() {
  using M = MatchCriteria;
  static constexpr jsonmodel::Property<MatchCriteria> kTable[] = {
      property<&M::aaid>("aaid", Presence::kOptional),
      property<&M::vendorID>("vendorID", Presence::kOptional),
      property<&M::keyIDs>("keyIDs", Presence::kOptional),
      property<&M::userVerification>("userVerification", Presence::kOptional),
      property<&M::keyProtection>("keyProtection", Presence::kOptional),
      property<&M::matcherProtection>("matcherProtection", Presence::kOptional),
      property<&M::attachmentHint>("attachmentHint", Presence::kOptional),
      property<&M::tcDisplay>("tcDisplay", Presence::kOptional),
      property<&M::authenticationAlgorithms>("authenticationAlgorithms", Presence::kOptional),
      property<&M::assertionSchemes>("assertionSchemes", Presence::kOptional),
      property<&M::attestationTypes>("attestationTypes", Presence::kOptional),
      property<&M::authenticatorVersion>("authenticatorVersion", Presence::kOptional),
      property<&M::exts>("exts", Presence::kOptional),
  };
  return kTable;
}

std::optional<MatchCriteria> MatchCriteria::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<MatchCriteria>(json, error);
}
nlohmann::json MatchCriteria::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string MatchCriteria::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
