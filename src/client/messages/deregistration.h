// UAF deregistration request: the header and the authenticators (and keys) to forget.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/operation_header.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

struct DeregisterAuthenticator {
  std::optional<std::string> aaid;   // required; a non-string is coerced to absent
  std::optional<std::string> keyID;  // required; a non-string is coerced to absent

  static constexpr std::string_view kModelName = "DeregisterAuthenticator";
  static std::span<const jsonmodel::Property<DeregisterAuthenticator>> properties();
  [[nodiscard]] static std::optional<DeregisterAuthenticator> fromJson(const nlohmann::json& json,
                                                                       Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const DeregisterAuthenticator&) const = default;

  // Valid when both are present and: aaid in AAID form with a base64url keyID (one key); aaid in
  // AAID form with an empty keyID (every key of that authenticator); or both empty (everything).
  static bool checkDeregisterAuthenticator(const DeregisterAuthenticator& authenticator);
};

struct DeregistrationRequest {
  std::optional<OperationHeader> header;
  std::optional<std::vector<DeregisterAuthenticator>> authenticators;

  static constexpr std::string_view kModelName = "DeregistrationRequest";
  static constexpr std::string_view kOperation = kOpDereg;
  static constexpr std::string_view kMissingMessageLabel = "DeregistrationRequest ";
  // Deregistration reports every unreadable request, parse and mapping failures alike, with this
  // one text instead of the parser's or the mapper's.
  static constexpr std::string_view kUnreadableRequestText = "Json Serialization error.";
  static std::span<const jsonmodel::Property<DeregistrationRequest>> properties();
  [[nodiscard]] static std::optional<DeregistrationRequest> fromJson(const nlohmann::json& json,
                                                                     Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const DeregistrationRequest&) const = default;
};

}  // namespace corvane
