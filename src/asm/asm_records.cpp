#include "asm/asm_records.h"

#include <array>

namespace corvane {

namespace {

// The position of each name is the AsmRequestType value that selects it.
constexpr std::array<std::string_view, 6> kRequestTypes = {
    "getInfo", "registration", "authenticate", "deregister", "getRegistrations", "openSettings",
};

static_assert(kRequestTypes.size() == static_cast<size_t>(AsmRequestType::kOpenSettings) + 1);

}  // namespace

std::span<const std::string_view> AsmRequest::listAllRequestType() {
  return kRequestTypes;
}

std::optional<std::string_view> AsmRequest::requestTypeCommand() const {
  if (requestType >= kRequestTypes.size()) return std::nullopt;
  return kRequestTypes[requestType];
}

}  // namespace corvane
