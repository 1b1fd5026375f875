#include "crypto/whitebox_tables.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>

#include <nlohmann/json.hpp>

namespace corvane::whitebox {

namespace {

using Json = nlohmann::json;

bool allNibbles(std::span<const uint8_t> entries) {
  uint8_t high = 0;
  for (uint8_t e : entries) high |= e;
  return (high & 0xF0) == 0;
}

// Reads `count` unsigned integers no larger than `max` from a JSON array into `out`.
bool readNumbers(const Json& array, size_t count, uint64_t max, auto* out) {
  if (!array.is_array() || array.size() != count) return false;
  for (size_t i = 0; i < count; ++i) {
    const auto* value = array[i].get_ptr<const Json::number_unsigned_t*>();
    if (value == nullptr || *value > max) return false;
    out[i] = static_cast<std::remove_pointer_t<decltype(out)>>(*value);
  }
  return true;
}

// Reads a nested array of the given dimensions (outermost first) into a flat row-major array.
template <typename T>
bool readNested(const Json& node, std::span<const size_t> dims, T* out) {
  constexpr uint64_t kMax = (uint64_t{1} << (8 * sizeof(T))) - 1;
  if (dims.size() == 1) return readNumbers(node, dims[0], kMax, out);
  if (!node.is_array() || node.size() != dims[0]) return false;
  size_t stride = 1;
  for (size_t d : dims.subspan(1)) stride *= d;
  for (size_t i = 0; i < dims[0]; ++i) {
    if (!readNested(node[i], dims.subspan(1), out + i * stride)) return false;
  }
  return true;
}

const Json* member(const Json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

std::optional<Json> parseJson(ByteView text) {
  try {
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
  } catch (...) {  // allocation failure on a huge document
    return std::nullopt;
  }
}

}  // namespace

std::optional<XorTables> XorTables::validate(std::span<const uint8_t> entries) {
  if (entries.size() != kXorEntryCount || !allNibbles(entries)) return std::nullopt;
  return XorTables(entries.data());
}

struct PackedXor {
  alignas(64) uint8_t bytes[kPackedXorSize];
};

namespace {

void destroyPackedXor(const PackedXor* packed) {
  OPENSSL_cleanse(const_cast<PackedXor*>(packed), sizeof(PackedXor));
  delete packed;
}

std::shared_ptr<const PackedXor> packXor(const XorTables& tables) {
  PackedXor* packed = new (std::nothrow) PackedXor;
  if (packed == nullptr) return nullptr;
  const uint8_t* x = tables.data();
  for (size_t group = 0; group < kTableRounds * 16; ++group) {
    // group = round * 16 + 4j + q; the byte's six tables start at 96 * round + 24j + 6q.
    const uint8_t* t = x + ((group / 16) * kXorTablesPerRound + 6 * (group % 16)) * 256;
    uint8_t* out = packed->bytes + group * 3 * 256;
    for (size_t u = 0; u < 16; ++u) {
      for (size_t w = 0; w < 16; ++w) {
        const size_t i = u * 16 + w;
        out[i] = static_cast<uint8_t>((t[i] << 4) | t[256 + i]);
        out[256 + w * 16 + u] = static_cast<uint8_t>((t[512 + i] << 4) | t[768 + i]);
        out[512 + i] = static_cast<uint8_t>((t[1024 + i] << 4) | t[1280 + i]);
      }
    }
  }
  try {
    return std::shared_ptr<const PackedXor>(packed, destroyPackedXor);
  } catch (...) {  // the control block could not be allocated
    destroyPackedXor(packed);
    return nullptr;
  }
}

// Swaps the two nibbles of every byte of a word.
uint32_t swapNibbles(uint32_t w) {
  return ((w >> 4) & 0x0F0F0F0Fu) | ((w << 4) & 0xF0F0F0F0u);
}

// Copies [13][16][256] words, swapping nibbles in the tables of positions 4j+1 and 4j+3.
void prepareRoundWords(std::span<const uint32_t> in, uint32_t* out) {
  for (size_t table = 0; table < kTableRounds * 16; ++table) {
    const bool swap = (table % 2) == 1;
    for (size_t v = 0; v < 256; ++v) {
      const uint32_t w = in[table * 256 + v];
      out[table * 256 + v] = swap ? swapNibbles(w) : w;
    }
  }
}

}  // namespace

struct WhiteboxNetwork::Rounds {
  alignas(64) uint32_t tyboxes[kRoundWordCount];
  alignas(64) uint32_t mbl[kRoundWordCount];
  alignas(64) uint8_t tboxesLast[kLastRoundCount];
};

void WhiteboxNetwork::RoundsDeleter::operator()(Rounds* rounds) const {
  OPENSSL_cleanse(rounds, sizeof(Rounds));
  delete rounds;
}

WhiteboxNetwork::WhiteboxNetwork(std::shared_ptr<const PackedXor> packedXor,
                                 std::unique_ptr<Rounds, RoundsDeleter> rounds)
    : xor_(std::move(packedXor)), rounds_(std::move(rounds)) {}
WhiteboxNetwork::WhiteboxNetwork(WhiteboxNetwork&&) noexcept = default;
WhiteboxNetwork& WhiteboxNetwork::operator=(WhiteboxNetwork&&) noexcept = default;
WhiteboxNetwork::~WhiteboxNetwork() = default;

const uint8_t* WhiteboxNetwork::packedXor() const {
  return xor_->bytes;
}
const uint32_t* WhiteboxNetwork::tyboxes() const {
  return rounds_->tyboxes;
}
const uint8_t* WhiteboxNetwork::tboxesLast() const {
  return rounds_->tboxesLast;
}
const uint32_t* WhiteboxNetwork::mbl() const {
  return rounds_->mbl;
}

std::optional<WhiteboxNetwork> WhiteboxNetwork::build(std::shared_ptr<const PackedXor> packedXor,
                                                      std::span<const uint32_t> tyboxes,
                                                      std::span<const uint8_t> tboxesLast,
                                                      std::span<const uint32_t> mbl) {
  if (!packedXor || tyboxes.size() != kRoundWordCount || mbl.size() != kRoundWordCount ||
      tboxesLast.size() != kLastRoundCount) {
    return std::nullopt;
  }
  std::unique_ptr<Rounds, RoundsDeleter> rounds(new (std::nothrow) Rounds);
  if (!rounds) return std::nullopt;
  prepareRoundWords(tyboxes, rounds->tyboxes);
  prepareRoundWords(mbl, rounds->mbl);
  std::copy(tboxesLast.begin(), tboxesLast.end(), rounds->tboxesLast);
  return WhiteboxNetwork(std::move(packedXor), std::move(rounds));
}

std::optional<WhiteboxNetwork> WhiteboxNetwork::make(const XorTables& xorTables,
                                                     std::span<const uint32_t> tyboxes,
                                                     std::span<const uint8_t> tboxesLast,
                                                     std::span<const uint32_t> mbl) {
  if (tyboxes.size() != kRoundWordCount || mbl.size() != kRoundWordCount ||
      tboxesLast.size() != kLastRoundCount) {
    return std::nullopt;
  }
  return build(packXor(xorTables), tyboxes, tboxesLast, mbl);
}

std::optional<WhiteboxNetwork> WhiteboxNetwork::withBuiltinAuthXor(
    std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
    std::span<const uint32_t> mbl) {
  // Packed once per process and shared by every per-user network.
  static const std::shared_ptr<const PackedXor> authXor = [] {
    const XorTables* tables = builtinAuthXor();
    return tables ? packXor(*tables) : nullptr;
  }();
  return build(authXor, tyboxes, tboxesLast, mbl);
}

bool isExternalEncoding(std::span<const uint8_t> encoding) {
  if (encoding.size() != kExternalEncodingCount) return false;
  for (size_t position = 0; position < 16; ++position) {
    std::array<bool, 256> seen{};
    for (size_t v = 0; v < 256; ++v) {
      const uint8_t image = encoding[position * 256 + v];
      if (seen[image]) return false;
      seen[image] = true;
    }
  }
  return true;
}

void WhiteboxUserTables::EncodingDeleter::operator()(
    std::array<uint8_t, kExternalEncodingCount>* encoding) const {
  OPENSSL_cleanse(encoding->data(), encoding->size());
  delete encoding;
}

std::optional<WhiteboxUserTables> WhiteboxUserTables::fromArrays(
    std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
    std::span<const uint32_t> mbl, std::span<const uint8_t> externalEncoding) {
  if (!isExternalEncoding(externalEncoding)) return std::nullopt;
  auto network = WhiteboxNetwork::withBuiltinAuthXor(tyboxes, tboxesLast, mbl);
  if (!network) return std::nullopt;
  Encoding encoding(new (std::nothrow) std::array<uint8_t, kExternalEncodingCount>);
  if (!encoding) return std::nullopt;
  std::copy(externalEncoding.begin(), externalEncoding.end(), encoding->begin());
  return WhiteboxUserTables(std::move(*network), std::move(encoding));
}

std::optional<WhiteboxUserTables> WhiteboxUserTables::fromJson(const Json& data1,
                                                               const Json& data2) {
  static constexpr size_t kRoundDims[] = {kTableRounds, 16, 256};
  static constexpr size_t kBlockDims[] = {16, 256};
  const Json* tyboxes = member(data1, "Tyboxes");
  const Json* tboxesLast = member(data1, "TboxesLast");
  const Json* mbl = member(data1, "MBL");
  const Json* permutations = member(data2, "permutations");
  if (!tyboxes || !tboxesLast || !mbl || !permutations) return std::nullopt;

  // The delivered form, read into a wiped scratch block, then turned into the working form.
  struct Scratch {
    uint32_t tyboxes[kRoundWordCount];
    uint32_t mbl[kRoundWordCount];
    uint8_t tboxesLast[kLastRoundCount];
    uint8_t encoding[kExternalEncodingCount];
  };
  struct ScratchDeleter {
    void operator()(Scratch* s) const {
      OPENSSL_cleanse(s, sizeof(Scratch));
      delete s;
    }
  };
  std::unique_ptr<Scratch, ScratchDeleter> s(new (std::nothrow) Scratch);
  if (!s || !readNested<uint32_t>(*tyboxes, kRoundDims, s->tyboxes) ||
      !readNested<uint32_t>(*mbl, kRoundDims, s->mbl) ||
      !readNested<uint8_t>(*tboxesLast, kBlockDims, s->tboxesLast) ||
      !readNested<uint8_t>(*permutations, kBlockDims, s->encoding)) {
    return std::nullopt;
  }
  return fromArrays(s->tyboxes, s->tboxesLast, s->mbl, s->encoding);
}

std::optional<WhiteboxUserTables> WhiteboxUserTables::fromJsonText(ByteView data1Json,
                                                                   ByteView data2Json) {
  const auto data1 = parseJson(data1Json);
  if (!data1) return std::nullopt;
  const auto data2 = parseJson(data2Json);
  if (!data2) return std::nullopt;
  return fromJson(*data1, *data2);
}

std::optional<WhiteboxUserTables> WhiteboxUserTables::fromBundle(std::string_view data1,
                                                                 std::string_view data2) {
  // The inflated texts hold the tables in clear; wipe them once parsed.
  auto inflate = [](std::string_view text) -> std::optional<Bytes> {
    auto compressed = Utils::decodeBase64Url(text);
    if (!compressed) return std::nullopt;
    auto inflated = Utils::uncompressGZip(*compressed);
    OPENSSL_cleanse(compressed->data(), compressed->size());
    return inflated;
  };
  auto json1 = inflate(data1);
  auto json2 = json1 ? inflate(data2) : std::nullopt;
  std::optional<WhiteboxUserTables> tables;
  if (json1 && json2) tables = fromJsonText(*json1, *json2);
  if (json1) OPENSSL_cleanse(json1->data(), json1->size());
  if (json2) OPENSSL_cleanse(json2->data(), json2->size());
  return tables;
}

namespace blob {

std::array<uint8_t, kHeaderSize> header() {
  std::array<uint8_t, kHeaderSize> h{};
  std::memcpy(h.data(), kMagic.data(), kMagic.size());
  for (size_t i = 0; i < 4; ++i) {
    h[8 + i] = static_cast<uint8_t>(kVersion >> (8 * i));
    h[12 + i] = static_cast<uint8_t>(kHeaderSize >> (8 * i));
  }
  return h;
}

bool isValid(ByteView data) {
  if (data.size() != kSize) return false;
  const auto expected = header();
  return std::equal(expected.begin(), expected.end(), data.begin()) &&
         allNibbles(data.subspan(kXorOffset, kXorEntryCount)) &&
         allNibbles(data.subspan(kAuthXorOffset, kXorEntryCount));
}

}  // namespace blob

}  // namespace corvane::whitebox
