#include "foundation/utils.h"

#include <openssl/rand.h>
#include <openssl/sha.h>
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
  const auto lead = static_cast<uint8_t>(text[pos]);
  if (lead < 0x80) {
    ++pos;
    return lead;
  }
  size_t extra = 0;
  int32_t cp = 0;
  int32_t minimum = 0;
  if ((lead & 0xE0) == 0xC0) {
    extra = 1, cp = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2, cp = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3, cp = lead & 0x07, minimum = 0x10000;
  } else {
    ++pos;
    return -1;
  }
  if (pos + extra >= text.size()) {
    ++pos;
    return -1;
  }
  for (size_t i = 1; i <= extra; ++i) {
    const auto c = static_cast<uint8_t>(text[pos + i]);
    if ((c & 0xC0) != 0x80) {
      ++pos;
      return -1;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++pos;
    return -1;
  }
  pos += extra + 1;
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
  static constexpr std::string_view kUrlAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= data.size(); i += 3) {
    const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    out.push_back(kUrlAlphabet[(v >> 18) & 63]);
    out.push_back(kUrlAlphabet[(v >> 12) & 63]);
    out.push_back(kUrlAlphabet[(v >> 6) & 63]);
    out.push_back(kUrlAlphabet[v & 63]);
  }
  const size_t rest = data.size() - i;
  if (rest != 0) {
    uint32_t v = uint32_t{data[i]} << 16;
    if (rest == 2) v |= uint32_t{data[i + 1]} << 8;
    out.push_back(kUrlAlphabet[(v >> 18) & 63]);
    out.push_back(kUrlAlphabet[(v >> 12) & 63]);
    if (rest == 2) out.push_back(kUrlAlphabet[(v >> 6) & 63]);
  }
  return out;
}

std::optional<Bytes> Utils::decodeBase64Url(std::string_view text) {
  std::string padded(text);
  for (char& c : padded) {
    if (c == '_')
      c = '/';
    else if (c == '-')
      c = '+';
  }
  if (padded.size() % 4 != 0) padded.append(4 - padded.size() % 4, '=');

  Bytes out;
  out.reserve(padded.size() / 4 * 3);
  for (size_t i = 0; i < padded.size(); i += 4) {
    const bool last = i + 4 == padded.size();
    size_t padding = 0;
    if (last && padded[i + 3] == '=') padding = padded[i + 2] == '=' ? 2 : 1;
    uint32_t v = 0;
    for (size_t k = 0; k < 4 - padding; ++k) {
      const int8_t d = base64Value(padded[i + k]);
      if (d < 0) return std::nullopt;  // includes "=" anywhere but the final one or two places
      v |= static_cast<uint32_t>(d) << (18 - 6 * k);
    }
    // A quantum needs at least two symbols: "x===" cannot carry a byte.
    if (padding == 2 && padded[i + 1] == '=') return std::nullopt;
    out.push_back(static_cast<uint8_t>(v >> 16));
    if (padding < 2) out.push_back(static_cast<uint8_t>(v >> 8));
    if (padding < 1) out.push_back(static_cast<uint8_t>(v));
  }
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
  std::array<uint8_t, 32> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
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
  for (size_t i = 0; i + 1 < compact.size(); i += 2) {
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

}  // namespace corvane
