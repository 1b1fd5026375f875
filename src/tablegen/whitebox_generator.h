// Generator of white-box table sets for an AES-256 key (the server side of the white-box cipher;
// `wbgen` and the tests use it). The tables compute exactly AES-256 encryption under the key:
// round keys are folded into the Tyboxes and TboxesLast, MixColumns into the Tybox words, random
// 32-bit mixing bijections and random byte-affine encodings are cancelled by the MBL tables and the
// next round, and every nibble that passes through an Xor table carries the nibble codes that the
// Xor set was built with. docs/whitebox.md explains what is randomised and what that protects.
//
// All randomness comes from OpenSSL's RAND_bytes; a generator failure gives an absent result.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "corvane/secret_bytes.h"
#include "crypto/whitebox_tables.h"
#include "foundation/utils.h"

namespace corvane::whitebox {

inline constexpr size_t kAes256KeySize = 32;

// The nibble codes of an Xor set. The 96 tables of a round form 32 trees (column j, output byte q,
// high or low nibble), each combining four input nibbles (one per Tybox or MBL word of the column)
// into one output nibble. For every tree the codebook knows which nibble each input must carry to
// stand for a value v (`encode`) and which value an output nibble stands for (`decode`), such that
// the tree computes the XOR of the four values.
class XorCodebook {
 public:
  // Recovers the codes from the tables themselves; absent when some tree is not an encoded XOR.
  // Codes are fixed only up to an invertible affine change of each tree's coordinates, and any
  // such choice serves, since tables built for it compute the same XOR.
  [[nodiscard]] static std::optional<XorCodebook> recover(const XorTables& tables);

  // The nibble that input `slot` (0-3: words a, b, c, d) of tree (round, column, byte, low)
  // must carry for the value `value`.
  uint8_t encode(size_t round, size_t column, size_t byte, bool low, size_t slot,
                 uint8_t value) const {
    return encode_[(tree(round, column, byte, low) * 4 + slot) * 16 + value];
  }
  // The value that the tree's output nibble `nibble` stands for.
  uint8_t decode(size_t round, size_t column, size_t byte, bool low, uint8_t nibble) const {
    return decode_[tree(round, column, byte, low) * 16 + nibble];
  }

 private:
  static constexpr size_t kTrees = kTableRounds * 4 * 4 * 2;
  static size_t tree(size_t round, size_t column, size_t byte, bool low) {
    return ((round * 4 + column) * 4 + byte) * 2 + (low ? 1 : 0);
  }
  std::vector<uint8_t> encode_ = std::vector<uint8_t>(kTrees * 4 * 16);
  std::vector<uint8_t> decode_ = std::vector<uint8_t>(kTrees * 16);
};

// Tyboxes, TboxesLast and MBL for one key and one Xor set. Wiped when released.
struct RoundTables {
  std::vector<uint32_t> tyboxes = std::vector<uint32_t>(kRoundWordCount);
  std::vector<uint8_t> tboxesLast = std::vector<uint8_t>(kLastRoundCount);
  std::vector<uint32_t> mbl = std::vector<uint32_t>(kRoundWordCount);

  RoundTables() = default;
  RoundTables(RoundTables&&) = default;
  RoundTables& operator=(RoundTables&&) = default;
  ~RoundTables();
};

// A fresh Xor set (kXorEntryCount nibbles): every tree an XOR under random nibble bijections on its
// inputs, its two intermediate values and its output.
[[nodiscard]] std::optional<std::vector<uint8_t>> generateXorTables();

// The round tables of AES-256 under `key` (kAes256KeySize bytes) for the given Xor set's codes,
// with fresh random mixing bijections and byte encodings. Absent for a key of another size.
[[nodiscard]] std::optional<RoundTables> generateRoundTables(const SecretBytes& key,
                                                             const XorCodebook& codebook);

// An external encoding: 16 random byte permutations, or 16 identities.
[[nodiscard]] std::optional<std::vector<uint8_t>> generateExternalEncoding(bool identity);

// A complete built-in set for `key` in the library's binary form (see blob::): fresh Xor and
// authXor sets and the round tables for the Xor set.
[[nodiscard]] std::optional<Bytes> generateBuiltinBlob(const SecretBytes& key);

// The authXor set inside a blob in the library's binary form; absent when the blob is not valid.
[[nodiscard]] std::optional<XorTables> authXorFromBlob(ByteView blob);

// True when the network enciphers `blocks` random blocks exactly as AES-256-ECB under `key` does
// (OpenSSL as the reference). Used to check freshly generated tables before they leave the tool.
bool networkMatchesAes256(const WhiteboxNetwork& network, const SecretBytes& key, size_t blocks);

}  // namespace corvane::whitebox
