#include "crypto/whitebox.h"

#include <openssl/crypto.h>

#include <array>
#include <string>

#include "corvane/status_codes.h"

namespace corvane {

namespace {

using whitebox::WhiteboxNetwork;

constexpr size_t kRoundTableStride = 16 * 256;

#if defined(__GNUC__)
#define CORVANE_WB_INLINE inline __attribute__((always_inline))
#else
#define CORVANE_WB_INLINE inline
#endif

// The block function runs on the network's working form (whitebox_tables.h). Where the time goes:
// every round makes 2 x 16 word lookups and 2 x 96 Xor lookups, nearly all of them first-level
// cache misses, so the code keeps the instruction count per lookup low and issues independent
// lookups early:
//  - The index of a first-level Xor lookup is the byte u*16 + w built from one nibble of each of
//    two words. For a pair (a, b) with b stored nibble-swapped, m = (a ^ b) & 0x0F0F0F0F gives
//    a ^ m = (a_high, b_high) and b ^ m = (b_low, a_low) in every byte at once: all eight
//    indices of the pair in four operations. The second is transposed, which is why the second
//    packed table is stored transposed.
//  - Two nibble tables share each 256-byte packed table (one in each half of a byte), halving the
//    Xor set's footprint; a lookup masks its half. The first table's half is already shifted, so
//    a second-level index is (first & 0xF0) | (second & 0x0F) and an output byte is formed the
//    same way.
//  - All sixteen word lookups of a layer are issued before any Xor lookup, then the Xor work is
//    done two columns at a time, which keeps enough independent cache misses in flight.
//  - Table offsets are pointer arithmetic on size_t indices so they fold into the loads.

// First-level Xor lookups of one column's output byte q: `t` is the byte's packed tables,
// `shift` selects byte q in the combined words. Returns the two second-level indices.
struct SecondLevel {
  size_t high;
  size_t low;
};

CORVANE_WB_INLINE SecondLevel firstLevel(const uint8_t* t, unsigned shift, size_t abHigh,
                                         size_t cdHigh, size_t abLow, size_t cdLow) {
  const size_t e = (t[(abHigh >> shift) & 0xFF] & 0xF0) | (t[(cdHigh >> shift) & 0xFF] & 0x0F);
  const size_t g =
      ((t + 256)[(abLow >> shift) & 0xFF] & 0xF0) | ((t + 256)[(cdLow >> shift) & 0xFF] & 0x0F);
  return {e, g};
}

CORVANE_WB_INLINE uint8_t secondLevel(const uint8_t* t, SecondLevel i) {
  return static_cast<uint8_t>(((t + 512)[i.high] & 0xF0) | ((t + 512)[i.low] & 0x0F));
}

// The combined index words of one column from its four words (b and d nibble-swapped).
struct Combined {
  size_t abHigh, cdHigh, abLow, cdLow;
};

CORVANE_WB_INLINE Combined combine(size_t a, size_t b, size_t c, size_t d) {
  const size_t mab = (a ^ b) & 0x0F0F0F0Fu;
  const size_t mcd = (c ^ d) & 0x0F0F0F0Fu;
  return {a ^ mab, c ^ mcd, b ^ mab, d ^ mcd};
}

// The Xor trees of two adjacent columns j, j+1: `x` points at column j's packed tables (each
// column has 4 x 768 bytes), `out` at state byte 4j.
CORVANE_WB_INLINE void columnPair(const uint8_t* x, const Combined& c0, const Combined& c1,
                                  uint8_t* out) {
  const SecondLevel i00 = firstLevel(x + 0 * 768, 24, c0.abHigh, c0.cdHigh, c0.abLow, c0.cdLow);
  const SecondLevel i01 = firstLevel(x + 1 * 768, 16, c0.abHigh, c0.cdHigh, c0.abLow, c0.cdLow);
  const SecondLevel i02 = firstLevel(x + 2 * 768, 8, c0.abHigh, c0.cdHigh, c0.abLow, c0.cdLow);
  const SecondLevel i03 = firstLevel(x + 3 * 768, 0, c0.abHigh, c0.cdHigh, c0.abLow, c0.cdLow);
  const SecondLevel i10 = firstLevel(x + 4 * 768, 24, c1.abHigh, c1.cdHigh, c1.abLow, c1.cdLow);
  const SecondLevel i11 = firstLevel(x + 5 * 768, 16, c1.abHigh, c1.cdHigh, c1.abLow, c1.cdLow);
  const SecondLevel i12 = firstLevel(x + 6 * 768, 8, c1.abHigh, c1.cdHigh, c1.abLow, c1.cdLow);
  const SecondLevel i13 = firstLevel(x + 7 * 768, 0, c1.abHigh, c1.cdHigh, c1.abLow, c1.cdLow);
  out[0] = secondLevel(x + 0 * 768, i00);
  out[1] = secondLevel(x + 1 * 768, i01);
  out[2] = secondLevel(x + 2 * 768, i02);
  out[3] = secondLevel(x + 3 * 768, i03);
  out[4] = secondLevel(x + 4 * 768, i10);
  out[5] = secondLevel(x + 5 * 768, i11);
  out[6] = secondLevel(x + 6 * 768, i12);
  out[7] = secondLevel(x + 7 * 768, i13);
}

// One Tybox or MBL layer: position i of the layer reads state byte in[S_i]; with S the ShiftRows
// source for a Tybox layer and the identity for an MBL layer. `tables` is the round's [16][256]
// word table, `x` the round's packed Xor tables.
template <unsigned S0, unsigned S1, unsigned S2, unsigned S3, unsigned S4, unsigned S5, unsigned S6,
          unsigned S7, unsigned S8, unsigned S9, unsigned S10, unsigned S11, unsigned S12,
          unsigned S13, unsigned S14, unsigned S15>
CORVANE_WB_INLINE void layer(const uint32_t* tables, const uint8_t* x, const uint8_t* in,
                             uint8_t* out) {
  const size_t w0 = tables[in[S0]], w1 = (tables + 1 * 256)[in[S1]];
  const size_t w2 = (tables + 2 * 256)[in[S2]], w3 = (tables + 3 * 256)[in[S3]];
  const size_t w4 = (tables + 4 * 256)[in[S4]], w5 = (tables + 5 * 256)[in[S5]];
  const size_t w6 = (tables + 6 * 256)[in[S6]], w7 = (tables + 7 * 256)[in[S7]];
  const size_t w8 = (tables + 8 * 256)[in[S8]], w9 = (tables + 9 * 256)[in[S9]];
  const size_t w10 = (tables + 10 * 256)[in[S10]], w11 = (tables + 11 * 256)[in[S11]];
  const size_t w12 = (tables + 12 * 256)[in[S12]], w13 = (tables + 13 * 256)[in[S13]];
  const size_t w14 = (tables + 14 * 256)[in[S14]], w15 = (tables + 15 * 256)[in[S15]];
  columnPair(x, combine(w0, w1, w2, w3), combine(w4, w5, w6, w7), out);
  columnPair(x + 8 * 768, combine(w8, w9, w10, w11), combine(w12, w13, w14, w15), out + 8);
}

// Keeps the state bytes in memory between layers. Without it the compiler tries to hold all
// sixteen of them in registers across the layer and spills far more than these stores cost.
CORVANE_WB_INLINE void stateBarrier(const uint8_t* a, const uint8_t* b) {
#if defined(__GNUC__)
  __asm__ volatile("" : : "r"(a), "r"(b) : "memory");
#else
  (void)a, (void)b;
#endif
}

// `scratch` holds the two 16-byte state buffers; callers wipe it once they are done.
CORVANE_WB_INLINE void blockFunction(uint8_t* state, const WhiteboxNetwork& network,
                                     uint8_t (&scratch)[32]) {
  uint8_t* s = scratch;
  uint8_t* u = scratch + 16;
  for (unsigned i = 0; i < 16; ++i) s[i] = state[i];
  const uint8_t* x = network.packedXor();
  const uint32_t* tyboxes = network.tyboxes();
  const uint32_t* mbl = network.mbl();
  for (size_t r = 0; r < whitebox::kTableRounds; ++r) {
    layer<0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11>(tyboxes, x, s, u);
    stateBarrier(s, u);
    layer<0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15>(mbl, x, u, s);
    stateBarrier(s, u);
    x += whitebox::kPackedXorRoundStride;
    tyboxes += kRoundTableStride;
    mbl += kRoundTableStride;
  }
  static constexpr uint8_t kP[16] = {0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11};
  const uint8_t* last = network.tboxesLast();
  for (unsigned i = 0; i < 16; ++i) state[i] = last[256 * i + s[kP[i]]];
}

bool hexDigit(char c, uint8_t& value) {
  if (c >= '0' && c <= '9') {
    value = static_cast<uint8_t>(c - '0');
  } else if (c >= 'a' && c <= 'f') {
    value = static_cast<uint8_t>(c - 'a' + 10);
  } else if (c >= 'A' && c <= 'F') {
    value = static_cast<uint8_t>(c - 'A' + 10);
  } else {
    return false;
  }
  return true;
}

}  // namespace

void ShiftRows(std::span<uint8_t, 16> state) {
  static constexpr uint8_t kP[16] = {0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11};
  uint8_t old[16];
  for (size_t i = 0; i < 16; ++i) old[i] = state[i];
  for (size_t i = 0; i < 16; ++i) state[i] = old[kP[i]];
  OPENSSL_cleanse(old, sizeof(old));
}

void CipherDetail(std::span<uint8_t, 16> state, const WhiteboxNetwork& network) {
  alignas(16) uint8_t scratch[32];
  blockFunction(state.data(), network, scratch);
  OPENSSL_cleanse(scratch, sizeof(scratch));
}

namespace whitebox {

bool cfbEncrypt(const WhiteboxNetwork& network, std::span<const uint8_t, 16> iv, ByteView input,
                std::span<uint8_t> output, std::span<const uint8_t> externalEncoding) {
  if (output.size() < input.size()) return false;
  if (!externalEncoding.empty() && externalEncoding.size() != kExternalEncodingCount) return false;
  const uint8_t* encoding = externalEncoding.empty() ? nullptr : externalEncoding.data();
  alignas(16) uint8_t reg[16];
  alignas(16) uint8_t scratch[32];
  for (size_t k = 0; k < 16; ++k) reg[k] = iv[k];
  for (size_t i = 0; i < input.size(); ++i) {
    const size_t k = i % 16;
    if (k == 0) blockFunction(reg, network, scratch);
    const uint8_t c = static_cast<uint8_t>(reg[k] ^ input[i]);
    reg[k] = c;
    output[i] = encoding ? encoding[256 * k + c] : c;
  }
  OPENSSL_cleanse(reg, sizeof(reg));
  OPENSSL_cleanse(scratch, sizeof(scratch));
  return true;
}

bool cfbDecrypt(const WhiteboxNetwork& network, std::span<const uint8_t, 16> iv, ByteView input,
                std::span<uint8_t> output) {
  if (output.size() < input.size()) return false;
  alignas(16) uint8_t reg[16];
  alignas(16) uint8_t scratch[32];
  for (size_t k = 0; k < 16; ++k) reg[k] = iv[k];
  for (size_t i = 0; i < input.size(); ++i) {
    const size_t k = i % 16;
    if (k == 0) blockFunction(reg, network, scratch);
    const uint8_t c = input[i];
    output[i] = static_cast<uint8_t>(reg[k] ^ c);
    reg[k] = c;
  }
  OPENSSL_cleanse(reg, sizeof(reg));
  OPENSSL_cleanse(scratch, sizeof(scratch));
  return true;
}

}  // namespace whitebox

bool aes_whitebox_encrypt_cfb(std::span<const uint8_t, 16> iv, ByteView input,
                              std::span<uint8_t> output, std::span<const uint32_t> tyboxes,
                              std::span<const uint8_t> tboxesLast, std::span<const uint32_t> mbl,
                              std::span<const uint8_t> externalEncoding) {
  const auto tables =
      whitebox::WhiteboxUserTables::fromArrays(tyboxes, tboxesLast, mbl, externalEncoding);
  if (!tables) return false;
  return whitebox::cfbEncrypt(tables->network(), iv, input, output, tables->externalEncoding());
}

bool aes_whitebox_decrypt_cfb(std::span<const uint8_t, 16> iv, ByteView input,
                              std::span<uint8_t> output) {
  const WhiteboxNetwork* network = whitebox::builtinNetwork();
  if (network == nullptr) return false;
  return whitebox::cfbDecrypt(*network, iv, input, output);
}

bool read_hex(std::string_view hex, std::span<uint8_t> output, size_t count, std::string_view label,
              Error* error) {
  bool valid =
      count != 0 && count <= output.size() && hex.size() / 2 == count && hex.size() % 2 == 0;
  uint8_t high = 0, low = 0;
  for (size_t i = 0; valid && i < hex.size(); ++i) valid = hexDigit(hex[i], high);
  if (!valid) {
    setError(error, Error::corvane(code(CorvaneStatusCode::INVALID_ARGUMENT),
                                   std::string(label) + " must be " + std::to_string(2 * count) +
                                       " hexadecimal characters."));
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    hexDigit(hex[2 * i], high);
    hexDigit(hex[2 * i + 1], low);
    output[i] = static_cast<uint8_t>((high << 4) | low);
  }
  return true;
}

}  // namespace corvane
