#include "crypto/sealed_box.h"

#include <cstring>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "crypto/openssl_handles.h"

namespace corvane::sealed_box {

namespace {

bool fitsInt(size_t size) {
  return size <= 0x7fffffff;
}

// AES-256-GCM, fetched once: OpenSSL would otherwise look the cipher up by name on every
// initialisation. The fetched cipher is kept for the life of the process.
const EVP_CIPHER* aes256Gcm() {
  static EVP_CIPHER* const fetched = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
  return fetched != nullptr ? fetched : EVP_aes_256_gcm();
}

}  // namespace

std::optional<Bytes> seal(const SecretBytes& key, ByteView associatedData, ByteView plain) {
  if (key.size() != kKeySize || !fitsInt(associatedData.size()) ||
      !fitsInt(plain.size() + kOverhead)) {
    return std::nullopt;
  }
  Bytes out(kNonceSize + plain.size() + kTagSize);
  if (RAND_bytes(out.data(), static_cast<int>(kNonceSize)) != 1) return std::nullopt;
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int length = 0;
  int finalLength = 0;
  if (!ctx ||
      EVP_EncryptInit_ex(ctx.get(), aes256Gcm(), nullptr, key.exposeSecret().data(), out.data()) !=
          1 ||
      EVP_EncryptUpdate(ctx.get(), nullptr, &length, associatedData.data(),
                        static_cast<int>(associatedData.size())) != 1 ||
      EVP_EncryptUpdate(ctx.get(), out.data() + kNonceSize, &length, plain.data(),
                        static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(ctx.get(), out.data() + kNonceSize + length, &finalLength) != 1 ||
      static_cast<size_t>(length + finalLength) != plain.size() ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagSize),
                          out.data() + kNonceSize + plain.size()) != 1) {
    return std::nullopt;
  }
  return out;
}

std::optional<SecretBytes> open(const SecretBytes& key, ByteView associatedData, ByteView sealed,
                                size_t maxPlainSize) {
  if (key.size() != kKeySize || sealed.size() < kOverhead || !fitsInt(associatedData.size()) ||
      !fitsInt(sealed.size())) {
    return std::nullopt;
  }
  const size_t cipherSize = sealed.size() - kOverhead;
  if (cipherSize > maxPlainSize) return std::nullopt;
  // OpenSSL takes the expected tag through a non-const pointer; copy it out of the seal.
  uint8_t tag[kTagSize];
  std::memcpy(tag, sealed.data() + kNonceSize + cipherSize, kTagSize);
  SecretBytes plain(cipherSize);
  CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int length = 0;
  int finalLength = 0;
  if (!ctx ||
      EVP_DecryptInit_ex(ctx.get(), aes256Gcm(), nullptr, key.exposeSecret().data(),
                         sealed.data()) != 1 ||
      EVP_DecryptUpdate(ctx.get(), nullptr, &length, associatedData.data(),
                        static_cast<int>(associatedData.size())) != 1 ||
      EVP_DecryptUpdate(ctx.get(), plain.mutableSecret().data(), &length,
                        sealed.data() + kNonceSize, static_cast<int>(cipherSize)) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagSize), tag) != 1 ||
      EVP_DecryptFinal_ex(ctx.get(), plain.mutableSecret().data() + length, &finalLength) != 1 ||
      static_cast<size_t>(length + finalLength) != cipherSize) {
    return std::nullopt;
  }
  return plain;
}

void appendField(Bytes& out, ByteView field) {
  const size_t size = field.size();
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(size >> shift));
  out.insert(out.end(), field.begin(), field.end());
}

void appendOptionalField(Bytes& out, std::optional<ByteView> field) {
  out.push_back(field ? 1 : 0);
  if (field) appendField(out, *field);
}

}  // namespace corvane::sealed_box
