#include "client/messages/extension.h"

#include <array>

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

namespace {

constexpr std::array<std::string_view, 4> kSupportedIds = {
    kExtensionRegisteredUuid, kExtensionMatchModel, kExtensionWbEncryption,
    kExtensionRegisterLimit};

}  // namespace

std::span<const jsonmodel::Property<Extension>> Extension::properties() {
  static constexpr jsonmodel::Property<Extension> kTable[] = {
      property<&Extension::extID>("extID", Presence::kRequired, Mistyped::kCoerce).mappedTo("id"),
      property<&Extension::data>("data", Presence::kRequired, Mistyped::kCoerce),
      property<&Extension::failIfUnknown>("failIfUnknown", Presence::kRequired)
          .mappedTo("fail_if_unknown"),
  };
  return kTable;
}

std::optional<Extension> Extension::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<Extension>(json, error);
}
nlohmann::json Extension::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string Extension::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::vector<std::string> Extension::getClientSupportedExtensionId() {
  return {kSupportedIds.begin(), kSupportedIds.end()};
}

bool Extension::checkValidExtensionId(std::string_view extensionId) {
  for (std::string_view id : kSupportedIds) {
    if (id == extensionId) return true;
  }
  return false;
}

Extension Extension::getExtsDataById(const Extension& extension, const ExtsData& extsData) {
  if (!extension.extID) return extension;
  auto it = extsData.find(*extension.extID);
  if (it == extsData.end()) return extension;
  return Extension{extension.extID, it->second, extension.failIfUnknown};
}

}  // namespace corvane
