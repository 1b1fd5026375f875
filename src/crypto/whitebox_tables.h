// Table sets of the white-box AES network: their shapes, the validated Xor view, the network in
// the block function's working form, the per-user set (parsed from the server's data1/data2
// bundle) and the built-in set (embedded in the library, read-only).
//
// Shapes as delivered, all flat and row-major:
//   Xor / authXor  [13][96][256] bytes, each entry a nibble (0-15); entry u*16+w of table t is
//                                the table's value for high input u and low input w
//   Tyboxes, MBL   [13][16][256] 32-bit words (round, state position, byte value)
//   TboxesLast     [16][256] bytes
//   external enc.  [16][256] bytes, one byte permutation per position of a block
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "foundation/utils.h"

namespace corvane::whitebox {

inline constexpr size_t kTableRounds = 13;
inline constexpr size_t kXorTablesPerRound = 96;
inline constexpr size_t kXorEntryCount = kTableRounds * kXorTablesPerRound * 256;  // bytes
inline constexpr size_t kRoundWordCount = kTableRounds * 16 * 256;  // Tyboxes or MBL words
inline constexpr size_t kLastRoundCount = 16 * 256;                 // TboxesLast bytes
inline constexpr size_t kExternalEncodingCount = 16 * 256;          // permutation bytes

// An Xor table set whose every entry has been checked to be a nibble; the only way to get one is
// through validate(). A view: the entries must outlive it.
class XorTables {
 public:
  // Absent unless `entries` holds exactly kXorEntryCount values, each below 16.
  [[nodiscard]] static std::optional<XorTables> validate(std::span<const uint8_t> entries);
  const uint8_t* data() const { return data_; }

 private:
  explicit XorTables(const uint8_t* data) : data_(data) {}
  const uint8_t* data_;
};

// The Xor set in the block function's working form: for round r, column j and output byte q
// (t = 24j + 6q) the six nibble tables of that byte become three 256-byte tables, starting at
// byte ((r * 16 + 4j + q) * 3) * 256:
//   first[u*16 + w]  = X[t][u*16 + w] << 4   | X[t+1][u*16 + w]
//   second[w*16 + u] = X[t+2][u*16 + w] << 4 | X[t+3][u*16 + w]   (transposed)
//   third[i]         = X[t+4][i] << 4        | X[t+5][i]
// Half the size of the delivered form, so more of it stays in the first-level cache. In the
// working form of Tyboxes and MBL the words of slots 1 and 3 of every column (positions 4j+1 and
// 4j+3) have the two nibbles of every byte swapped; whitebox.cpp explains why.
inline constexpr size_t kPackedXorSize = kTableRounds * 16 * 3 * 256;
inline constexpr size_t kPackedXorRoundStride = 16 * 3 * 256;
struct PackedXor;

// One complete network (Xor set, Tyboxes, TboxesLast, MBL) in working form. Built only by make(),
// which checks every size and copies the tables; the copy is wiped when released. The Xor part
// may be shared (the built-in authXor is packed once per process). Movable, not copyable.
class WhiteboxNetwork {
 public:
  [[nodiscard]] static std::optional<WhiteboxNetwork> make(const XorTables& xorTables,
                                                           std::span<const uint32_t> tyboxes,
                                                           std::span<const uint8_t> tboxesLast,
                                                           std::span<const uint32_t> mbl);
  // The same with the built-in authXor; absent also when the built-in set is unusable.
  [[nodiscard]] static std::optional<WhiteboxNetwork> withBuiltinAuthXor(
      std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
      std::span<const uint32_t> mbl);

  WhiteboxNetwork(WhiteboxNetwork&&) noexcept;
  WhiteboxNetwork& operator=(WhiteboxNetwork&&) noexcept;
  ~WhiteboxNetwork();

  // The working form, for the block function.
  const uint8_t* packedXor() const;
  const uint32_t* tyboxes() const;
  const uint8_t* tboxesLast() const;
  const uint32_t* mbl() const;

