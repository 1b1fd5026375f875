// Stateless codecs and predicates shared by every layer: base64url, hex, SHA-256, random bytes
// and identifiers, gzip/zlib inflation, and small text and geometry tests. None throws; failures
// are absent results.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/screen_types.h"

namespace corvane {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline ByteView asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}
inline std::string_view asText(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
// An owned copy of the text's bytes.
inline Bytes toBytes(std::string_view text) {
  const ByteView bytes = asBytes(text);
  return Bytes(bytes.begin(), bytes.end());
}

struct Utils {
  // Base64url without padding.
  static std::string base64URLSafeStringFromData(ByteView data);
  // Strict decode after mapping "_" and "-" back and padding to a multiple of four; absent when the
  // text does not decode. The alphabet is not checked first: use isBase64urlString for that.
  [[nodiscard]] static std::optional<Bytes> decodeBase64Url(std::string_view text);
  // True when the text, with white space and line breaks removed, uses only the base64url
  // alphabet. "=" is outside it; the empty text is accepted.
  static bool isBase64urlString(std::string_view text);

  // 64 lower-case hex digits of SHA-256 over the UTF-8 text.
  static std::string sha256(std::string_view text);
  // The raw 32-byte SHA-256 over the UTF-8 text.
  static std::array<uint8_t, 32> sha256BackData(std::string_view text);

  // `count` bytes from the CSPRNG, or absent when it fails.
  [[nodiscard]] static std::optional<Bytes> randomBytesWithLength(uint32_t count);

  // Lenient hex parse: spaces removed, each pair read as strtol would ("7z" is 7, "zz" is 0), a
  // trailing odd digit ignored. Never fails.
  static Bytes hexString2NSData(std::string_view text);

  // Inflates a gzip member or a zlib stream; empty input comes back empty; absent on any failure.
  [[nodiscard]] static std::optional<Bytes> uncompressGZip(ByteView data);

  // True for absent, empty, or only spaces and tabs (line breaks are not blank).
  static bool stringIsBlank(std::optional<std::string_view> text);
  // True when the text is four hex digits, "#", four hex digits.
  static bool checkAaidFormat(std::optional<std::string_view> text);

  // min <= value <= max; any NaN gives false.
  static bool isValue(double value, double min, double max);
  // True when p lies strictly between p1 and p2 on the segment joining them (exact arithmetic).
  static bool point(Point p, Point p1, Point p2);
};

// Two lower-case hex digits per byte.
std::string hexadecimalString(ByteView data);

// `count` characters drawn uniformly from a-z, A-Z, 0-9; empty for a count of zero or less.
std::string randomStringWithLength(int64_t count);

// Length of a UTF-8 text in UTF-16 code units, which is how message field limits are counted.
// Invalid UTF-8 bytes count one unit each.
size_t utf16Length(std::string_view text);

// Length (1 to 4) of the well-formed UTF-8 sequence at `at`, or 0 when the bytes there are not one:
// a stray continuation byte, a cut-short sequence, an overlong form, a UTF-16 surrogate or a code
// point above U+10FFFF.
size_t utf8SequenceLength(std::string_view text, size_t at);
// True when the whole text is well-formed UTF-8 (see utf8SequenceLength).
bool isValidUtf8(std::string_view text);

// Characters of the base64url text (no padding) of `byteCount` bytes.
constexpr size_t base64UrlLength(size_t byteCount) {
  return byteCount / 3 * 4 + (byteCount % 3 == 0 ? 0 : byteCount % 3 + 1);
}
// Writes the base64url text of `data`, without padding, to `out`, which holds exactly
// base64UrlLength(data.size()) characters. Writing in place lets a caller keep secret text in a
// buffer it wipes.
void encodeBase64Url(ByteView data, std::span<char> out);
// Decodes as Utils::decodeBase64Url does into `out`, which holds at least
// (text.size() + 3) / 4 * 3 bytes, without copying the text; the count of bytes written, or
// absent when the text does not decode (then `out` may hold part of the result).
[[nodiscard]] std::optional<size_t> decodeBase64UrlInto(std::string_view text,
                                                        std::span<uint8_t> out);

}  // namespace corvane
