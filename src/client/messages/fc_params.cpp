#include "client/messages/fc_params.h"

#include <nlohmann/json.hpp>

#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

std::string applicationIdFor(const std::optional<std::string>& headerAppID,
                             std::string_view facetID) {
  if (headerAppID && !headerAppID->empty()) return *headerAppID;
  return std::string(facetID);
}

std::string finalChallengeParamsJson(std::string_view appID, std::string_view challenge,
                                     std::string_view facetID) {
  nlohmann::ordered_json params = nlohmann::ordered_json::object();
  params["appID"] = std::string(appID);
  params["challenge"] = std::string(challenge);
  params["facetID"] = std::string(facetID);
  params["channelBinding"] = nlohmann::ordered_json::object();
  return jsonmodel::dumpJson(params);
}

std::string buildFcParams(const std::optional<std::string>& headerAppID, std::string_view challenge,
                          std::string_view facetID) {
  std::string json =
      finalChallengeParamsJson(applicationIdFor(headerAppID, facetID), challenge, facetID);
  return Utils::base64URLSafeStringFromData(asBytes(json));
}

}  // namespace corvane
