// Error values of every Corvane layer: a domain, a signed code and an optional message.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvane {

inline constexpr std::string_view kCorvaneErrorDomain = "CORVANEErrorDomain";
inline constexpr std::string_view kIAGErrorDomain = "IAGErrorDomain";
inline constexpr std::string_view kJSONModelErrorDomain = "JSONModelErrorDomain";

class Error {
 public:
  Error() : domain_(kCorvaneErrorDomain) {}
  Error(std::string_view domain, int64_t code, std::optional<std::string> message = std::nullopt)
      : domain_(domain), code_(code), message_(std::move(message)) {}

  // An error of "CORVANEErrorDomain"; the usual case in every layer but AES-GCM.
  static Error corvane(int64_t code, std::optional<std::string> message = std::nullopt) {
    return Error(kCorvaneErrorDomain, code, std::move(message));
  }

  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  // The localized description; absent when the error carries no message at all.
  const std::optional<std::string>& message() const { return message_; }
  // The message, or the empty text when there is none.
  std::string localizedDescription() const { return message_.value_or(std::string()); }

  bool operator==(const Error&) const = default;

 private:
  std::string domain_;
  int64_t code_ = 0;
  std::optional<std::string> message_;
};

// Writes `value` into an optional out-error slot.
inline void setError(Error* slot, Error value) {
  if (slot != nullptr) *slot = std::move(value);
}

}  // namespace corvane
