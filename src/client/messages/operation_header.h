// The "header" object every UAF request and response carries, and the header type check that
// runs on each raw message before it is mapped.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/extension.h"
#include "client/messages/version.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

inline constexpr std::string_view kOpReg = "Reg";
inline constexpr std::string_view kOpAuth = "Auth";
inline constexpr std::string_view kOpDereg = "Dereg";

struct OperationHeader {
  std::optional<Version> upv;             // required; a non-object is coerced to absent
  std::optional<std::string> op;          // required; a non-string is coerced to absent
  std::optional<std::string> appID;       // optional; null or a non-string is absent
  std::optional<std::string> serverData;  // optional
  std::optional<std::vector<Extension>> exts;

  static constexpr std::string_view kModelName = "OperationHeader";
  static std::span<const jsonmodel::Property<OperationHeader>> properties();
  [[nodiscard]] static std::optional<OperationHeader> fromJson(const nlohmann::json& json,
                                                               Error* error = nullptr);
  // Sets every property the dictionary names; nothing is required and values that do not fit
  // are skipped.
  static OperationHeader fromDictionary(const nlohmann::json& dictionary);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const OperationHeader&) const = default;
};

// Header type check of a raw message object: true (malformed) when its header's "appID", or
// failing that its "serverData", is present and neither null nor a string. Anything else,
// including a message or header that is not an object, counts as well formed here.
bool validateProperties(const nlohmann::json& message);

}  // namespace corvane
