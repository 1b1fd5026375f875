#include <corvane/secret_bytes.h>

#include <openssl/crypto.h>

#include <ostream>

namespace corvane {
namespace internal {

void secureWipe(void* data, size_t size) {
  if (data != nullptr && size != 0) OPENSSL_cleanse(data, size);
}

bool constantTimeEqual(const void* a, const void* b, size_t size) {
  return size == 0 || CRYPTO_memcmp(a, b, size) == 0;
}

}  // namespace internal

void SecretBytes::append(std::span<const uint8_t> bytes) {
  data_.insert(data_.end(), bytes.begin(), bytes.end());
}

void SecretBytes::resize(size_t size) {
  if (size < data_.size()) secureWipe(data_.data() + size, data_.size() - size);
  data_.resize(size);
}

void PrintTo(const SecretBytes& secret, std::ostream* os) {
  *os << "SecretBytes(" << secret.size() << " bytes)";
}

}  // namespace corvane
