#include "corvane-rp/core/wb_extension.h"

#include <openssl/evp.h>

#include <array>

#include "crypto/aes_wb_helper.h"
#include "crypto/openssl_handles.h"

namespace corvane::rp {
namespace {

constexpr size_t kKeySize = 32;
constexpr size_t kEncodingSize = 16 * 256;

std::optional<Bytes> strictHex(std::string_view text) {
  if (text.empty() || text.size() % 2 != 0) return std::nullopt;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
      return std::nullopt;
    }
  }
  return Utils::hexString2NSData(text);
}

// Base64url without padding, in its one canonical spelling.
std::optional<Bytes> strictBase64Url(std::string_view text) {
  std::optional<Bytes> bytes = Utils::decodeBase64Url(text);
  if (!bytes || bytes->empty() || Utils::base64URLSafeStringFromData(*bytes) != text) {
    return std::nullopt;
  }
  return bytes;
}

}  // namespace

std::optional<Bytes> decipherWbExtension(const WbUserSecret& secret, std::string_view challenge,
                                         std::string_view cipherText) {
  if (secret.key.size() != kKeySize || secret.externalEncoding.size() != kEncodingSize) {
    return std::nullopt;
  }
  std::optional<Bytes> cipher = strictBase64Url(cipherText);
  std::optional<Bytes> iv = strictHex(AesWBHelper::generateIV(challenge));
  if (!cipher || !iv || iv->size() != 16) return std::nullopt;
  // Undo the external encoding: position k of each block went through permutation k.
  std::array<uint8_t, kEncodingSize> inverse{};
  for (size_t k = 0; k < 16; ++k) {
    for (size_t v = 0; v < 256; ++v) {
      inverse[256 * k + secret.externalEncoding[256 * k + v]] = static_cast<uint8_t>(v);
    }
  }
  for (size_t i = 0; i < cipher->size(); ++i) {
    (*cipher)[i] = inverse[256 * (i % 16) + (*cipher)[i]];
  }
  CipherCtxPtr context(EVP_CIPHER_CTX_new());
  Bytes plain(cipher->size() + 16);
  int written = 0;
  int tail = 0;
  if (!context ||
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_cfb128(), nullptr,
                         secret.key.exposeSecret().data(), iv->data()) != 1 ||
      EVP_DecryptUpdate(context.get(), plain.data(), &written, cipher->data(),
                        static_cast<int>(cipher->size())) != 1 ||
      EVP_DecryptFinal_ex(context.get(), plain.data() + written, &tail) != 1) {
    return std::nullopt;
  }
  plain.resize(static_cast<size_t>(written + tail));
  return plain;
}

}  // namespace corvane::rp
