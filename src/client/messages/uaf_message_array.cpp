#include "client/messages/uaf_message_array.h"

#include "json/json_text.h"

namespace corvane {

std::optional<nlohmann::json> parseUafRequestText(std::string_view text, Error* error) {
  Error parseError;
  std::optional<nlohmann::json> json = jsonmodel::parseJson(text, &parseError);
  if (!json) {
    setError(error, Error::corvane(code(CorvaneStatusCode::INVALID_ARGUMENT),
                                   parseError.localizedDescription()));
  }
  return json;
}

std::optional<Version> messageVersion(const nlohmann::json& element) {
  if (!element.is_object()) return std::nullopt;
  auto header = element.find("header");
  if (header == element.end() || !header->is_object()) return std::nullopt;
  auto upv = header->find("upv");
  if (upv == header->end()) return std::nullopt;
  return Version::fromJson(*upv);
}

}  // namespace corvane
