#include "client/messages/operation_header.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<OperationHeader>> OperationHeader::properties() {
  static constexpr jsonmodel::Property<OperationHeader> kTable[] = {
      property<&OperationHeader::upv>("upv", Presence::kRequired, Mistyped::kCoerce),
      property<&OperationHeader::op>("op", Presence::kRequired, Mistyped::kCoerce),
      property<&OperationHeader::appID>("appID", Presence::kOptional, Mistyped::kCoerce),
      property<&OperationHeader::serverData>("serverData", Presence::kOptional),
      property<&OperationHeader::exts>("exts", Presence::kOptional),
  };
  return kTable;
}

std::optional<OperationHeader> OperationHeader::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<OperationHeader>(json, error);
}
OperationHeader OperationHeader::fromDictionary(const nlohmann::json& dictionary) {
  return jsonmodel::assignFrom<OperationHeader>(dictionary);
}
nlohmann::json OperationHeader::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string OperationHeader::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

bool validateProperties(const nlohmann::json& message) {
  if (!message.is_object()) return false;
  auto header = message.find("header");
  if (header == message.end() || !header->is_object()) return false;
  auto wellTyped = [&](std::string_view key) {
    auto it = header->find(key);
    return it == header->end() || it->is_null() || it->is_string();
  };
  if (!wellTyped("appID")) return true;
  if (!wellTyped("serverData")) return true;
  return false;
}

}  // namespace corvane