 private:
  struct Rounds;
  struct RoundsDeleter {
    void operator()(Rounds* rounds) const;
  };
  WhiteboxNetwork(std::shared_ptr<const PackedXor> packedXor,
                  std::unique_ptr<Rounds, RoundsDeleter> rounds);
  [[nodiscard]] static std::optional<WhiteboxNetwork> build(
      std::shared_ptr<const PackedXor> packedXor, std::span<const uint32_t> tyboxes,
      std::span<const uint8_t> tboxesLast, std::span<const uint32_t> mbl);
  std::shared_ptr<const PackedXor> xor_;
  std::unique_ptr<Rounds, RoundsDeleter> rounds_;
};

// True when `encoding` is kExternalEncodingCount bytes forming 16 byte permutations.
bool isExternalEncoding(std::span<const uint8_t> encoding);

// The per-user table set: the user's Tyboxes, TboxesLast and MBL with the built-in authXor as a
// network, and the external encoding. Wiped when released. Movable, not copyable.
class WhiteboxUserTables {
 public:
  // From the decompressed data1 and data2 JSON objects: "Tyboxes" and "MBL" as [13][16][256]
  // nested arrays of unsigned 32-bit integers, "TboxesLast" and "permutations" as [16][256] nested
  // arrays of bytes, every permutation a bijection. Absent on any other shape or value, and when
  // the built-in set is unusable.
  [[nodiscard]] static std::optional<WhiteboxUserTables> fromJson(const nlohmann::json& data1,
                                                                  const nlohmann::json& data2);
  // The same from the JSON texts.
  [[nodiscard]] static std::optional<WhiteboxUserTables> fromJsonText(ByteView data1Json,
                                                                      ByteView data2Json);
  // The same from the data1 and data2 texts as the server sends them (base64url of gzip).
  [[nodiscard]] static std::optional<WhiteboxUserTables> fromBundle(std::string_view data1,
                                                                    std::string_view data2);
  // From flat arrays of the exact sizes; absent on any other size or a non-permutation encoding.
  [[nodiscard]] static std::optional<WhiteboxUserTables> fromArrays(
      std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
      std::span<const uint32_t> mbl, std::span<const uint8_t> externalEncoding);

  const WhiteboxNetwork& network() const { return network_; }
  std::span<const uint8_t> externalEncoding() const { return *encoding_; }

 private:
  struct EncodingDeleter {
    void operator()(std::array<uint8_t, kExternalEncodingCount>* encoding) const;
  };
  using Encoding = std::unique_ptr<std::array<uint8_t, kExternalEncodingCount>, EncodingDeleter>;
  WhiteboxUserTables(WhiteboxNetwork network, Encoding encoding)
      : network_(std::move(network)), encoding_(std::move(encoding)) {}
  WhiteboxNetwork network_;
  Encoding encoding_;
};

// The built-in table set's binary form: a 64-byte header ("CVWBTS01", then the little-endian
// 32-bit format version 1 and header size 64, zero padding), then Xor, Tyboxes (little-endian
// words), TboxesLast, MBL (little-endian words) and authXor, back to back, all as delivered.
namespace blob {
inline constexpr std::string_view kMagic = "CVWBTS01";
inline constexpr uint32_t kVersion = 1;
inline constexpr size_t kHeaderSize = 64;
inline constexpr size_t kXorOffset = kHeaderSize;
inline constexpr size_t kTyboxesOffset = kXorOffset + kXorEntryCount;
inline constexpr size_t kTboxesLastOffset = kTyboxesOffset + kRoundWordCount * 4;
inline constexpr size_t kMblOffset = kTboxesLastOffset + kLastRoundCount;
inline constexpr size_t kAuthXorOffset = kMblOffset + kRoundWordCount * 4;
inline constexpr size_t kSize = kAuthXorOffset + kXorEntryCount;

// The 64 header bytes.
std::array<uint8_t, kHeaderSize> header();
// True when `data` is kSize bytes with a valid header and nibble-valued Xor and authXor sets.
bool isValid(ByteView data);
}  // namespace blob

// The built-in set compiled into the library (Xor, Tyboxes, TboxesLast, MBL) as a network, built
// once on first use; null if the embedded data is malformed.
const WhiteboxNetwork* builtinNetwork();
// The built-in authXor set that per-user tables are combined with; null if malformed.
const XorTables* builtinAuthXor();
// The raw embedded blob (blob::kSize bytes when intact), for tools that derive tables from it.
ByteView builtinBlob();

}  // namespace corvane::whitebox
