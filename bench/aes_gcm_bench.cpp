// AES-256-GCM seal: our GHASH/GCTR over the AES block cipher against OpenSSL's own GCM.
// Both prepare the key outside the timed loop, use a 12-byte IV, 16 bytes of additional data and
// a 16-byte tag.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdlib>

#include "crypto/iag_aes_gcm.h"

namespace {

using corvane::Bytes;
using corvane::IAGAesGcm;

constexpr size_t kAadLength = 16;

void BM_AesGcmSeal(benchmark::State& state) {
  const size_t length = static_cast<size_t>(state.range(0));
  const Bytes key(32, 0x42), iv(12, 0x24), aad(kAadLength, 0x11), plain(length, 0x5a);
  auto context = IAGAesGcm::Context::create(key, nullptr);
  if (!context) {
    state.SkipWithError("key setup failed");
    return;
  }
  for (auto _ : state) {
    auto sealed = context->seal(plain, aad, 16, iv, nullptr);
    benchmark::DoNotOptimize(sealed);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(length));
}
BENCHMARK(BM_AesGcmSeal)->Arg(16)->Arg(100)->Arg(1024)->Arg(65536);

void BM_OpenSslAes256GcmSeal(benchmark::State& state) {
  const size_t length = static_cast<size_t>(state.range(0));
  const Bytes key(32, 0x42), iv(12, 0x24), aad(kAadLength, 0x11), plain(length, 0x5a);
  Bytes out(length + 16);
  unsigned char tag[16];
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (ctx == nullptr ||
      EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, key.data(), nullptr) != 1) {
    EVP_CIPHER_CTX_free(ctx);
    state.SkipWithError("key setup failed");
    return;
  }
  for (auto _ : state) {
    int len = 0, finalLen = 0;
    bool ok =
        EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, iv.data()) == 1 &&
        EVP_EncryptUpdate(ctx, nullptr, &len, aad.data(), static_cast<int>(aad.size())) == 1 &&
        EVP_EncryptUpdate(ctx, out.data(), &len, plain.data(), static_cast<int>(length)) == 1 &&
        EVP_EncryptFinal_ex(ctx, out.data() + len, &finalLen) == 1 &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag) == 1;
    if (!ok) {
      state.SkipWithError("seal failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::DoNotOptimize(tag);
  }
  EVP_CIPHER_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(length));
}
BENCHMARK(BM_OpenSslAes256GcmSeal)->Arg(16)->Arg(100)->Arg(1024)->Arg(65536);

}  // namespace
