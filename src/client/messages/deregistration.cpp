#include "client/messages/deregistration.h"

#include "foundation/utils.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<DeregisterAuthenticator>>
DeregisterAuthenticator::properties() {
  using D = DeregisterAuthenticator;
  static constexpr jsonmodel::Property<D> kTable[] = {
      property<&D::aaid>("aaid", Presence::kRequired, Mistyped::kCoerce),
      property<&D::keyID>("keyID", Presence::kRequired, Mistyped::kCoerce),
  };
  return kTable;
}

std::optional<DeregisterAuthenticator> DeregisterAuthenticator::fromJson(const nlohmann::json& json,
                                                                         Error* error) {
  return jsonmodel::fromJson<DeregisterAuthenticator>(json, error);
}
nlohmann::json DeregisterAuthenticator::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string DeregisterAuthenticator::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

bool DeregisterAuthenticator::checkDeregisterAuthenticator(
    const DeregisterAuthenticator& authenticator) {
  if (!authenticator.aaid || !authenticator.keyID) return false;
  const std::string& aaid = *authenticator.aaid;
  const std::string& keyID = *authenticator.keyID;
  if (aaid.empty()) return keyID.empty();
  if (!Utils::checkAaidFormat(aaid)) return false;
  return keyID.empty() || Utils::isBase64urlString(keyID);
}

std::span<const jsonmodel::Property<DeregistrationRequest>> DeregistrationRequest::properties() {
  using R = DeregistrationRequest;
  static constexpr jsonmodel::Property<R> kTable[] = {
      property<&R::header>("header", Presence::kRequired),
      property<&R::authenticators>("authenticators", Presence::kRequired),
  };
  return kTable;
}

std::optional<DeregistrationRequest> DeregistrationRequest::fromJson(const nlohmann::json& json,
                                                                     Error* error) {
  return jsonmodel::fromJson<DeregistrationRequest>(json, error);
}
nlohmann::json DeregistrationRequest::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string DeregistrationRequest::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
