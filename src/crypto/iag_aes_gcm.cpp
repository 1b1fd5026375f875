#include "crypto/iag_aes_gcm.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace corvane {

namespace {

// Counter blocks enciphered per OpenSSL call (1 KiB), so the cipher runs its pipelined ECB path.
constexpr size_t kBatchBlocks = 64;

void storeBigEndian32(uint32_t v, uint8_t* p) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

uint32_t loadBigEndian32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

void storeBigEndian64(uint64_t v, uint8_t* p) {
  storeBigEndian32(static_cast<uint32_t>(v >> 32), p);
  storeBigEndian32(static_cast<uint32_t>(v), p + 4);
}

// out = a ^ b over `length` bytes, eight at a time where possible.
void xorBytes(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t length) {
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    uint64_t x, y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    x ^= y;
    std::memcpy(out + i, &x, 8);
  }
  for (; i < length; ++i) out[i] = a[i] ^ b[i];
}

const EVP_CIPHER* ecbCipherForKeyLength(size_t keyLength) {
  switch (keyLength) {
    case 16:
      return EVP_aes_128_ecb();
    case 24:
      return EVP_aes_192_ecb();
    case 32:
      return EVP_aes_256_ecb();
    default:
      return nullptr;
  }
}

}  // namespace

// ---- IAGCipheredData ----

bool IAGCipheredData::isEqualToCipheredData(const IAGCipheredData& other) const {
  return buffer_ == other.buffer_ && authenticationTag_ == other.authenticationTag_;
}

std::string IAGCipheredData::description() const {
  return "<IAGCipheredData buffer (" + std::to_string(buffer_.size()) +
         " bytes): " + hexadecimalString(buffer_) + " authenticationTag (" +
         std::to_string(authenticationTag_.size()) +
         " bytes): " + hexadecimalString(authenticationTag_) + ">";
}

// ---- Length checks ----

bool IAGAesGcm::isSupportedTagLength(size_t tagLength) {
  return tagLength == 4 || tagLength == 8 || (tagLength >= 12 && tagLength <= 16);
}

bool IAGAesGcm::inputLengthsSupported(uint64_t textLength, uint64_t aadLength, uint64_t ivLength,
                                      size_t tagLength) {
  return textLength <= kMaxTextLength && aadLength < kLengthBound && ivLength > 0 &&
         ivLength < kLengthBound && isSupportedTagLength(tagLength);
}

// ---- Class operations ----

std::optional<IAGCipheredData> IAGAesGcm::cipheredDataByAuthenticatedEncryptingPlainData(
    ByteView plainData, ByteView additionalAuthenticatedData, size_t authenticationTagLength,
    ByteView initializationVector, ByteView key, Error* error) {
  if (!inputLengthsSupported(plainData.size(), additionalAuthenticatedData.size(),
                             initializationVector.size(), authenticationTagLength)) {
    setError(error, IAGErrorFactory::errorInputDataLengthNotSupported());
    return std::nullopt;
  }
  std::optional<Context> context = Context::create(key, error);
  if (!context) return std::nullopt;
  return context->seal(plainData, additionalAuthenticatedData, authenticationTagLength,
                       initializationVector, error);
}

std::optional<SecretBytes> IAGAesGcm::plainDataByAuthenticatedDecryptingCipheredData(
    const IAGCipheredData& cipheredData, ByteView additionalAuthenticatedData,
    ByteView initializationVector, ByteView key, Error* error) {
  if (!inputLengthsSupported(cipheredData.bufferLength(), additionalAuthenticatedData.size(),
                             initializationVector.size(), cipheredData.authenticationTagLength())) {
    setError(error, IAGErrorFactory::errorInputDataLengthNotSupported());
    return std::nullopt;
  }
  std::optional<Context> context = Context::create(key, error);
  if (!context) return std::nullopt;
  return context->open(cipheredData, additionalAuthenticatedData, initializationVector, error);
}

// ---- Context ----

struct IAGAesGcm::Context::CipherState {
  EVP_CIPHER_CTX* ctx = nullptr;
  CipherState() : ctx(EVP_CIPHER_CTX_new()) {}
  CipherState(const CipherState&) = delete;
  CipherState& operator=(const CipherState&) = delete;
  // Freeing the context wipes the key schedule.
  ~CipherState() { EVP_CIPHER_CTX_free(ctx); }
};

