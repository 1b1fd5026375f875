// White-box AES-256-CFB (per-user tables with the built-in authXor and an external encoding)
// beside OpenSSL's AES-256-CFB128. Tables and the OpenSSL key schedule are made before timing.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <optional>

#include "corvane/secret_bytes.h"
#include "crypto/whitebox.h"
#include "crypto/whitebox_tables.h"
#include "tablegen/whitebox_generator.h"

namespace {

using namespace corvane;

const SecretBytes& benchKey() {
  static const SecretBytes key = [] {
    SecretBytes k(whitebox::kAes256KeySize);
    RAND_bytes(k.mutableSecret().data(), static_cast<int>(k.size()));
    return k;
  }();
  return key;
}

// Per-user tables for benchKey() over the embedded authXor, with random external encodings.
const whitebox::WhiteboxUserTables* benchTables() {
  static const std::optional<whitebox::WhiteboxUserTables> tables =
      []() -> std::optional<whitebox::WhiteboxUserTables> {
    const whitebox::XorTables* authXor = whitebox::builtinAuthXor();
    if (authXor == nullptr) return std::nullopt;
    const auto codebook = whitebox::XorCodebook::recover(*authXor);
    if (!codebook) return std::nullopt;
    const auto round = whitebox::generateRoundTables(benchKey(), *codebook);
    const auto encoding = whitebox::generateExternalEncoding(false);
    if (!round || !encoding) return std::nullopt;
    return whitebox::WhiteboxUserTables::fromArrays(round->tyboxes, round->tboxesLast, round->mbl,
                                                    *encoding);
  }();
  return tables ? &*tables : nullptr;
}

void BM_WhiteboxCfbEncrypt(benchmark::State& state) {
  const auto* tables = benchTables();
  if (tables == nullptr) {
    state.SkipWithError("white-box tables unavailable");
    return;
  }
  const size_t n = static_cast<size_t>(state.range(0));
  Bytes plain(n, 0x5A), cipher(n);
  uint8_t iv[16] = {};
  for (auto _ : state) {
    if (!whitebox::cfbEncrypt(tables->network(), iv, plain, cipher, tables->externalEncoding())) {
      state.SkipWithError("white-box encryption failed");
      return;
    }
    benchmark::DoNotOptimize(cipher.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void BM_OpenSslAes256Cfb(benchmark::State& state) {
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      EVP_CIPHER_CTX_free);
  uint8_t iv[16] = {};
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cfb128(), nullptr,
                                 benchKey().exposeSecret().data(), iv) != 1) {
    state.SkipWithError("OpenSSL setup failed");
    return;
  }
  const size_t n = static_cast<size_t>(state.range(0));
  Bytes plain(n, 0x5A), cipher(n);
  int produced = 0;
  for (auto _ : state) {
    // A new IV only: the key schedule stays as prepared.
    EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, nullptr, iv);
    EVP_EncryptUpdate(ctx.get(), cipher.data(), &produced, plain.data(), static_cast<int>(n));
    benchmark::DoNotOptimize(cipher.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

}  // namespace

BENCHMARK(BM_WhiteboxCfbEncrypt)->Arg(16)->Arg(100)->Arg(1024)->Arg(65536);
BENCHMARK(BM_OpenSslAes256Cfb)->Arg(16)->Arg(100)->Arg(1024)->Arg(65536);
