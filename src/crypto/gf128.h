// GHASH arithmetic in GF(2^128) for AES-GCM, in constant time.
//
// Two interchangeable implementations sit behind one key object: carry-less multiplication with
// the PCLMULQDQ instruction (x86-64, chosen at run time when the processor has it), and a portable
// multiplication built from ordinary 64-bit integer products with masked-out "holes" so that no
// carries leak between the bits that matter. Neither indexes a table by secret data nor branches on
// it. A caller may pin one implementation, which the tests use to compare the two.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane::gf128 {

// A 16-byte block read as a big-endian 128-bit integer: `hi` holds bytes 0-7, `lo` bytes 8-15.
// The layout (lo first) matches an SSE register loaded from it on a little-endian machine.
struct alignas(16) Element {
  uint64_t lo = 0;
  uint64_t hi = 0;

  bool operator==(const Element&) const = default;
};

Element loadBlock(const uint8_t* block);
void storeBlock(const Element& value, uint8_t* block);

enum class Backend {
  kAuto,      // PCLMULQDQ when the processor supports it, the portable code otherwise
  kPortable,  // always the portable code
  kPclmul,    // PCLMULQDQ; falls back to the portable code where the processor lacks it
};

// True when this build and this processor can run the PCLMULQDQ implementation.
bool pclmulSupported();

// The implementation `requested` resolves to on this machine (never kAuto).
Backend resolveBackend(Backend requested);

// The product of two field elements in GCM's bit order (the first bit of a block is the
// coefficient of x^0), reduced modulo x^128 + x^7 + x^2 + x + 1.
Element multiply(const Element& a, const Element& b, Backend backend = Backend::kAuto);

// The hash subkey H with the powers H^2..H^4 prepared for aggregated reduction, which folds four
// blocks into the running value with a single reduction. Wiped on destruction.
class GhashKey {
 public:
  GhashKey() = default;
  GhashKey(const uint8_t hashSubkey[16], Backend backend);
  GhashKey(const GhashKey& other) = default;
  GhashKey& operator=(const GhashKey& other) = default;
  ~GhashKey();

  // Continues GHASH over `blockCount` whole 16-byte blocks at `data`: for each block X,
  // y = (y ^ X) * H.
  void update(Element& y, const uint8_t* data, size_t blockCount) const;

  // Continues GHASH over `length` bytes, the last partial block padded with zero bytes.
  void updatePadded(Element& y, const uint8_t* data, size_t length) const;

  Backend backend() const { return backend_; }

 private:
  Element powers_[4];  // H, H^2, H^3, H^4
  Backend backend_ = Backend::kPortable;
};

}  // namespace corvane::gf128
