// The per-user white-box table bundle as the server sends it and the record database keeps it:
// data1 and data2, each base64url text of a gzip member holding a JSON object. Decoding steps
// shared by the data sync (which checks a bundle before storing it) and the authentication (which
// decodes the stored bundle again for the "wb_encryption" extension).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "corvane/error.h"
#include "crypto/whitebox_tables.h"

namespace corvane {

// The marker that stands for "the server has no tables for this user".
inline constexpr std::string_view kNoWBDataMarker = "ZANDREL_FIDO_NO_DATA";

// Why a user's stored tables cannot be used.
inline constexpr std::string_view kNoWBTableText = "user has no WB table data.";
inline constexpr std::string_view kInvalidWBTableText = "Invalid WB table data.";
inline constexpr std::string_view kInvalidPermutationsText = "Invalid permutations data.";

enum class BundleFieldFault {
  // Not base64url, or not a gzip member.
  decompress,
  // Decompressed, but not JSON; the parser's description is in the error slot.
  json,
};

// base64url, then gunzip, then JSON. Absent with the fault (and, for a JSON fault, the parser's
// error) otherwise. The inflated text, which holds the tables in clear, is wiped once parsed.
[[nodiscard]] std::optional<nlohmann::json> decodeBundleField(std::string_view text,
                                                              BundleFieldFault* fault,
                                                              Error* jsonError);

// The names of "Tyboxes", "TboxesLast" and "MBL", in that order, that data1 lacks or does not hold
// as arrays, each followed by a blank; empty when all three are arrays.
std::string missingTableArrays(const nlohmann::json& data1);
// Whether data2 holds "permutations" as an array.
bool hasPermutations(const nlohmann::json& data2);

enum class UserTablesFault {
  // The tables of data1 have the wrong shape or values.
  tables,
  // The permutations of data2 are not 16 byte permutations of 256 entries.
  permutations,
};

// The usable table set, or absent with which half is at fault (data1 first).
[[nodiscard]] std::optional<whitebox::WhiteboxUserTables> userTablesFrom(
    const nlohmann::json& data1, const nlohmann::json& data2, UserTablesFault* fault);

}  // namespace corvane
