// A transaction the user confirms before an authentication is signed.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/display_png_characteristics.h"
#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

inline constexpr std::string_view kTransactionContentTypeText = "text/plain";
// A transaction content must be shorter than this many UTF-16 code units.
inline constexpr size_t kTransactionContentLimit = 200;

struct Transaction {
  std::optional<std::string> contentType;  // required; a non-string is coerced to absent
  std::optional<std::string> content;      // required; a non-string is coerced to absent
  std::optional<std::vector<DisplayPNGCharacteristicsDescriptor>> tcDisplayPNGCharacteristics;

  static constexpr std::string_view kModelName = "Transaction";
  static std::span<const jsonmodel::Property<Transaction>> properties();
  [[nodiscard]] static std::optional<Transaction> fromJson(const nlohmann::json& json,
                                                           Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const Transaction&) const = default;

  // The dictionary form handed to the confirmation screen: "contentType" and "content" only
  // (each left out when absent).
  nlohmann::json toDictionary() const;

  // True when, in this order: the content type is exactly "text/plain"; the content is present
  // and non-empty; it has at most 199 UTF-16 code units; it is base64url text.
  static bool checkTransaction(const Transaction& transaction);
};

}  // namespace corvane
