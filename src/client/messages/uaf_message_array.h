// Reading a UAF request text: the JSON array of messages, and the choice of the one message of
// version 1.1 in it. Generic over the request class (registration, authentication,
// deregistration).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "client/messages/operation_header.h"
#include "client/messages/version.h"
#include "corvane/error.h"
#include "corvane/status_codes.h"

namespace corvane {

inline constexpr std::string_view kMultipleMessagesText =
    "Multiple UAF Messages with the same version.";
inline constexpr std::string_view kNotAMessageArrayText = "UAF request is not a JSON array.";

// The request text as JSON; absent with INVALID_ARGUMENT (60001) and the parser's description
// when it is not JSON (nesting deeper than the parser's bound included).
[[nodiscard]] std::optional<nlohmann::json> parseUafRequestText(std::string_view text,
                                                                Error* error);

// The version of a message element as the walk sees it: its header's "upv" mapped onto a
// Version, or absent when there is none to map.
[[nodiscard]] std::optional<Version> messageVersion(const nlohmann::json& element);

// Result of the version walk. `message` is absent when no element was chosen; the request check
// then reports the request's own label.
template <class Request>
struct UafMessageChoice {
  std::optional<Request> message;
};

// The version walk. With more than one element, elements whose upv is not 1.1 are skipped; a
// single element is never skipped here (its version is judged after the field report). A second
// accepted element stops with INVALID_ARGUMENT "Multiple UAF Messages with the same version.";
// an element whose header has a mistyped "appID" or "serverData" stops with INVALID_ARGUMENT
// and an empty description; one that does not map stops with INVALID_ARGUMENT and the mapping
// error's description. Elements that are not objects are never chosen. A value that is not an
// array stops with INVALID_ARGUMENT.
template <class Request>
[[nodiscard]] std::optional<UafMessageChoice<Request>> chooseUafMessage(
    const nlohmann::json& messages, Error* error) {
  auto invalid = [&](std::string_view text) {
    setError(error, Error::corvane(code(CorvaneStatusCode::INVALID_ARGUMENT), std::string(text)));
    return std::nullopt;
  };
  constexpr bool kOpaqueErrors = requires {
    Request::kUnreadableRequestText;
  };

  if (!messages.is_array()) {
    if constexpr (kOpaqueErrors) return invalid(Request::kUnreadableRequestText);
    return invalid(kNotAMessageArrayText);
  }
  UafMessageChoice<Request> choice;
  const bool several = messages.size() > 1;
  for (const nlohmann::json& element : messages) {
    if (several) {
      std::optional<Version> version = messageVersion(element);
      if (!version || !Version::checkVersion(*version)) continue;
    }
    if (choice.message) return invalid(kMultipleMessagesText);
    if (!element.is_object()) continue;
    if (validateProperties(element)) return invalid("");
    Error mappingError;
    std::optional<Request> request = Request::fromJson(element, &mappingError);
    if (!request) {
      if constexpr (kOpaqueErrors) return invalid(Request::kUnreadableRequestText);
      return invalid(mappingError.localizedDescription());
    }
    choice.message = std::move(request);
  }
  return choice;
}

// parseUafRequestText then chooseUafMessage. Deregistration replaces the parser's description
// with its own fixed text.
template <class Request>
[[nodiscard]] std::optional<UafMessageChoice<Request>> chooseUafMessageFromText(
    std::string_view text, Error* error) {
  std::optional<nlohmann::json> messages = parseUafRequestText(text, error);
  if (!messages) {
    if constexpr (requires { Request::kUnreadableRequestText; }) {
      setError(error, Error::corvane(code(CorvaneStatusCode::INVALID_ARGUMENT),
                                     std::string(Request::kUnreadableRequestText)));
    }
    return std::nullopt;
  }
  return chooseUafMessage<Request>(*messages, error);
}

}  // namespace corvane
