// SecretBytes: a byte buffer for key material, patterns, key handles and other secrets.
// Its storage is wiped whenever it is released (including on growth), equality runs in constant
// time, and it has no stream operator. The bytes are reachable only through exposeSecret() and
// mutableSecret(), so every place that touches them is easy to find.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace corvane {

namespace internal {
void secureWipe(void* data, size_t size);
bool constantTimeEqual(const void* a, const void* b, size_t size);

// Allocator that wipes every block before giving it back to the heap.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() noexcept = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) noexcept {}
  T* allocate(size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* p, size_t n) noexcept {
    secureWipe(p, n * sizeof(T));
    std::allocator<T>().deallocate(p, n);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const noexcept {
    return true;
  }
};
}  // namespace internal

class SecretBytes {
 public:
  SecretBytes() = default;
  // `size` zero bytes.
  explicit SecretBytes(size_t size) : data_(size) {}
  explicit SecretBytes(std::span<const uint8_t> bytes) : data_(bytes.begin(), bytes.end()) {}
  static SecretBytes fromText(std::string_view text) {
    return SecretBytes(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
  }

  SecretBytes(const SecretBytes&) = default;
  SecretBytes& operator=(const SecretBytes&) = default;
  SecretBytes(SecretBytes&&) noexcept = default;
  SecretBytes& operator=(SecretBytes&&) noexcept = default;
  ~SecretBytes() { clear(); }

  size_t size() const { return data_.size(); }
  bool empty() const { return data_.empty(); }

  std::span<const uint8_t> exposeSecret() const { return data_; }
  std::span<uint8_t> mutableSecret() { return data_; }
  std::string_view exposeSecretText() const {
    return {reinterpret_cast<const char*>(data_.data()), data_.size()};
  }

  // Growth is kept out of line: it is not hot, and g++ -O3 misreports inlined vector growth.
  void append(std::span<const uint8_t> bytes);
  void resize(size_t size);
  // Wipes the bytes and leaves the buffer empty.
  void clear() {
    secureWipe(data_.data(), data_.size());
    data_.clear();
  }

  // Sizes are not secret; contents are compared in constant time.
  friend bool operator==(const SecretBytes& a, const SecretBytes& b) {
    return a.size() == b.size() &&
           internal::constantTimeEqual(a.data_.data(), b.data_.data(), a.size());
  }

  // GoogleTest printer: shows the size only.
  friend void PrintTo(const SecretBytes& secret, std::ostream* os);

 private:
  static void secureWipe(void* p, size_t n) { internal::secureWipe(p, n); }
  std::vector<uint8_t, internal::WipingAllocator<uint8_t>> data_;
};

}  // namespace corvane
