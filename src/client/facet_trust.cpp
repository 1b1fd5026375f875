#include "client/facet_trust.h"

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "client/messages/version.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

std::string FacetTrust::facetID() const {
  return std::string(kFacetIdPrefix) + configuration_.host().bundleIdentifier();
}

bool FacetTrust::checkTrustedFacetID(std::string_view appID) const {
  const bool devMode = configuration_.isDevMode();
  if (utf16Length(appID) > kMaxAppIdLength) return false;
  if (!devMode && !appID.starts_with("https")) return false;

  HttpClient::Request request;
  request.url = std::string(appID);
  request.limits.timeout = kTimeout;
  request.limits.maxBodyBytes = kMaxDocumentBytes;
  request.limits.allowPlainHttp = devMode;
  request.maxRedirects = kMaxRedirects;
  const std::optional<HttpClient::Response> response = http_.get(
      request,
      [devMode](const HttpClient::Response& redirect) {
        return shouldFollowRedirect(redirect, devMode);
      },
      nullptr);
  // The status is not looked at: whatever came last, a refused redirect included, is judged by
  // its body alone.
  return response && documentTrusts(response->body, facetID());
}

bool FacetTrust::shouldFollowRedirect(const HttpClient::Response& redirect, bool devMode) {
  if (!redirect.isRedirect() || !redirect.redirectUrl) return false;
  const std::optional<std::string> authorized = redirect.header(kRedirectAuthorizedHeader);
  if (!authorized || !jsonmodel::truthValue(nlohmann::json(*authorized))) return false;
  return devMode || redirect.redirectUrl->starts_with("https://");
}

bool FacetTrust::documentTrusts(std::string_view document, std::string_view facetID) {
  const std::optional<nlohmann::json> parsed = jsonmodel::parseJson(document, nullptr);
  if (!parsed || !parsed->is_object()) return false;
  const auto facets = parsed->find("trustedFacets");
  if (facets == parsed->end() || !facets->is_array()) return false;
  for (const nlohmann::json& entry : *facets) {
    if (!entry.is_object()) continue;
    const auto versionValue = entry.find("version");
    if (versionValue == entry.end()) continue;
    const std::optional<Version> version = Version::fromJson(*versionValue);
    if (!version || !version->major || !version->minor) continue;
    if (!version->major->equals(1) || !version->minor->equals(0)) continue;
    const auto ids = entry.find("ids");
    if (ids == entry.end() || !ids->is_array()) continue;
    for (const nlohmann::json& id : *ids) {
      if (id.is_string() && id.get_ref<const std::string&>() == facetID) return true;
    }
  }
  return false;
}

}  // namespace corvane
