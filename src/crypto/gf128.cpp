// GHASH multiplication, portable and PCLMULQDQ.
//
// Both work on blocks read as big-endian integers without reversing their bits (GCM's "reflected"
// order). The carry-less product of two such integers is the bit-reversal of the true product over
// 255 bits; shifted left by one it is the bit-reversal over 256 bits, so its high 128 bits hold the
// low half of the true product and its low 128 bits the high half (reversed). Reduction by
// x^128 = x^7 + x^2 + x + 1 then folds the low 128 bits into the high ones, one 64-bit word at a
// time: a bit at position p of the lower word lands at p + 128, p + 127, p + 126 and p + 121.
#include "crypto/gf128.h"

#include <openssl/crypto.h>

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#include <wmmintrin.h>
#define CORVANE_GF128_HAVE_PCLMUL 1
#endif

namespace corvane::gf128 {

namespace {

uint64_t loadBigEndian64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
  return v;
}

void storeBigEndian64(uint64_t v, uint8_t* p) {
  for (int i = 7; i >= 0; --i) {
    p[i] = static_cast<uint8_t>(v);
    v >>= 8;
  }
}

// ---- Portable implementation ----

// Low 64 bits of the carry-less product x * y, from four integer products per output class. Each
// operand is split into the bits at positions 0, 1, 2, 3 modulo 4; a product of two such parts has
// its terms only at one residue modulo 4, at most 16 of them per position, so the sum at a position
// spills into the three positions above it (other residues, masked off afterwards) and reaches the
// next position of its own residue only beyond bit 63. The low bit of each count is the XOR sum.
uint64_t clmulLow64(uint64_t x, uint64_t y) {
  constexpr uint64_t m0 = 0x1111111111111111ULL;
  constexpr uint64_t m1 = 0x2222222222222222ULL;
  constexpr uint64_t m2 = 0x4444444444444444ULL;
  constexpr uint64_t m3 = 0x8888888888888888ULL;
  const uint64_t x0 = x & m0, x1 = x & m1, x2 = x & m2, x3 = x & m3;
  const uint64_t y0 = y & m0, y1 = y & m1, y2 = y & m2, y3 = y & m3;
  uint64_t z0 = (x0 * y0) ^ (x1 * y3) ^ (x2 * y2) ^ (x3 * y1);
  uint64_t z1 = (x0 * y1) ^ (x1 * y0) ^ (x2 * y3) ^ (x3 * y2);
  uint64_t z2 = (x0 * y2) ^ (x1 * y1) ^ (x2 * y0) ^ (x3 * y3);
  uint64_t z3 = (x0 * y3) ^ (x1 * y2) ^ (x2 * y1) ^ (x3 * y0);
  return (z0 & m0) | (z1 & m1) | (z2 & m2) | (z3 & m3);
}

uint64_t reverseBits64(uint64_t x) {
  x = ((x >> 1) & 0x5555555555555555ULL) | ((x & 0x5555555555555555ULL) << 1);
  x = ((x >> 2) & 0x3333333333333333ULL) | ((x & 0x3333333333333333ULL) << 2);
  x = ((x >> 4) & 0x0F0F0F0F0F0F0F0FULL) | ((x & 0x0F0F0F0F0F0F0F0FULL) << 4);
  return __builtin_bswap64(x);
}

// High 64 bits of the carry-less product (bit 127 is always zero): the low half of the product of
// the reversed operands is the reversed upper part of the product.
uint64_t clmulHigh64(uint64_t xReversed, uint64_t yReversed) {
  return reverseBits64(clmulLow64(xReversed, yReversed)) >> 1;
}

// The hash subkey's words with their bit-reversals and Karatsuba sums, prepared once per update.
struct PortableKey {
  uint64_t h0, h1, h2, h0r, h1r, h2r;
  explicit PortableKey(const Element& h)
      : h0(h.lo),
        h1(h.hi),
        h2(h.lo ^ h.hi),
        h0r(reverseBits64(h.lo)),
        h1r(reverseBits64(h.hi)),
        h2r(reverseBits64(h.lo) ^ reverseBits64(h.hi)) {}
  ~PortableKey() { OPENSSL_cleanse(this, sizeof(*this)); }
};

Element multiplyPortable(const Element& y, const PortableKey& k) {
  const uint64_t y0 = y.lo, y1 = y.hi, y2 = y0 ^ y1;
  const uint64_t y0r = reverseBits64(y0), y1r = reverseBits64(y1), y2r = y0r ^ y1r;

  // Karatsuba: three 64x64 products, each as a low and a high half.
  const uint64_t z0 = clmulLow64(y0, k.h0);
  const uint64_t z1 = clmulLow64(y1, k.h1);
  uint64_t z2 = clmulLow64(y2, k.h2);
  const uint64_t z0h = clmulHigh64(y0r, k.h0r);
  const uint64_t z1h = clmulHigh64(y1r, k.h1r);
  uint64_t z2h = clmulHigh64(y2r, k.h2r);
  z2 ^= z0 ^ z1;
  z2h ^= z0h ^ z1h;

  // The 255-bit product as four words, low word first, then shifted left by one.
  uint64_t v0 = z0;
  uint64_t v1 = z0h ^ z2;
  uint64_t v2 = z1 ^ z2h;
  uint64_t v3 = z1h;
  v3 = (v3 << 1) | (v2 >> 63);
  v2 = (v2 << 1) | (v1 >> 63);
  v1 = (v1 << 1) | (v0 >> 63);
  v0 <<= 1;

  // Fold v0 into v2:v1, then the updated v1 into v3:v2.
  v2 ^= v0 ^ (v0 >> 1) ^ (v0 >> 2) ^ (v0 >> 7);
  v1 ^= (v0 << 63) ^ (v0 << 62) ^ (v0 << 57);
  v3 ^= v1 ^ (v1 >> 1) ^ (v1 >> 2) ^ (v1 >> 7);
  v2 ^= (v1 << 63) ^ (v1 << 62) ^ (v1 << 57);
  return Element{v2, v3};
}

void updatePortable(const Element& h, Element& y, const uint8_t* data, size_t blockCount) {
  const PortableKey key(h);
  Element acc = y;
  for (size_t i = 0; i < blockCount; ++i, data += 16) {
    acc.hi ^= loadBigEndian64(data);
    acc.lo ^= loadBigEndian64(data + 8);
    acc = multiplyPortable(acc, key);
  }
  y = acc;
}

// ---- PCLMULQDQ implementation ----

#if defined(CORVANE_GF128_HAVE_PCLMUL)

#define CORVANE_PCLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

// Unreduced 256-bit product accumulators: low, middle (cross terms) and high 128 bits.
struct Wide {
  __m128i lo, mid, hi;
};

CORVANE_PCLMUL_TARGET inline __m128i loadReversed(const uint8_t* p, __m128i byteSwap) {
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), byteSwap);
}

