// Parsing and writing JSON text without exceptions. The parser builds the value in one pass and
// refuses nesting deeper than a fixed bound, because several nlohmann operations (dump, copy,
// comparison) recurse once per level.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "corvane/error.h"

namespace corvane::jsonmodel {

// Deepest nesting of arrays and objects that parseJson accepts.
inline constexpr size_t kMaxNestingDepth = 512;

// The parsed value, or absent with an error of "JSONModelErrorDomain" (code kBadJSON) whose
// description is the parser's own text (printable ASCII only, at most 256 characters, since it
// quotes the offending input), or a note that the nesting is too deep. Any JSON value
// is accepted at the top level. Invalid UTF-8, numbers that overflow a double and trailing
// garbage are parse errors.
[[nodiscard]] std::optional<nlohmann::json> parseJson(std::string_view text, Error* error,
                                                      size_t maxDepth = kMaxNestingDepth);

// Compact JSON text, UTF-8, keys in the value's own order; bytes that are not valid UTF-8 inside
// strings are written as U+FFFD instead of failing.
std::string dumpJson(const nlohmann::json& value);
std::string dumpJson(const nlohmann::ordered_json& value);

// The truth value of a loosely typed flag such as "fail_if_unknown": booleans as they are, numbers
// when non-zero, text the way a boolean reading of a string does it (after leading blanks and an
// optional sign with zeros, a leading "Y", "y", "T", "t" or digit 1-9 means true); anything else
// is false.
bool truthValue(const nlohmann::json& value);

// Appends `text` as a JSON string, escaped as nlohmann::json writes it: quote, backslash and the
// control characters escaped (short forms where JSON has them, else \u00xx), everything else, "/"
// and non-ASCII included, as it is. False when the text is not valid UTF-8 (nothing is replaced:
// two different texts must never give one JSON text). Writing by hand fixes the member order and
// lets a caller keep secret members in a buffer it wipes.
bool appendJsonString(std::string& out, std::string_view text);
// Room for a JSON object of these strings without reallocating (an escape is at most 6 bytes), so
// that no copy of a secret member is left behind in freed memory.
size_t jsonCapacity(std::initializer_list<std::string_view> texts);

}  // namespace corvane::jsonmodel
