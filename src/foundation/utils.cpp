#include "foundation/utils.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace corvane {
namespace {

constexpr std::string_view kRandomAlphabet =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// Inflated server data is bounded so a small hostile input cannot exhaust memory.
constexpr size_t kMaxInflatedSize = 64u * 1024 * 1024;

constexpr int8_t base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<int8_t>(c - 'A');
  if (c >= 'a' && c <= 'z') return static_cast<int8_t>(c - 'a' + 26);
  if (c >= '0' && c <= '9') return static_cast<int8_t>(c - '0' + 52);
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool isBase64urlCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

// Decodes one UTF-8 sequence at `pos`; returns the code point and advances, or returns -1 and
// advances one byte for a malformed sequence.
int32_t nextCodePoint(std::string_view text, size_t& pos) {
  const size_t length = utf8SequenceLength(text, pos);
  if (length == 0) {
    ++pos;
    return -1;
  }
  const auto lead = static_cast<uint8_t>(text[pos]);
  int32_t cp = length == 1 ? lead : lead & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) cp = (cp << 6) | (static_cast<uint8_t>(text[pos + i]) & 0x3F);
  pos += length;
  return cp;
}

// Unicode space separators (general category Zs), the tab excluded.
bool isSpaceSeparator(int32_t cp) {
  return cp == 0x20 || cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200A) ||
         cp == 0x202F || cp == 0x205F || cp == 0x3000;
}

// Horizontal white space: space separators and the tab.
bool isHorizontalWhitespace(int32_t cp) {
  return cp == '\t' || isSpaceSeparator(cp);
}

// White space and line breaks: the above plus the line and paragraph separators and the
// control characters from tab to carriage return and next line.
bool isWhitespaceOrNewline(int32_t cp) {
  return isSpaceSeparator(cp) || (cp >= 0x09 && cp <= 0x0D) || cp == 0x85 || cp == 0x2028 ||
         cp == 0x2029;
}

}  // namespace

std::string Utils::base64URLSafeStringFromData(ByteView data) {
  std::string out(base64UrlLength(data.size()), '\0');
  encodeBase64Url(data, out);
  return out;
}

std::optional<Bytes> Utils::decodeBase64Url(std::string_view text) {
  Bytes out((text.size() + 3) / 4 * 3);
  const std::optional<size_t> length = decodeBase64UrlInto(text, out);
  if (!length) return std::nullopt;
  out.resize(*length);
  return out;
}

bool Utils::isBase64urlString(std::string_view text) {
  size_t pos = 0;
  while (pos < text.size()) {
    if (isBase64urlCharacter(text[pos])) {
      ++pos;
      continue;
    }
    const int32_t cp = nextCodePoint(text, pos);
    if (cp < 0 || !isWhitespaceOrNewline(cp)) return false;
  }
  return true;
}

std::string Utils::sha256(std::string_view text) {
  return hexadecimalString(sha256BackData(text));
}

std::array<uint8_t, 32> Utils::sha256BackData(std::string_view text) {
  // OpenSSL looks an algorithm up by name on every use of EVP_sha256(); the digest is fetched once
  // and kept for the life of the process.
  static EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  std::array<uint8_t, 32> digest{};
  EVP_Digest(text.data(), text.size(), digest.data(), nullptr,
             fetched != nullptr ? fetched : EVP_sha256(), nullptr);
  return digest;
}

std::optional<Bytes> Utils::randomBytesWithLength(uint32_t count) {
  Bytes out(count);
  if (count == 0) return out;
  if (count > static_cast<uint32_t>(std::numeric_limits<int>::max())) return std::nullopt;
  if (RAND_bytes(out.data(), static_cast<int>(count)) != 1) return std::nullopt;
  return out;
}

Bytes Utils::hexString2NSData(std::string_view text) {
  std::string compact;
  compact.reserve(text.size());
  for (char c : text) {
    if (c != ' ') compact.push_back(c);
  }
  Bytes out;
  out.reserve(compact.size() / 2);
  const auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i + 1 < compact.size(); i += 2) {
    const int high = digit(compact[i]);
    const int low = digit(compact[i + 1]);
    if (high >= 0 && low >= 0) {
      out.push_back(static_cast<uint8_t>(high << 4 | low));
      continue;
    }
    // Anything but two hex digits keeps strtol's reading (signs, white space, a stop at the
    // first non-digit).
    const char pair[3] = {compact[i], compact[i + 1], '\0'};
    out.push_back(static_cast<uint8_t>(std::strtol(pair, nullptr, 16) & 0xFF));
  }
  return out;
}

std::optional<Bytes> Utils::uncompressGZip(ByteView data) {
  if (data.empty()) return Bytes();
  if (data.size() > std::numeric_limits<uInt>::max()) return std::nullopt;

  const size_t half = data.size() / 2;
  Bytes out(data.size() + half);
  z_stream stream{};
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  if (inflateInit2(&stream, 47) != Z_OK) return std::nullopt;

  int status = Z_OK;
  while (status == Z_OK) {
    if (stream.total_out >= out.size()) {
      if (out.size() + half > kMaxInflatedSize) break;
      out.resize(out.size() + half);
    }
    stream.next_out = out.data() + stream.total_out;
    stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
    status = inflate(&stream, Z_SYNC_FLUSH);
  }
  const size_t produced = stream.total_out;
  if (inflateEnd(&stream) != Z_OK || status != Z_STREAM_END) return std::nullopt;
  out.resize(produced);
  return out;
}

bool Utils::stringIsBlank(std::optional<std::string_view> text) {
  if (!text) return true;
  size_t pos = 0;
  while (pos < text->size()) {
    const int32_t cp = nextCodePoint(*text, pos);
    if (cp < 0 || !isHorizontalWhitespace(cp)) return false;
  }
  return true;
}