IAGAesGcm::Context::Context(std::unique_ptr<CipherState> cipher, const gf128::GhashKey& ghashKey)
    : cipher_(std::move(cipher)), ghashKey_(ghashKey) {}
IAGAesGcm::Context::Context(Context&&) noexcept = default;
IAGAesGcm::Context& IAGAesGcm::Context::operator=(Context&&) noexcept = default;
IAGAesGcm::Context::~Context() = default;

std::optional<IAGAesGcm::Context> IAGAesGcm::Context::create(ByteView key, Error* error,
                                                             gf128::Backend backend) {
  const EVP_CIPHER* cipher = ecbCipherForKeyLength(key.size());
  if (cipher == nullptr) {
    setError(error, IAGErrorFactory::errorAESFailed());
    return std::nullopt;
  }
  auto state = std::make_unique<CipherState>();
  if (state->ctx == nullptr ||
      EVP_EncryptInit_ex(state->ctx, cipher, nullptr, key.data(), nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(state->ctx, 0) != 1) {
    setError(error, IAGErrorFactory::errorAESFailed());
    return std::nullopt;
  }
  Context context(std::move(state), gf128::GhashKey());
  uint8_t hashSubkey[16];
  if (!context.getHashSubkey(hashSubkey)) {
    OPENSSL_cleanse(hashSubkey, sizeof(hashSubkey));
    setError(error, IAGErrorFactory::errorAESFailed());
    return std::nullopt;
  }
  context.ghashKey_ = gf128::GhashKey(hashSubkey, backend);
  OPENSSL_cleanse(hashSubkey, sizeof(hashSubkey));
  return std::optional<Context>(std::move(context));
}

bool IAGAesGcm::Context::encryptBlocks(const uint8_t* in, uint8_t* out, size_t blockCount) {
  const int length = static_cast<int>(blockCount * 16);
  int written = 0;
  return EVP_EncryptUpdate(cipher_->ctx, out, &written, in, length) == 1 && written == length;
}

bool IAGAesGcm::Context::getHashSubkey(uint8_t hashSubkey[16]) {
  const uint8_t zero[16] = {};
  return encryptBlocks(zero, hashSubkey, 1);
}

void IAGAesGcm::Context::getPrecounterBlock(ByteView initializationVector,
                                            uint8_t precounterBlock[16]) const {
  if (initializationVector.size() == 12) {
    std::memcpy(precounterBlock, initializationVector.data(), 12);
    storeBigEndian32(1, precounterBlock + 12);
    return;
  }
  gf128::Element y;
  ghashKey_.updatePadded(y, initializationVector.data(), initializationVector.size());
  uint8_t lengthBlock[16] = {};
  storeBigEndian64(uint64_t{initializationVector.size()} * 8, lengthBlock + 8);
  ghashKey_.update(y, lengthBlock, 1);
  gf128::storeBlock(y, precounterBlock);
}

bool IAGAesGcm::Context::getGCounterBuffer(const uint8_t precounterBlock[16], const uint8_t* in,
                                           uint8_t* out, size_t length, bool encrypting,
                                           gf128::Element& ghash, uint8_t tagMask[16]) {
  alignas(16) uint8_t counters[kBatchBlocks * 16];
  alignas(16) uint8_t keyStream[kBatchBlocks * 16];
  uint32_t counter = loadBigEndian32(precounterBlock + 12);
  size_t done = 0;
  size_t keyStreamUsed = 0;
  bool ok = true;
  bool first = true;
  do {
    // The first batch also enciphers J0 itself, for the tag.
    size_t slot = 0;
    if (first) {
      std::memcpy(counters, precounterBlock, 16);
      slot = 1;
    }
    const size_t blocks = std::min(kBatchBlocks - slot, (length - done + 15) / 16);
    for (size_t i = 0; i < blocks; ++i) {
      uint8_t* block = counters + (slot + i) * 16;
      std::memcpy(block, precounterBlock, 12);
      storeBigEndian32(++counter, block + 12);  // inc32: wraps modulo 2^32
    }
    if (!encryptBlocks(counters, keyStream, slot + blocks)) {
      ok = false;
      break;
    }
    keyStreamUsed = std::max(keyStreamUsed, (slot + blocks) * 16);
    if (first) std::memcpy(tagMask, keyStream, 16);
    const size_t bytes = std::min(blocks * 16, length - done);
    if (encrypting) {
      xorBytes(out + done, in + done, keyStream + slot * 16, bytes);
      ghashKey_.updatePadded(ghash, out + done, bytes);
    } else {
      ghashKey_.updatePadded(ghash, in + done, bytes);
      xorBytes(out + done, in + done, keyStream + slot * 16, bytes);
    }
    done += bytes;
    first = false;
  } while (done < length);
  OPENSSL_cleanse(keyStream, keyStreamUsed);
  return ok;
}

void IAGAesGcm::Context::getGhashBlock(gf128::Element& ghash, uint64_t aadLength,
                                       uint64_t textLength, const uint8_t tagMask[16],
                                       uint8_t tag[16]) const {
  uint8_t lengthBlock[16];
  storeBigEndian64(aadLength * 8, lengthBlock);
  storeBigEndian64(textLength * 8, lengthBlock + 8);
  ghashKey_.update(ghash, lengthBlock, 1);
  uint8_t s[16];
  gf128::storeBlock(ghash, s);
  xorBytes(tag, s, tagMask, 16);
}

bool IAGAesGcm::Context::begin(uint64_t textLength, ByteView additionalAuthenticatedData,
                               ByteView initializationVector, size_t tagLength,
                               uint8_t precounterBlock[16], gf128::Element& ghash,
                               Error* error) const {
  if (!inputLengthsSupported(textLength, additionalAuthenticatedData.size(),
                             initializationVector.size(), tagLength)) {
    setError(error, IAGErrorFactory::errorInputDataLengthNotSupported());
    return false;
  }
  getPrecounterBlock(initializationVector, precounterBlock);
  ghashKey_.updatePadded(ghash, additionalAuthenticatedData.data(),
                         additionalAuthenticatedData.size());
  return true;
}

std::optional<IAGCipheredData> IAGAesGcm::Context::seal(ByteView plainData,
                                                        ByteView additionalAuthenticatedData,
                                                        size_t authenticationTagLength,
                                                        ByteView initializationVector,
                                                        Error* error) {
  uint8_t precounterBlock[16];
  gf128::Element ghash;
  if (!begin(plainData.size(), additionalAuthenticatedData, initializationVector,
             authenticationTagLength, precounterBlock, ghash, error)) {
    return std::nullopt;
  }

  Bytes cipherText(plainData.size());
  uint8_t tagMask[16];
  if (!getGCounterBuffer(precounterBlock, plainData.data(), cipherText.data(), plainData.size(),
                         /*encrypting=*/true, ghash, tagMask)) {
    setError(error, IAGErrorFactory::errorAESFailed());
    return std::nullopt;
  }
  uint8_t tag[16];
  getGhashBlock(ghash, additionalAuthenticatedData.size(), plainData.size(), tagMask, tag);
  OPENSSL_cleanse(tagMask, sizeof(tagMask));
  return IAGCipheredData(std::move(cipherText), Bytes(tag, tag + authenticationTagLength));
}

std::optional<SecretBytes> IAGAesGcm::Context::open(const IAGCipheredData& cipheredData,
                                                    ByteView additionalAuthenticatedData,
                                                    ByteView initializationVector, Error* error) {
  const Bytes& cipherText = cipheredData.buffer();
  const Bytes& receivedTag = cipheredData.authenticationTag();
  uint8_t precounterBlock[16];
  gf128::Element ghash;
  if (!begin(cipherText.size(), additionalAuthenticatedData, initializationVector,
             receivedTag.size(), precounterBlock, ghash, error)) {
    return std::nullopt;
  }

  SecretBytes plain(cipherText.size());
  uint8_t tagMask[16];
  if (!getGCounterBuffer(precounterBlock, cipherText.data(), plain.mutableSecret().data(),
                         cipherText.size(), /*encrypting=*/false, ghash, tagMask)) {
    plain.clear();
    setError(error, IAGErrorFactory::errorAESFailed());
    return std::nullopt;
  }
  uint8_t tag[16];
  getGhashBlock(ghash, additionalAuthenticatedData.size(), cipherText.size(), tagMask, tag);
  OPENSSL_cleanse(tagMask, sizeof(tagMask));
  const bool tagsMatch = CRYPTO_memcmp(tag, receivedTag.data(), receivedTag.size()) == 0;
  if (!tagsMatch) {
    plain.clear();
    setError(error, IAGErrorFactory::errorAuthenticationTagsNotIdentical());
    return std::nullopt;
  }
  return plain;
}

}  // namespace corvane
