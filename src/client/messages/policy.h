// The server's policy and its match criteria. The policy keeps its lists as raw JSON: the policy
// matcher interprets them, and the request check reports elements that are not well formed.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/extension.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

struct Policy {
  // Required. A list (disjunction) of lists (conjunctions) of match-criteria objects.
  std::optional<nlohmann::json> accepted;
  // Optional. A list of match-criteria objects.
  std::optional<nlohmann::json> disallowed;

  static constexpr std::string_view kModelName = "Policy";
  static std::span<const jsonmodel::Property<Policy>> properties();
  [[nodiscard]] static std::optional<Policy> fromJson(const nlohmann::json& json,
                                                      Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const Policy&) const = default;
};

struct MatchCriteria {
  std::optional<std::vector<std::string>> aaid;
  std::optional<std::vector<std::string>> vendorID;
  std::optional<std::vector<std::string>> keyIDs;
  std::optional<uint64_t> userVerification;
  std::optional<uint16_t> keyProtection;
  std::optional<uint16_t> matcherProtection;
  std::optional<uint64_t> attachmentHint;
  std::optional<uint16_t> tcDisplay;
  std::optional<std::vector<nlohmann::json>> authenticationAlgorithms;
  std::optional<std::vector<std::string>> assertionSchemes;
  std::optional<std::vector<nlohmann::json>> attestationTypes;
  std::optional<uint16_t> authenticatorVersion;
  std::optional<std::vector<Extension>> exts;

  static constexpr std::string_view kModelName = "MatchCriteria";
  static std::span<const jsonmodel::Property<MatchCriteria>> properties();
  [[nodiscard]] static std::optional<MatchCriteria> fromJson(const nlohmann::json& json,
                                                             Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const MatchCriteria&) const = default;
};

}  // namespace corvane
