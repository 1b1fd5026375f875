// A UAF extension: an id, its data and whether an authenticator that does not know it must fail.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

// Extension data supplied by the host application, by extension id.
using ExtsData = std::map<std::string, std::string, std::less<>>;

struct Extension {
  std::optional<std::string> extID;   // JSON "id"; a non-string is coerced to absent
  std::optional<std::string> data;    // JSON "data"; a non-string is coerced to absent
  std::optional<bool> failIfUnknown;  // JSON "fail_if_unknown"

  static constexpr std::string_view kModelName = "Extension";
  static std::span<const jsonmodel::Property<Extension>> properties();
  [[nodiscard]] static std::optional<Extension> fromJson(const nlohmann::json& json,
                                                         Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const Extension&) const = default;

  // The extension ids the built-in authenticators understand.
  static std::vector<std::string> getClientSupportedExtensionId();
  // True when `extensionId` is exactly one of getClientSupportedExtensionId().
  static bool checkValidExtensionId(std::string_view extensionId);
  // `extension` with its data replaced by the host's entry for its id, when there is one;
  // otherwise `extension` unchanged.
  static Extension getExtsDataById(const Extension& extension, const ExtsData& extsData);
};

inline constexpr std::string_view kExtensionRegisteredUuid = "registered_uuid";
inline constexpr std::string_view kExtensionMatchModel = "match_model";
inline constexpr std::string_view kExtensionWbEncryption = "wb_encryption";
inline constexpr std::string_view kExtensionRegisterLimit = "register_limit";

}  // namespace corvane