CORVANE_PCLMUL_TARGET inline Wide clmulWide(__m128i a, __m128i b) {
  return Wide{_mm_clmulepi64_si128(a, b, 0x00),
              _mm_xor_si128(_mm_clmulepi64_si128(a, b, 0x01), _mm_clmulepi64_si128(a, b, 0x10)),
              _mm_clmulepi64_si128(a, b, 0x11)};
}

CORVANE_PCLMUL_TARGET inline void accumulate(Wide& acc, __m128i a, __m128i b) {
  const Wide p = clmulWide(a, b);
  acc.lo = _mm_xor_si128(acc.lo, p.lo);
  acc.mid = _mm_xor_si128(acc.mid, p.mid);
  acc.hi = _mm_xor_si128(acc.hi, p.hi);
}

// Per 64-bit lane: x<<63 ^ x<<62 ^ x<<57, the part of a folded word that lands one word higher.
CORVANE_PCLMUL_TARGET inline __m128i foldLeft(__m128i x) {
  return _mm_xor_si128(_mm_xor_si128(_mm_slli_epi64(x, 63), _mm_slli_epi64(x, 62)),
                       _mm_slli_epi64(x, 57));
}

// Per 64-bit lane: x ^ x>>1 ^ x>>2 ^ x>>7, the part that lands two words higher.
CORVANE_PCLMUL_TARGET inline __m128i foldRight(__m128i x) {
  return _mm_xor_si128(_mm_xor_si128(x, _mm_srli_epi64(x, 1)),
                       _mm_xor_si128(_mm_srli_epi64(x, 2), _mm_srli_epi64(x, 7)));
}

CORVANE_PCLMUL_TARGET inline __m128i reduce(const Wide& w) {
  // Combine into low (v1:v0) and high (v3:v2) halves.
  __m128i lo = _mm_xor_si128(w.lo, _mm_slli_si128(w.mid, 8));
  __m128i hi = _mm_xor_si128(w.hi, _mm_srli_si128(w.mid, 8));
  // Shift the 256-bit value left by one.
  const __m128i carryLo = _mm_srli_epi64(lo, 63);
  const __m128i carryHi = _mm_srli_epi64(hi, 63);
  lo = _mm_or_si128(_mm_slli_epi64(lo, 1), _mm_slli_si128(carryLo, 8));
  hi = _mm_or_si128(_mm_or_si128(_mm_slli_epi64(hi, 1), _mm_slli_si128(carryHi, 8)),
                    _mm_srli_si128(carryLo, 8));
  // Fold v0 into v1 first; then v0 and the updated v1 into v2 and v3.
  lo = _mm_xor_si128(lo, _mm_slli_si128(foldLeft(lo), 8));
  hi = _mm_xor_si128(hi, foldRight(lo));
  hi = _mm_xor_si128(hi, _mm_srli_si128(foldLeft(lo), 8));
  return hi;
}

