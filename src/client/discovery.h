// Discovery's record and the look-ups over authenticator-info lists that the flows share.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_info.h"
#include "client/messages/version.h"
#include "json/json_model.h"

namespace corvane {

// What discover() answers, as JSON (keys = field names).
struct DiscoveryData {
  std::optional<std::vector<Version>> supportedUAFVersions;
  std::optional<std::string> clientVendor;
  std::optional<Version> clientVersion;
  std::optional<std::vector<Authenticator>> availableAuthenticators;

  static constexpr std::string_view kModelName = "DiscoveryData";
  static std::span<const jsonmodel::Property<DiscoveryData>> properties();
  std::string toJsonString() const;
};

// True when some element's aaid equals `aaid`.
bool isAaidInAuthenticatorInfoArray(std::string_view aaid,
                                    const std::vector<AuthenticatorInfo>& infos);
// True when some element's aaid equals `aaid` and its status is 4 (enrolled).
bool isAaidInAuthenticatorInfoArrayAndRegistered(std::string_view aaid,
                                                 const std::vector<AuthenticatorInfo>& infos);

}  // namespace corvane
