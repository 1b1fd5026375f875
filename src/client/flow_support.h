// Steps the flows share: the request check context, the facet decision, the error an ASM answer
// carries up to the host, and the authenticator a deregistration goes to.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_info.h"
#include "client/corvane_impl.h"
#include "client/messages/deregistration.h"
#include "client/messages/operation_header.h"
#include "client/messages/required_fields.h"
#include "corvane/error.h"
#include "foundation/result.h"

namespace corvane {

inline constexpr std::string_view kBusyText = "another request is in progress.";
inline constexpr std::string_view kPolicyNotMetText = "preferred aaid not in policy";

// The error of an ASM answer as the host gets it: its code translated from the ASM's, its
// message kept. `status` stands in when the ASM gave no error.
Error hostError(uint64_t status, const std::optional<Error>& error);

// A success carries an error too: code 0, with the ASM error's message when there was one.
Error successError(const std::optional<Error>& error);

Error clientError(CorvaneStatusCode status, std::string_view text);

// The authenticator index of a deregistration that names an AAID: the built-in authenticator's
// (`builtIn`), or NO_SUITABLE_AUTHENTICATOR "no matched authenticator for aaid:<aaid>" when it
// has none (index 0 or absent). The AAID's value is not compared. No AAID: no index (absent).
[[nodiscard]] Result<std::optional<int64_t>> deregistrationIndexFor(
    const AuthenticatorInfo& builtIn, std::optional<std::string_view> aaid);

// The entry of a deregistration request that is acted on: the first. NO_SUITABLE_AUTHENTICATOR
// "Empty string values for aaid or keyID must occur in the first and only DeregisterAuthenticator
// object." when the list is empty, or when the first entry's aaid or keyID is absent (not merely
// empty) and the list does not hold exactly one entry.
[[nodiscard]] Result<DeregisterAuthenticator> firstDeregisterEntry(
    const std::vector<DeregisterAuthenticator>& entries);

}  // namespace corvane
