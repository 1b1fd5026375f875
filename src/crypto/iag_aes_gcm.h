// AES in Galois/Counter Mode: authenticated encryption of small stored secrets (sealed patterns,
// key handles). GHASH and the counter mode are computed here over OpenSSL's AES block cipher
// (ECB, no padding), which enciphers the counter blocks in batches.
//
// Keys and plaintext come in as byte views; callers holding a SecretBytes pass exposeSecret().
// Decrypted plaintext comes back as SecretBytes, so it is wiped when released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/error.h"
#include "corvane/secret_bytes.h"
#include "crypto/gf128.h"
#include "foundation/utils.h"

namespace corvane {

// The result of an encryption: the ciphered buffer and the authentication tag. Neither is secret,
// so equality is a plain comparison and the description shows both in hex.
class IAGCipheredData {
 public:
  IAGCipheredData() = default;
  IAGCipheredData(Bytes buffer, Bytes authenticationTag)
      : buffer_(std::move(buffer)), authenticationTag_(std::move(authenticationTag)) {}

  const Bytes& buffer() const { return buffer_; }
  size_t bufferLength() const { return buffer_.size(); }
  const Bytes& authenticationTag() const { return authenticationTag_; }
  size_t authenticationTagLength() const { return authenticationTag_.size(); }

  // Equal when both buffers and both tags have the same lengths and bytes.
  bool isEqualToCipheredData(const IAGCipheredData& other) const;
  bool operator==(const IAGCipheredData& other) const { return isEqualToCipheredData(other); }

  // "<IAGCipheredData buffer (N bytes): <hex> authenticationTag (M bytes): <hex>>"
  std::string description() const;

 private:
  Bytes buffer_;
  Bytes authenticationTag_;
};

// Errors of the AES-GCM component: domain "IAGErrorDomain", no message.
struct IAGErrorFactory {
  static constexpr int64_t kAESFailed = 0;
  static constexpr int64_t kInputDataLengthNotSupported = 1;
  static constexpr int64_t kAuthenticationTagsNotIdentical = 2;

  static Error errorAESFailed() { return Error(kIAGErrorDomain, kAESFailed); }
  static Error errorInputDataLengthNotSupported() {
    return Error(kIAGErrorDomain, kInputDataLengthNotSupported);
  }
  static Error errorAuthenticationTagsNotIdentical() {
    return Error(kIAGErrorDomain, kAuthenticationTagsNotIdentical);
  }
};

class IAGAesGcm {
 public:
  // Largest plain (or ciphered) text: 2^36 - 32 bytes.
  static constexpr uint64_t kMaxTextLength = (uint64_t{1} << 36) - 32;
  // Additional data and initialisation vector must stay below 2^61 bytes.
  static constexpr uint64_t kLengthBound = uint64_t{1} << 61;

  // Tag lengths in bytes: 4, 8 and 12 to 16, the lengths NIST SP 800-38D permits.
  static bool isSupportedTagLength(size_t tagLength);

  // The length checks made before any work: text at most kMaxTextLength, additional data below
  // kLengthBound, initialisation vector non-empty and below kLengthBound, supported tag length.
  static bool inputLengthsSupported(uint64_t textLength, uint64_t aadLength, uint64_t ivLength,
                                    size_t tagLength);

  // Encrypts `plainData` under `key` (16, 24 or 32 bytes: AES-128/192/256) and authenticates it
  // together with `additionalAuthenticatedData`. Error 1 for unsupported lengths (checked first),
  // error 0 for a bad key length or a block-cipher failure.
  [[nodiscard]] static std::optional<IAGCipheredData>
  cipheredDataByAuthenticatedEncryptingPlainData(ByteView plainData,
                                                 ByteView additionalAuthenticatedData,
                                                 size_t authenticationTagLength,
                                                 ByteView initializationVector, ByteView key,
                                                 Error* error);

  // Recomputes the tag over the received buffer and compares it with the received tag over the
  // tag's length in constant time. Error 2 on a mismatch, without releasing any plaintext.
  [[nodiscard]] static std::optional<SecretBytes> plainDataByAuthenticatedDecryptingCipheredData(
      const IAGCipheredData& cipheredData, ByteView additionalAuthenticatedData,
      ByteView initializationVector, ByteView key, Error* error);

  // A key prepared once: the AES key schedule inside an OpenSSL cipher context and the hash subkey
  // H with its powers. The class operations above build one per call; code that seals many
  // messages under one key keeps one. A Context is movable, not copyable, and not safe for use by
  // two threads at once.
  class Context {
   public:
    // Error 0 when the key is not 16, 24 or 32 bytes long or OpenSSL fails. `backend` pins the
    // GHASH implementation (tests use it to exercise the portable one).
    [[nodiscard]] static std::optional<Context> create(
        ByteView key, Error* error, gf128::Backend backend = gf128::Backend::kAuto);

    Context(Context&&) noexcept;
    Context& operator=(Context&&) noexcept;
    ~Context();

    [[nodiscard]] std::optional<IAGCipheredData> seal(ByteView plainData,
                                                      ByteView additionalAuthenticatedData,
                                                      size_t authenticationTagLength,
                                                      ByteView initializationVector, Error* error);

    [[nodiscard]] std::optional<SecretBytes> open(const IAGCipheredData& cipheredData,
                                                  ByteView additionalAuthenticatedData,
                                                  ByteView initializationVector, Error* error);

    gf128::Backend ghashBackend() const { return ghashKey_.backend(); }

   private:
    struct CipherState;
    Context(std::unique_ptr<CipherState> cipher, const gf128::GhashKey& ghashKey);

    // Enciphers `blockCount` 16-byte blocks from `in` to `out` with one OpenSSL call.
    bool encryptBlocks(const uint8_t* in, uint8_t* out, size_t blockCount);
    // H = AES_K(0^128).
    bool getHashSubkey(uint8_t hashSubkey[16]);
    // J0: IV || 0^31 || 1 for a 96-bit IV, otherwise GHASH(IV || 0-padding || [bit length]_64).
    void getPrecounterBlock(ByteView initializationVector, uint8_t precounterBlock[16]) const;
    // The common start of seal and open: checks the lengths (error 1), makes J0 and hashes the
    // additional data into `ghash`.
    bool begin(uint64_t textLength, ByteView additionalAuthenticatedData,
               ByteView initializationVector, size_t tagLength, uint8_t precounterBlock[16],
               gf128::Element& ghash, Error* error) const;
    // GCTR from inc32(J0) over `in` into `out`, GHASH of the ciphertext side into `ghash`, and
    // E_K(J0) into `tagMask`. `encrypting` says whether the ciphertext is `out` or `in`.
    bool getGCounterBuffer(const uint8_t precounterBlock[16], const uint8_t* in, uint8_t* out,
                           size_t length, bool encrypting, gf128::Element& ghash,
                           uint8_t tagMask[16]);
    // Finishes GHASH with the length block and masks it: the full 16-byte tag.
    void getGhashBlock(gf128::Element& ghash, uint64_t aadLength, uint64_t textLength,
                       const uint8_t tagMask[16], uint8_t tag[16]) const;

    std::unique_ptr<CipherState> cipher_;
    gf128::GhashKey ghashKey_;
  };
};

}  // namespace corvane
