#include "crypto/aes_wb_helper.h"

#include <openssl/crypto.h>

#include <array>

#include "crypto/whitebox.h"

namespace corvane {

namespace {

std::optional<std::array<uint8_t, 16>> readIV(std::string_view iv) {
  std::array<uint8_t, 16> bytes{};
  if (!read_hex(iv, bytes, bytes.size(), "iv-or-nonce")) return std::nullopt;
  return bytes;
}

}  // namespace

std::optional<Bytes> AesWBHelper::encryptAesWB(ByteView plain, std::string_view iv,
                                               std::span<const uint32_t> tyboxes,
                                               std::span<const uint8_t> tboxesLast,
                                               std::span<const uint32_t> mbl,
                                               std::span<const uint8_t> externalEncoding) {
  const auto ivBytes = readIV(iv);
  if (!ivBytes) return std::nullopt;
  Bytes cipher(plain.size());
  if (!aes_whitebox_encrypt_cfb(*ivBytes, plain, cipher, tyboxes, tboxesLast, mbl,
                                externalEncoding)) {
    return std::nullopt;
  }
  return cipher;
}

std::optional<Bytes> AesWBHelper::encryptAesWB(ByteView plain, std::string_view iv,
                                               const whitebox::WhiteboxUserTables& tables) {
  const auto ivBytes = readIV(iv);
  if (!ivBytes) return std::nullopt;
  Bytes cipher(plain.size());
  if (!whitebox::cfbEncrypt(tables.network(), *ivBytes, plain, cipher, tables.externalEncoding())) {
    return std::nullopt;
  }
  return cipher;
}

std::optional<SecretBytes> AesWBHelper::decryptAesWB(std::string_view cipherHexString,
                                                     size_t length) {
  const auto ivBytes = readIV(kBuiltinIV);
  if (!ivBytes || length == 0 || cipherHexString.size() / 2 != length) return std::nullopt;
  Bytes cipher(length);
  std::optional<SecretBytes> plain;
  if (read_hex(cipherHexString, cipher, length, "cipherHexString")) {
    plain.emplace(length);
    if (!aes_whitebox_decrypt_cfb(*ivBytes, cipher, plain->mutableSecret())) plain.reset();
  }
  OPENSSL_cleanse(cipher.data(), cipher.size());
  return plain;
}

std::string AesWBHelper::generateIV(std::string_view text) {
  return Utils::sha256(text).substr(0, 32);
}

}  // namespace corvane
