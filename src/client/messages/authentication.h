// UAF authentication messages: the request from the server, the response the client builds, and
// the sign assertion inside it.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/extension.h"
#include "client/messages/operation_header.h"
#include "client/messages/policy.h"
#include "client/messages/transaction.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

struct AuthenticationRequest {
  std::optional<OperationHeader> header;
  std::optional<std::string> challenge;  // required; a non-string is coerced to absent
  std::optional<Policy> policy;
  std::optional<std::vector<Transaction>> transaction;

  static constexpr std::string_view kModelName = "AuthenticationRequest";
  static constexpr std::string_view kOperation = kOpAuth;
  static constexpr std::string_view kMissingMessageLabel = "authenticationRequest ";
  static std::span<const jsonmodel::Property<AuthenticationRequest>> properties();
  [[nodiscard]] static std::optional<AuthenticationRequest> fromJson(const nlohmann::json& json,
                                                                     Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const AuthenticationRequest&) const = default;
};

struct AuthenticatorSignAssertion {
  std::optional<std::string> assertionScheme;
  std::optional<std::string> assertion;  // base64url of the sign TLV
  std::optional<std::vector<Extension>> exts;

  static constexpr std::string_view kModelName = "AuthenticatorSignAssertion";
  static std::span<const jsonmodel::Property<AuthenticatorSignAssertion>> properties();
  [[nodiscard]] static std::optional<AuthenticatorSignAssertion> fromJson(
      const nlohmann::json& json, Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const AuthenticatorSignAssertion&) const = default;
};

struct AuthenticationResponse {
  std::optional<OperationHeader> header;
  std::optional<std::string> fcParams;
  std::optional<std::vector<AuthenticatorSignAssertion>> assertions;

  static constexpr std::string_view kModelName = "AuthenticationResponse";
  static std::span<const jsonmodel::Property<AuthenticationResponse>> properties();
  [[nodiscard]] static std::optional<AuthenticationResponse> fromJson(const nlohmann::json& json,
                                                                      Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const AuthenticationResponse&) const = default;
};

}  // namespace corvane
