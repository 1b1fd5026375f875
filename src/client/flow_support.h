// Steps registration and authentication share: the request check context, the facet decision,
// and the error an ASM answer carries up to the host.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "client/corvane_impl.h"
#include "client/messages/operation_header.h"
#include "client/messages/required_fields.h"
#include "corvane/error.h"

namespace corvane {

inline constexpr std::string_view kBusyText = "another request is in progress.";
inline constexpr std::string_view kPolicyNotMetText = "preferred aaid not in policy";

// The error of an ASM answer as the host gets it: its code translated from the ASM's, its
// message kept. `status` stands in when the ASM gave no error.
Error hostError(uint64_t status, const std::optional<Error>& error);

// A success carries an error too: code 0, with the ASM error's message when there was one.
Error successError(const std::optional<Error>& error);

Error clientError(CorvaneStatusCode status, std::string_view text);

}  // namespace corvane
