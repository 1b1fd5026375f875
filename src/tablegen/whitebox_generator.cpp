#include "tablegen/whitebox_generator.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <tuple>

#include "crypto/whitebox.h"

namespace corvane::whitebox {

namespace {

constexpr uint8_t kShiftRowsSource[16] = {0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11};
constexpr uint8_t kMixColumns[4][4] = {{2, 3, 1, 1}, {1, 2, 3, 1}, {1, 1, 2, 3}, {3, 1, 1, 2}};

// Random values from RAND_bytes, drawn in chunks. A failed draw is remembered; callers check
// failed() before using what they made.
class Random {
 public:
  ~Random() { OPENSSL_cleanse(buffer_, sizeof(buffer_)); }
  uint8_t byte() {
    if (pos_ == sizeof(buffer_)) refill();
    return buffer_[pos_++];
  }
  uint32_t word() {
    uint32_t w = 0;
    for (int i = 0; i < 4; ++i) w = (w << 8) | byte();
    return w;
  }
  // Uniform in [0, n) for 0 < n <= 256, by rejection.
  uint32_t below(uint32_t n) {
    const uint32_t limit = 256 - 256 % n;
    for (;;) {
      const uint32_t v = byte();
      if (v < limit || failed_) return v % n;
    }
  }
  // A uniformly random permutation of 0..n-1 (Fisher-Yates).
  template <size_t N>
  std::array<uint8_t, N> permutation() {
    std::array<uint8_t, N> p;
    for (size_t i = 0; i < N; ++i) p[i] = static_cast<uint8_t>(i);
    for (size_t i = N - 1; i > 0; --i) std::swap(p[i], p[below(static_cast<uint32_t>(i + 1))]);
    return p;
  }
  bool failed() const { return failed_; }

 private:
  void refill() {
    if (RAND_bytes(buffer_, sizeof(buffer_)) != 1) {
      failed_ = true;
      std::memset(buffer_, 0, sizeof(buffer_));
    }
    pos_ = 0;
  }
  uint8_t buffer_[4096] = {};
  size_t pos_ = sizeof(buffer_);
  bool failed_ = false;
};

// A square matrix over GF(2) acting on W-bit words: bit i of the product is the parity of
// rows[i] AND x.
template <typename W>
struct BitMatrix {
  static constexpr int kBits = 8 * sizeof(W);
  std::array<W, kBits> rows{};

  W apply(W x) const {
    W result = 0;
    for (int i = 0; i < kBits; ++i) {
      result = W(result | (W(std::popcount(W(rows[i] & x)) & 1) << i));
    }
    return result;
  }

  // Gauss-Jordan elimination; absent when singular.
  std::optional<BitMatrix> inverse() const {
    BitMatrix a = *this, inv;
    for (int i = 0; i < kBits; ++i) inv.rows[i] = W(W{1} << i);
    for (int col = 0; col < kBits; ++col) {
      const W bit = W(W{1} << col);
      int pivot = col;
      while (pivot < kBits && !(a.rows[pivot] & bit)) ++pivot;
      if (pivot == kBits) return std::nullopt;
      std::swap(a.rows[col], a.rows[pivot]);
      std::swap(inv.rows[col], inv.rows[pivot]);
      for (int r = 0; r < kBits; ++r) {
        if (r != col && (a.rows[r] & bit)) {
          a.rows[r] ^= a.rows[col];
          inv.rows[r] ^= inv.rows[col];
        }
      }
    }
    return inv;
  }

