// UAF registration messages: the request from the server, the response the client builds, and
// the registration assertion inside it.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/display_png_characteristics.h"
#include "client/messages/extension.h"
#include "client/messages/operation_header.h"
#include "client/messages/policy.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

struct RegistrationRequest {
  std::optional<OperationHeader> header;
  std::optional<std::string> challenge;  // required; a non-string is coerced to absent
  std::optional<std::string> username;   // required; a non-string is coerced to absent
  std::optional<Policy> policy;

  static constexpr std::string_view kModelName = "RegistrationRequest";
  // The header's op and the report label used when no message of this kind was chosen.
  static constexpr std::string_view kOperation = kOpReg;
  static constexpr std::string_view kMissingMessageLabel = "registrationRequest ";
  static std::span<const jsonmodel::Property<RegistrationRequest>> properties();
  [[nodiscard]] static std::optional<RegistrationRequest> fromJson(const nlohmann::json& json,
                                                                   Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const RegistrationRequest&) const = default;
};

struct AuthenticatorRegistrationAssertion {
  std::optional<std::string> assertionScheme;  // "UAFV1TLV"
  std::optional<std::string> assertion;        // base64url of the registration TLV
  std::optional<std::vector<Extension>> exts;
  std::optional<std::vector<DisplayPNGCharacteristicsDescriptor>> tcDisplayPNGCharacteristics;

  static constexpr std::string_view kModelName = "AuthenticatorRegistrationAssertion";
  static std::span<const jsonmodel::Property<AuthenticatorRegistrationAssertion>> properties();
  [[nodiscard]] static std::optional<AuthenticatorRegistrationAssertion> fromJson(
      const nlohmann::json& json, Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const AuthenticatorRegistrationAssertion&) const = default;
};

struct RegistrationResponse {
  std::optional<OperationHeader> header;  // the request's header
  std::optional<std::string> fcParams;    // base64url of the final challenge parameters
  std::optional<std::vector<AuthenticatorRegistrationAssertion>> assertions;

  static constexpr std::string_view kModelName = "RegistrationResponse";
  static std::span<const jsonmodel::Property<RegistrationResponse>> properties();
  [[nodiscard]] static std::optional<RegistrationResponse> fromJson(const nlohmann::json& json,
                                                                    Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const RegistrationResponse&) const = default;
};

}  // namespace corvane
