// The final challenge parameters (fcParams) of a registration or authentication response.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The application ID of a request: the header's appID when present and non-empty, otherwise
// the caller's facet ID.
std::string applicationIdFor(const std::optional<std::string>& headerAppID,
                             std::string_view facetID);

// The compact JSON text {"appID":...,"challenge":...,"facetID":...,"channelBinding":{}} with the
// keys in exactly that order, UTF-8 (text that is not valid UTF-8 is written as U+FFFD).
std::string finalChallengeParamsJson(std::string_view appID, std::string_view challenge,
                                     std::string_view facetID);

// The fcParams string: base64url without padding of finalChallengeParamsJson, with the appID
// chosen by applicationIdFor. It goes to the ASM unchanged as the final challenge.
std::string buildFcParams(const std::optional<std::string>& headerAppID, std::string_view challenge,
                          std::string_view facetID);

}  // namespace corvane