  void wipe() { OPENSSL_cleanse(rows.data(), sizeof(rows)); }
};

// A uniformly random invertible matrix and its inverse (rejection: about 29% of random matrices
// are invertible).
template <typename W>
std::pair<BitMatrix<W>, BitMatrix<W>> randomInvertible(Random& rng) {
  for (;;) {
    BitMatrix<W> m;
    for (auto& row : m.rows) {
      W value = 0;
      for (size_t b = 0; b < sizeof(W); ++b) value = W((uint64_t{value} << 8) | rng.byte());
      row = value;
    }
    if (auto inv = m.inverse()) return {m, *inv};
    if (rng.failed()) return {m, m};
  }
}

uint8_t xtime(uint8_t a) {
  return static_cast<uint8_t>((a << 1) ^ ((a & 0x80) ? 0x1B : 0));
}

uint8_t gfMul(uint8_t a, uint8_t b) {
  uint8_t p = 0;
  while (b) {
    if (b & 1) p ^= a;
    a = xtime(a);
    b >>= 1;
  }
  return p;
}

// The AES S-box: multiplicative inverse in GF(2^8) followed by the affine map.
const std::array<uint8_t, 256>& sbox() {
  static const std::array<uint8_t, 256> table = [] {
    std::array<uint8_t, 256> s{};
    for (int x = 0; x < 256; ++x) {
      uint8_t inv = 0;
      for (int y = 1; y < 256 && x != 0; ++y) {
        if (gfMul(static_cast<uint8_t>(x), static_cast<uint8_t>(y)) == 1) {
          inv = static_cast<uint8_t>(y);
          break;
        }
      }
      uint8_t v = inv;
      for (int shift = 1; shift <= 4; ++shift) {
        v ^= static_cast<uint8_t>((inv << shift) | (inv >> (8 - shift)));
      }
      s[x] = static_cast<uint8_t>(v ^ 0x63);
    }
    return s;
  }();
  return table;
}

// The 15 AES-256 round keys, 16 bytes each, in state order.
struct RoundKeys {
  uint8_t bytes[15][16];
  ~RoundKeys() { OPENSSL_cleanse(bytes, sizeof(bytes)); }
};

void expandKey(std::span<const uint8_t> key, RoundKeys& out) {
  const auto& s = sbox();
  uint8_t w[60][4];
  std::memcpy(w, key.data(), 32);
  uint8_t rcon = 1;
  for (int i = 8; i < 60; ++i) {
    uint8_t t[4] = {w[i - 1][0], w[i - 1][1], w[i - 1][2], w[i - 1][3]};
    if (i % 8 == 0) {
      const uint8_t first = t[0];
      t[0] = static_cast<uint8_t>(s[t[1]] ^ rcon);
      t[1] = s[t[2]];
      t[2] = s[t[3]];
      t[3] = s[first];
      rcon = xtime(rcon);
    } else if (i % 8 == 4) {
      for (auto& b : t) b = s[b];
    }
    for (int k = 0; k < 4; ++k) w[i][k] = static_cast<uint8_t>(w[i - 8][k] ^ t[k]);
  }
  std::memcpy(out.bytes, w, sizeof(out.bytes));
  OPENSSL_cleanse(w, sizeof(w));
}

// One tree of an Xor set: A and B take two input nibbles each, C combines their results. The
// offsets are entry offsets into the whole set.
struct TreeOffsets {
  size_t a, b, c;
};

TreeOffsets treeOffsets(size_t round, size_t column, size_t byte, bool low) {
  const size_t base = (round * kXorTablesPerRound + 24 * column + 6 * byte) * 256;
  return low ? TreeOffsets{base + 2 * 256, base + 3 * 256, base + 5 * 256}
             : TreeOffsets{base, base + 256, base + 4 * 256};
}

struct XorTree {
  const uint8_t* a;
  const uint8_t* b;
  const uint8_t* c;
};

bool isNibblePermutation(const std::array<uint8_t, 16>& values) {
  uint32_t seen = 0;
  for (uint8_t v : values) seen |= 1u << v;
  return seen == 0xFFFF;
}

// Given output coordinates `outCode` for a two-input table T, finds input coordinates with
// outCode(T(u, w)) = left(u) XOR right(w) for all u, w. False when no such split exists.
bool splitInputs(const uint8_t* table, const std::array<uint8_t, 16>& outCode,
                 std::array<uint8_t, 16>& left, std::array<uint8_t, 16>& right) {
  const uint8_t origin = outCode[table[0]];
  for (size_t v = 0; v < 16; ++v) {
    left[v] = outCode[table[v * 16]];
    right[v] = static_cast<uint8_t>(outCode[table[v]] ^ origin);
  }
  if (!isNibblePermutation(left) || !isNibblePermutation(right)) return false;
  for (size_t u = 0; u < 16; ++u) {
    for (size_t w = 0; w < 16; ++w) {
      if (outCode[table[u * 16 + w]] != (left[u] ^ right[w])) return false;
    }
  }
  return true;
}

// Recovers the codes of one tree: coordinates on C's output that make C an XOR of coordinates on
// its inputs, then coordinates on A's and B's inputs consistent with those.
bool decomposeTree(const XorTree& tree, std::array<std::array<uint8_t, 16>, 4>& inputCodes,
                   std::array<uint8_t, 16>& outputCode) {
  std::array<uint8_t, 16> rowOf{}, colOf{};
  {
    uint32_t rows = 0, cols = 0;
    for (uint8_t v = 0; v < 16; ++v) {
      rowOf[tree.c[v * 16]] = v;
      colOf[tree.c[v]] = v;
      rows |= 1u << tree.c[v * 16];
      cols |= 1u << tree.c[v];
    }
    if (rows != 0xFFFF || cols != 0xFFFF) return false;
  }
  // The outputs form a group under o1 * o2 = C(row giving o1, column giving o2) with identity
  // C(0, 0); for an encoded XOR it is (Z/2)^4. Coordinates follow from a greedy basis.
  std::array<bool, 16> assigned{};
  std::array<uint8_t, 16> members{};
  size_t count = 0, bits = 0;
  const uint8_t identity = tree.c[0];
  assigned[identity] = true;
  outputCode[identity] = 0;
  members[count++] = identity;
  for (uint8_t o = 0; o < 16; ++o) {
    if (assigned[o]) continue;
    if (bits == 4) return false;
    const auto bit = static_cast<uint8_t>(1u << bits++);
    const size_t existing = count;
    for (size_t i = 0; i < existing; ++i) {
      const uint8_t product = tree.c[rowOf[members[i]] * 16 + colOf[o]];
      if (assigned[product]) return false;
      assigned[product] = true;
      outputCode[product] = static_cast<uint8_t>(outputCode[members[i]] | bit);
      members[count++] = product;
    }
  }
  std::array<uint8_t, 16> leftCode{}, rightCode{};
  if (!splitInputs(tree.c, outputCode, leftCode, rightCode)) return false;
  // The split of C is forced (its origin term is 0 because outputCode(C(0,0)) = 0), so A's output
  // coordinates are leftCode and B's are rightCode.
  return splitInputs(tree.a, leftCode, inputCodes[0], inputCodes[1]) &&
         splitInputs(tree.b, rightCode, inputCodes[2], inputCodes[3]);
}

}  // namespace

std::optional<XorCodebook> XorCodebook::recover(const XorTables& tables) {
  XorCodebook book;
  for (size_t r = 0; r < kTableRounds; ++r) {
    for (size_t j = 0; j < 4; ++j) {
      for (size_t q = 0; q < 4; ++q) {
        for (bool low : {false, true}) {
          std::array<std::array<uint8_t, 16>, 4> inputCodes{};
          std::array<uint8_t, 16> outputCode{};
          const TreeOffsets at = treeOffsets(r, j, q, low);
          const XorTree parts{tables.data() + at.a, tables.data() + at.b, tables.data() + at.c};
          if (!decomposeTree(parts, inputCodes, outputCode)) {
            return std::nullopt;
          }
          const size_t t = tree(r, j, q, low);
          for (size_t slot = 0; slot < 4; ++slot) {
            for (uint8_t n = 0; n < 16; ++n)
              book.encode_[(t * 4 + slot) * 16 + inputCodes[slot][n]] = n;
          }
          std::copy(outputCode.begin(), outputCode.end(), book.decode_.begin() + t * 16);
        }
      }
    }
  }
  return book;
}

RoundTables::~RoundTables() {
  OPENSSL_cleanse(tyboxes.data(), tyboxes.size() * sizeof(uint32_t));
  OPENSSL_cleanse(mbl.data(), mbl.size() * sizeof(uint32_t));
  OPENSSL_cleanse(tboxesLast.data(), tboxesLast.size());
}

std::optional<std::vector<uint8_t>> generateXorTables() {
  Random rng;
  std::vector<uint8_t> tables(kXorEntryCount);
  for (size_t r = 0; r < kTableRounds; ++r) {
    for (size_t j = 0; j < 4; ++j) {
      for (size_t q = 0; q < 4; ++q) {
        for (bool low : {false, true}) {
          const TreeOffsets at = treeOffsets(r, j, q, low);
          uint8_t* a = tables.data() + at.a;
          uint8_t* b = tables.data() + at.b;
          uint8_t* c = tables.data() + at.c;
          // Decodings of the four inputs, encodings of the two intermediates and the output.
          const auto da = rng.permutation<16>(), db = rng.permutation<16>();
          const auto dc = rng.permutation<16>(), dd = rng.permutation<16>();
          const auto g1 = rng.permutation<16>(), g2 = rng.permutation<16>();
          const auto h = rng.permutation<16>();
          std::array<uint8_t, 16> g1Inverse{}, g2Inverse{};
          for (uint8_t v = 0; v < 16; ++v) g1Inverse[g1[v]] = v, g2Inverse[g2[v]] = v;
          for (size_t u = 0; u < 16; ++u) {
            for (size_t w = 0; w < 16; ++w) {
              a[u * 16 + w] = g1[da[u] ^ db[w]];
              b[u * 16 + w] = g2[dc[u] ^ dd[w]];
              c[u * 16 + w] = h[g1Inverse[u] ^ g2Inverse[w]];
            }
          }
        }
      }
    }
  }
  if (rng.failed()) return std::nullopt;
  return tables;
}

std::optional<RoundTables> generateRoundTables(const SecretBytes& key,
                                               const XorCodebook& codebook) {
  if (key.size() != kAes256KeySize) return std::nullopt;
  const auto& s = sbox();
  RoundKeys keys;
  expandKey(key.exposeSecret(), keys);
  Random rng;
  RoundTables out;

  // Byte encodings of the state after each round's MBL layer: true byte = L(z) XOR kappa, where z
  // is the AES state after MixColumns.
  struct ByteCode {
    BitMatrix<uint8_t> linear, inverse;
    uint8_t constant = 0;
  };
  auto codes = std::make_unique<std::array<std::array<ByteCode, 16>, kTableRounds>>();
  for (auto& round : *codes) {
    for (auto& code : round) {
      std::tie(code.linear, code.inverse) = randomInvertible<uint8_t>(rng);
      code.constant = rng.byte();
    }
  }

  // The nibble-coded word that input `slot` of column j contributes in round r.
  auto encodeWord = [&](size_t r, size_t j, size_t slot, uint32_t word) {
    uint32_t coded = 0;
    for (size_t q = 0; q < 4; ++q) {
      const unsigned shift = 24 - 8 * static_cast<unsigned>(q);
      const auto high = static_cast<uint8_t>((word >> (shift + 4)) & 0xF);
      const auto low = static_cast<uint8_t>((word >> shift) & 0xF);
      coded |= uint32_t{codebook.encode(r, j, q, false, slot, high)} << (shift + 4);
      coded |= uint32_t{codebook.encode(r, j, q, true, slot, low)} << shift;
    }
    return coded;
  };
  // The true byte behind state byte `value` at position p after round r's XOR trees.
  auto decodeByte = [&](size_t r, size_t p, unsigned value) {
    const size_t j = p / 4, q = p % 4;
    return static_cast<uint8_t>(
        (codebook.decode(r, j, q, false, static_cast<uint8_t>(value >> 4)) << 4) |
        codebook.decode(r, j, q, true, static_cast<uint8_t>(value & 0xF)));
  };
  // The AES state byte behind the coded byte at position p after round r.
  auto stateByte = [&](size_t r, size_t p, unsigned value) {
    const ByteCode& code = (*codes)[r][p];
    return code.inverse.apply(static_cast<uint8_t>(decodeByte(r, p, value) ^ code.constant));
  };

  for (size_t r = 0; r < kTableRounds; ++r) {
    for (size_t j = 0; j < 4; ++j) {
      auto [mix, unmix] = randomInvertible<uint32_t>(rng);
      uint32_t masks[4], maskSum = 0;
      for (auto& m : masks) maskSum ^= (m = rng.word());

      // Tybox layer: key addition, S-box and this slot's MixColumns column, then the column's
      // mixing bijection and a mask (the four masks cancel in the MBL layer).
      for (size_t slot = 0; slot < 4; ++slot) {
        const size_t i = 4 * j + slot;
        const size_t origin = kShiftRowsSource[i];
        uint32_t* table = out.tyboxes.data() + (r * 16 + i) * 256;
        for (unsigned v = 0; v < 256; ++v) {
          const uint8_t x = r == 0 ? static_cast<uint8_t>(v) : stateByte(r - 1, origin, v);
          const uint8_t y = s[x ^ keys.bytes[r][origin]];
          uint32_t word = 0;
          for (size_t q = 0; q < 4; ++q) {
            word |= uint32_t{gfMul(kMixColumns[q][slot], y)} << (24 - 8 * q);
          }
          table[v] = encodeWord(r, j, slot, mix.apply(word) ^ masks[slot]);
        }
      }

      // MBL layer: undo the mixing bijection byte by byte, then apply the output byte codes. The
      // constants make the four contributions add up to L(z) XOR kappa.
      auto outputCode = [&](uint32_t z) {
        uint32_t coded = 0;
        for (size_t q = 0; q < 4; ++q) {
          const unsigned shift = 24 - 8 * static_cast<unsigned>(q);
          coded |= uint32_t{(*codes)[r][4 * j + q].linear.apply(static_cast<uint8_t>(z >> shift))}
                   << shift;
        }
        return coded;
      };
      uint32_t kappa = 0;
      for (size_t q = 0; q < 4; ++q) {
        kappa |= uint32_t{(*codes)[r][4 * j + q].constant} << (24 - 8 * q);
      }
      uint32_t constants[4];
      constants[3] = outputCode(unmix.apply(maskSum)) ^ kappa;
      for (size_t slot = 0; slot < 3; ++slot) constants[3] ^= (constants[slot] = rng.word());
      for (size_t slot = 0; slot < 4; ++slot) {
        const size_t p = 4 * j + slot;
        uint32_t* table = out.mbl.data() + (r * 16 + p) * 256;
        for (unsigned v = 0; v < 256; ++v) {
          const uint32_t y = uint32_t{decodeByte(r, p, v)} << (24 - 8 * slot);
          table[v] = encodeWord(r, j, slot, outputCode(unmix.apply(y)) ^ constants[slot]);
        }
      }
      mix.wipe();
      unmix.wipe();
      OPENSSL_cleanse(masks, sizeof(masks));
      OPENSSL_cleanse(constants, sizeof(constants));
    }
  }

  // Final round: undo the last byte codes, add round key 13, S-box, add round key 14.
  for (size_t i = 0; i < 16; ++i) {
    const size_t origin = kShiftRowsSource[i];
    for (unsigned v = 0; v < 256; ++v) {
      const uint8_t x = stateByte(kTableRounds - 1, origin, v);
      out.tboxesLast[i * 256 + v] =
          static_cast<uint8_t>(s[x ^ keys.bytes[13][origin]] ^ keys.bytes[14][i]);
    }
  }
  OPENSSL_cleanse(codes.get(), sizeof(*codes));
  if (rng.failed()) return std::nullopt;
  return out;
}

std::optional<std::vector<uint8_t>> generateExternalEncoding(bool identity) {
  Random rng;
  std::vector<uint8_t> encoding(kExternalEncodingCount);
  for (size_t position = 0; position < 16; ++position) {
    std::array<uint8_t, 256> p;
    if (identity) {
      for (size_t v = 0; v < 256; ++v) p[v] = static_cast<uint8_t>(v);
    } else {
      p = rng.permutation<256>();
    }
    std::copy(p.begin(), p.end(), encoding.begin() + position * 256);
  }
  if (rng.failed()) return std::nullopt;
  return encoding;
}

std::optional<Bytes> generateBuiltinBlob(const SecretBytes& key) {
  auto xorTables = generateXorTables();
  auto authXor = generateXorTables();
  if (!xorTables || !authXor) return std::nullopt;
  const auto xorView = XorTables::validate(*xorTables);
  const auto authView = XorTables::validate(*authXor);
  if (!xorView || !authView || !XorCodebook::recover(*authView)) return std::nullopt;
  const auto codebook = XorCodebook::recover(*xorView);
  if (!codebook) return std::nullopt;
  const auto round = generateRoundTables(key, *codebook);
  if (!round) return std::nullopt;
  const auto network =
      WhiteboxNetwork::make(*xorView, round->tyboxes, round->tboxesLast, round->mbl);
  if (!network || !networkMatchesAes256(*network, key, 16)) return std::nullopt;

  Bytes blobBytes;
  blobBytes.reserve(blob::kSize);
  const auto header = blob::header();
  blobBytes.insert(blobBytes.end(), header.begin(), header.end());
  auto appendWords = [&](const std::vector<uint32_t>& words) {
    for (uint32_t w : words) {
      for (int b = 0; b < 4; ++b) blobBytes.push_back(static_cast<uint8_t>(w >> (8 * b)));
    }
  };
  blobBytes.insert(blobBytes.end(), xorTables->begin(), xorTables->end());
  appendWords(round->tyboxes);
  blobBytes.insert(blobBytes.end(), round->tboxesLast.begin(), round->tboxesLast.end());
  appendWords(round->mbl);
  blobBytes.insert(blobBytes.end(), authXor->begin(), authXor->end());
  if (blobBytes.size() != blob::kSize) return std::nullopt;
  return blobBytes;
}

std::optional<XorTables> authXorFromBlob(ByteView blobBytes) {
  if (!blob::isValid(blobBytes)) return std::nullopt;
  return XorTables::validate(blobBytes.subspan(blob::kAuthXorOffset, kXorEntryCount));
}

bool networkMatchesAes256(const WhiteboxNetwork& network, const SecretBytes& key, size_t blocks) {
  if (key.size() != kAes256KeySize) return false;
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      EVP_CIPHER_CTX_free);
  if (!ctx ||
      EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr, key.exposeSecret().data(),
                         nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
    return false;
  }
  for (size_t n = 0; n < blocks; ++n) {
    uint8_t block[16], expected[16];
    int produced = 0;
    if (RAND_bytes(block, sizeof(block)) != 1 ||
        EVP_EncryptUpdate(ctx.get(), expected, &produced, block, sizeof(block)) != 1 ||
        produced != 16) {
      return false;
    }
    CipherDetail(block, network);
    if (std::memcmp(block, expected, sizeof(block)) != 0) return false;
  }
  return true;
}

}  // namespace corvane::whitebox
