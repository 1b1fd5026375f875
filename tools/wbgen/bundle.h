// The per-user table bundle in the form the server sends it: data1 and data2, each base64url text
// of a gzip member holding a JSON object.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/utils.h"

namespace wbgen {

// A gzip member (deflate with a gzip wrapper, window bits 31) of `data`; absent on a zlib failure.
std::optional<corvane::Bytes> gzip(corvane::ByteView data);

// data1: {"Tyboxes": [13][16][256], "TboxesLast": [16][256], "MBL": [13][16][256]} as JSON text.
std::string data1Json(std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
                      std::span<const uint32_t> mbl);
// data2: {"permutations": [16][256]} as JSON text.
std::string data2Json(std::span<const uint8_t> externalEncoding);

// base64url(gzip(json)); absent on a zlib failure.
std::optional<std::string> packBundleField(std::string_view json);

}  // namespace wbgen
