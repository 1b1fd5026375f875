// The protocol version ("upv") of a UAF message header.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "corvane/error.h"
#include "json/json_model.h"
#include "json/json_number.h"

namespace corvane {

struct Version {
  // Both are required keys; a value that is not a JSON number (the string "1", say) is coerced
  // to absent so that the request's field report can name "upv ".
  std::optional<JsonNumber> major;
  std::optional<JsonNumber> minor;

  static constexpr std::string_view kModelName = "Version";
  static std::span<const jsonmodel::Property<Version>> properties();
  [[nodiscard]] static std::optional<Version> fromJson(const nlohmann::json& json,
                                                       Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const Version&) const = default;

  // The one version this client speaks: {1, 1}.
  static Version getClientSupportedVersion();
  // True only when major and minor are both present and both numerically equal to 1 (1 and 1.0
  // count; upv 1.0 does not pass).
  static bool checkVersion(const Version& version);
};

}  // namespace corvane
