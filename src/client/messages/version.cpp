#include "client/messages/version.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<Version>> Version::properties() {
  static constexpr jsonmodel::Property<Version> kTable[] = {
      property<&Version::major>("major", Presence::kRequired, Mistyped::kCoerce),
      property<&Version::minor>("minor", Presence::kRequired, Mistyped::kCoerce),
  };
  return kTable;
}

std::optional<Version> Version::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<Version>(json, error);
}
nlohmann::json Version::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string Version::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

Version Version::getClientSupportedVersion() {
  return Version{JsonNumber(int64_t{1}), JsonNumber(int64_t{1})};
}

bool Version::checkVersion(const Version& version) {
  return version.major && version.minor && version.major->equals(1) && version.minor->equals(1);
}

}  // namespace corvane
