// AuthenticatorInfo: the ASM's description of one authenticator (what getInfo reports and what the
// policy is matched against), and Authenticator: the UAF metadata record the client publishes in
// discovery. Both are JSON-mapped models.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/display_png_characteristics.h"
#include "client/messages/version.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

// JSON keys equal the field names.
struct AuthenticatorInfo {
  std::optional<uint16_t> authenticatorIndex;
  std::optional<std::vector<Version>> asmVersions;
  std::optional<bool> isUserEnrolled;
  std::optional<bool> hasSettings;
  std::optional<std::string> aaid;
  std::optional<std::string> assertionScheme;
  std::optional<uint16_t> authenticationAlgorithm;
  std::optional<std::vector<uint64_t>> attestationTypes;
  std::optional<uint64_t> userVerification;
  std::optional<uint16_t> keyProtection;
  std::optional<uint16_t> matcherProtection;
  std::optional<uint64_t> attachmentHint;
  std::optional<bool> isSecondFactorOnly;
  std::optional<bool> isRoamingAuthenticator;
  std::optional<std::vector<std::string>> supportedExtensionIDs;
  std::optional<uint16_t> tcDisplay;
  std::optional<std::string> tcDisplayContentType;
  std::optional<std::vector<DisplayPNGCharacteristicsDescriptor>> tcDisplayPNGCharacteristics;
  std::optional<std::string> title;
  std::optional<std::string> desc;
  std::optional<std::string> icon;
  std::optional<std::vector<std::string>> keyIDs;
  std::optional<std::vector<std::string>> uvs;  // names of the offered user verifications
  std::optional<std::string> uv;                // this entry's user-verification name
  std::optional<uint64_t> status;               // the authenticator's deviceSupportCheck result

  static constexpr std::string_view kModelName = "AuthenticatorInfo";
  static std::span<const jsonmodel::Property<AuthenticatorInfo>> properties();
  [[nodiscard]] static std::optional<AuthenticatorInfo> fromJson(const nlohmann::json& json,
                                                                 Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const AuthenticatorInfo&) const = default;
};

// The UAF authenticator metadata record. `desc` maps to the JSON key "description"; every other
// field uses its own name.
struct Authenticator {
  std::optional<std::string> title;
  std::optional<std::string> aaid;
  std::optional<std::string> desc;
  std::optional<std::vector<Version>> supportedUAFVersions;
  std::optional<std::string> assertionScheme;
  std::optional<uint16_t> authenticationAlgorithm;
  std::optional<std::vector<uint64_t>> attestationTypes;
  std::optional<uint64_t> userVerification;
  std::optional<uint16_t> keyProtection;
  std::optional<uint16_t> matcherProtection;
  std::optional<uint64_t> attachmentHint;
  std::optional<bool> isSecondFactorOnly;
  std::optional<uint16_t> tcDisplay;
  std::optional<std::string> tcDisplayContentType;
  std::optional<std::vector<DisplayPNGCharacteristicsDescriptor>> tcDisplayPNGCharacteristics;
  std::optional<std::string> icon;
  std::optional<std::vector<std::string>> supportedExtensionIDs;

  static constexpr std::string_view kModelName = "Authenticator";
  static std::span<const jsonmodel::Property<Authenticator>> properties();
  [[nodiscard]] static std::optional<Authenticator> fromJson(const nlohmann::json& json,
                                                             Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const Authenticator&) const = default;
};

}  // namespace corvane