bool Utils::checkAaidFormat(std::optional<std::string_view> text) {
  if (!text || text->size() != 9 || (*text)[4] != '#') return false;
  for (size_t i = 0; i < 9; ++i) {
    const char c = (*text)[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (i != 4 && !hex) return false;
  }
  return true;
}

bool Utils::isValue(double value, double min, double max) {
  return min <= value && value <= max;
}

bool Utils::point(Point p, Point p1, Point p2) {
  if ((p.x == p1.x && p.y == p1.y) || (p.x == p2.x && p.y == p2.y)) return false;
  if (!isValue(p.x, std::min(p1.x, p2.x), std::max(p1.x, p2.x)) ||
      !isValue(p.y, std::min(p1.y, p2.y), std::max(p1.y, p2.y))) {
    return false;
  }
  if (p2.x - p1.x == 0) return true;
  const double m = (p2.y - p1.y) / (p2.x - p1.x);
  return p.y == p.x * m + (p1.y - p1.x * m);
}

std::string hexadecimalString(ByteView data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(data.size() * 2, '\0');
  for (size_t i = 0; i < data.size(); ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 15];
  }
  return out;
}

std::string randomStringWithLength(int64_t count) {
  if (count <= 0) return {};
  const auto length = static_cast<size_t>(count);
  std::string out;
  out.reserve(length);
  // Rejection sampling keeps every character equally likely, as arc4random_uniform does.
  constexpr uint32_t kLimit = std::numeric_limits<uint32_t>::max() -
                              std::numeric_limits<uint32_t>::max() % kRandomAlphabet.size();
  // One word per missing character: a word is refused about once in 70 million draws.
  uint32_t words[64];
  while (out.size() < length) {
    const size_t wanted = std::min(length - out.size(), std::size(words));
    if (RAND_bytes(reinterpret_cast<unsigned char*>(words), static_cast<int>(wanted * 4)) != 1) {
      return {};
    }
    for (size_t i = 0; i < wanted; ++i) {
      if (words[i] < kLimit) out.push_back(kRandomAlphabet[words[i] % kRandomAlphabet.size()]);
    }
  }
  return out;
}

size_t utf16Length(std::string_view text) {
  size_t units = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    const int32_t cp = nextCodePoint(text, pos);
    units += cp >= 0x10000 ? 2 : 1;
  }
  return units;
}

size_t utf8SequenceLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) -> unsigned {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0x100u;
  };
  const auto inRange = [](unsigned b, unsigned low, unsigned high) {
    return b >= low && b <= high;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (inRange(lead, 0xC2, 0xDF)) return inRange(byte(1), 0x80, 0xBF) ? 2 : 0;
  if (inRange(lead, 0xE0, 0xEF)) {
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;   // overlong below U+0800
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;  // surrogates U+D800..U+DFFF
    return inRange(byte(1), low, high) && inRange(byte(2), 0x80, 0xBF) ? 3 : 0;
  }
  if (inRange(lead, 0xF0, 0xF4)) {
    const unsigned low = lead == 0xF0 ? 0x90 : 0x80;   // overlong below U+10000
    const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;  // above U+10FFFF
    return inRange(byte(1), low, high) && inRange(byte(2), 0x80, 0xBF) &&
                   inRange(byte(3), 0x80, 0xBF)
               ? 4
               : 0;
  }
  return 0;  // a continuation byte, an overlong two-byte lead, or 0xF5..0xFF
}

bool isValidUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = utf8SequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

void encodeBase64Url(ByteView data, std::span<char> out) {
  static constexpr std::string_view kUrlAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  size_t at = 0;
  for (size_t i = 0; i < data.size(); i += 3) {
    const size_t n = std::min<size_t>(3, data.size() - i);
    uint32_t v = uint32_t{data[i]} << 16;
    if (n > 1) v |= uint32_t{data[i + 1]} << 8;
    if (n > 2) v |= data[i + 2];
    for (size_t k = 0; k <= n; ++k) out[at++] = kUrlAlphabet[(v >> (18 - 6 * k)) & 63];
  }
}

std::optional<size_t> decodeBase64UrlInto(std::string_view text, std::span<uint8_t> out) {
  // The text is read as standard base64 after mapping "-" and "_", padded with "=" to a multiple
  // of four; "=" is accepted only as that final padding.
  const size_t padded = (text.size() + 3) / 4 * 4;
  const auto at = [&](size_t i) { return i < text.size() ? text[i] : '='; };
  size_t length = 0;
  for (size_t i = 0; i < padded; i += 4) {
    const bool last = i + 4 == padded;
    size_t padding = 0;
    if (last && at(i + 3) == '=') padding = at(i + 2) == '=' ? 2 : 1;
    uint32_t v = 0;
    for (size_t k = 0; k < 4 - padding; ++k) {
      const char c = at(i + k);
      const int8_t d = base64Value(c == '-' ? '+' : c == '_' ? '/' : c);
      if (d < 0) return std::nullopt;  // includes "=" anywhere but the final one or two places
      v |= static_cast<uint32_t>(d) << (18 - 6 * k);
    }
    // A quantum needs at least two symbols: "x===" cannot carry a byte.
    if (padding == 2 && at(i + 1) == '=') return std::nullopt;
    out[length++] = static_cast<uint8_t>(v >> 16);
    if (padding < 2) out[length++] = static_cast<uint8_t>(v >> 8);
    if (padding < 1) out[length++] = static_cast<uint8_t>(v);
  }
  return length;
}

}  // namespace corvane