CORVANE_PCLMUL_TARGET Element multiplyPclmul(const Element& a, const Element& b) {
  const __m128i r = reduce(clmulWide(_mm_load_si128(reinterpret_cast<const __m128i*>(&a)),
                                     _mm_load_si128(reinterpret_cast<const __m128i*>(&b))));
  Element out;
  _mm_store_si128(reinterpret_cast<__m128i*>(&out), r);
  return out;
}

CORVANE_PCLMUL_TARGET void updatePclmul(const Element powers[4], Element& y, const uint8_t* data,
                                        size_t blockCount) {
  const __m128i byteSwap = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i h1 = _mm_load_si128(reinterpret_cast<const __m128i*>(&powers[0]));
  __m128i acc = _mm_load_si128(reinterpret_cast<const __m128i*>(&y));
  if (blockCount >= 4) {
    const __m128i h2 = _mm_load_si128(reinterpret_cast<const __m128i*>(&powers[1]));
    const __m128i h3 = _mm_load_si128(reinterpret_cast<const __m128i*>(&powers[2]));
    const __m128i h4 = _mm_load_si128(reinterpret_cast<const __m128i*>(&powers[3]));
    // y' = (y ^ X1) H^4 ^ X2 H^3 ^ X3 H^2 ^ X4 H, reduced once.
    for (; blockCount >= 4; blockCount -= 4, data += 64) {
      const __m128i x1 = _mm_xor_si128(acc, loadReversed(data, byteSwap));
      Wide w = clmulWide(x1, h4);
      accumulate(w, loadReversed(data + 16, byteSwap), h3);
      accumulate(w, loadReversed(data + 32, byteSwap), h2);
      accumulate(w, loadReversed(data + 48, byteSwap), h1);
      acc = reduce(w);
    }
  }
  for (; blockCount > 0; --blockCount, data += 16) {
    acc = reduce(clmulWide(_mm_xor_si128(acc, loadReversed(data, byteSwap)), h1));
  }
  _mm_store_si128(reinterpret_cast<__m128i*>(&y), acc);
}

bool detectPclmul() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

#endif  // CORVANE_GF128_HAVE_PCLMUL

}  // namespace

Element loadBlock(const uint8_t* block) {
  return Element{loadBigEndian64(block + 8), loadBigEndian64(block)};
}

void storeBlock(const Element& value, uint8_t* block) {
  storeBigEndian64(value.hi, block);
  storeBigEndian64(value.lo, block + 8);
}

bool pclmulSupported() {
#if defined(CORVANE_GF128_HAVE_PCLMUL)
  static const bool supported = detectPclmul();
  return supported;
#else
  return false;
#endif
}

Backend resolveBackend(Backend requested) {
  if (requested == Backend::kPortable) return Backend::kPortable;
  return pclmulSupported() ? Backend::kPclmul : Backend::kPortable;
}

Element multiply(const Element& a, const Element& b, Backend backend) {
#if defined(CORVANE_GF128_HAVE_PCLMUL)
  if (resolveBackend(backend) == Backend::kPclmul) return multiplyPclmul(a, b);
#else
  (void)backend;
#endif
  return multiplyPortable(a, PortableKey(b));
}

GhashKey::GhashKey(const uint8_t hashSubkey[16], Backend backend)
    : backend_(resolveBackend(backend)) {
  powers_[0] = loadBlock(hashSubkey);
  for (int i = 1; i < 4; ++i) powers_[i] = multiply(powers_[i - 1], powers_[0], backend_);
}

GhashKey::~GhashKey() {
  OPENSSL_cleanse(powers_, sizeof(powers_));
}

void GhashKey::update(Element& y, const uint8_t* data, size_t blockCount) const {
  if (blockCount == 0) return;
#if defined(CORVANE_GF128_HAVE_PCLMUL)
  if (backend_ == Backend::kPclmul) {
    updatePclmul(powers_, y, data, blockCount);
    return;
  }
#endif
  updatePortable(powers_[0], y, data, blockCount);
}

void GhashKey::updatePadded(Element& y, const uint8_t* data, size_t length) const {
  const size_t whole = length / 16;
  update(y, data, whole);
  const size_t rest = length % 16;
  if (rest != 0) {
    uint8_t last[16] = {};
    std::memcpy(last, data + whole * 16, rest);
    update(y, last, 1);
  }
}

}  // namespace corvane::gf128
