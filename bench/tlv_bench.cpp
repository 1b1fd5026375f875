// The two assertions end to end, beside the bare OpenSSL operations they are made of. Goals: a sign
// assertion within 1.3x of one bare ECDSA P-256 signature; a registration assertion within 1.3x of
// one bare P-256 key generation plus two bare signatures.
//
// The assertions run over the real Linux stores: the user key lives sealed in an OpenSslKeyStore
// over a SqliteItemStore in a temporary folder (each signature reads its sealed record), and the
// attestation key is deciphered from the white-box constant for every registration.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "authenticator/tlv_helper.h"
#include "configuration/configuration.h"
#include "crypto/attestation_material.h"
#include "foundation/byte_io.h"
#include "linux/bundle_directory.h"
#include "linux/no_biometry.h"
#include "linux/openssl_key_store.h"
#include "linux/sqlite_item_store.h"
#include "linux/user_defaults_file.h"
#include "storage/keychain.h"

namespace {

using namespace corvane;

constexpr std::string_view kTag = "bench.example.com.0F3D#0002.PRI.3f8a9c";

// Fields shaped like a real registration and authentication: a 64-character key ID, a 91-byte
// public key, a 32-byte challenge hash and one extension.
AssertionFields benchFields() {
  AssertionFields fields;
  fields.aaid = "0F3D#0002";
  fields.finalChallengeHash = Bytes(32, 0xA5);
  fields.keyID = std::string(64, 'c');
  fields.publicKey = Bytes(kP256SpkiPrefix, kP256SpkiPrefix + sizeof kP256SpkiPrefix);
  fields.publicKey->resize(kP256SpkiSize, 0x04);
  fields.signCounter = 41;
  fields.regCounter = 3;
  fields.exts = {{"registered_uuid", "9b1deb4d-3b7d-4bad-9bdd-2b0d7b3dcb6d", false}};
  fields.isTxAuth = false;
  return fields;
}

// The real stores in a temporary folder, built once per process and removed at exit.
class Rig {
 public:
  static Rig* get() {
    static std::unique_ptr<Rig> rig = make();
    return rig.get();
  }
  ~Rig() {
    helper.reset();
    keychain.reset();
    keys.reset();
    keyItems.reset();
    items.reset();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }

  std::filesystem::path root;
  std::shared_ptr<ItemStore> keyItems;
  std::unique_ptr<linux_platform::OpenSslKeyStore> keys;
  std::unique_ptr<ItemStore> items;
  std::unique_ptr<HostBundle> bundle;
  std::unique_ptr<UserDefaults> defaults;
  linux_platform::NoBiometry biometry;
  std::unique_ptr<Configuration> configuration;
  WhiteboxAttestationKeySource attestation;
  std::unique_ptr<Keychain> keychain;
  std::unique_ptr<TlvHelper> helper;

 private:
  static std::unique_ptr<Rig> make() {
    auto rig = std::make_unique<Rig>();
    std::string pattern =
        (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return nullptr;
    rig->root = pattern;
    rig->keyItems = linux_platform::SqliteItemStore::open(rig->root / "keys.sqlite", nullptr);
    linux_platform::SqliteItemStore::Options options;
    options.defaultAccessGroup =
        linux_platform::SqliteItemStore::defaultAccessGroupFor("com.example.bench");
    rig->items =
        linux_platform::SqliteItemStore::open(rig->root / "items.sqlite", options, nullptr);
    rig->bundle = linux_platform::BundleDirectory::open(
        std::filesystem::path(CORVANE_SOURCE_DIR) / "resources", {"en"}, nullptr);
    rig->defaults = linux_platform::UserDefaultsFile::open(rig->root / "defaults.json", nullptr);
    if (!rig->keyItems || !rig->items || !rig->bundle || !rig->defaults) return nullptr;
    rig->keys = std::make_unique<linux_platform::OpenSslKeyStore>(rig->keyItems,
                                                                  rig->root / "keystore.key");
    rig->configuration =
        std::make_unique<Configuration>(*rig->bundle, *rig->bundle, *rig->defaults);
    rig->keychain = std::make_unique<Keychain>(*rig->items, *rig->keys, rig->biometry,
                                               *rig->configuration, &rig->attestation);
    rig->helper = std::make_unique<TlvHelper>(*rig->keychain);
    if (!rig->keychain->generate256EcKeyPair("PUB", kTag)) return nullptr;
    return rig;
  }
};

// The size of the signed-data element that BM_SignAssertion signs; 0 without the stores.
size_t signedDataElementSize() {
  Rig* rig = Rig::get();
  if (rig == nullptr) return 0;
  const std::optional<Bytes> data = rig->helper->getAuthSignedData(benchFields());
  return data ? 4 + data->size() : 0;
}

void BM_SignAssertion(benchmark::State& state) {
  Rig* rig = Rig::get();
  if (rig == nullptr) return state.SkipWithError("cannot build the stores");
  const AssertionFields fields = benchFields();
  // No assertion is made without a signature, so a failing key store cannot be measured as fast.
  if (!rig->helper->getAuthAssertions(fields, kTag)) {
    return state.SkipWithError("the key store cannot sign");
  }
  for (auto _ : state) {
    std::optional<std::string> assertion = rig->helper->getAuthAssertions(fields, kTag);
    benchmark::DoNotOptimize(assertion->data());
  }
}
BENCHMARK(BM_SignAssertion);

void BM_RegAssertion(benchmark::State& state) {
  Rig* rig = Rig::get();
  if (rig == nullptr) return state.SkipWithError("cannot build the stores");
  const AssertionFields fields = benchFields();
  if (!rig->helper->getRegAssertions(fields, kTag)) {
    return state.SkipWithError("no attestation signature");
  }
  for (auto _ : state) {
    std::optional<std::string> assertion = rig->helper->getRegAssertions(fields, kTag);
    benchmark::DoNotOptimize(assertion->data());
  }
}
BENCHMARK(BM_RegAssertion);

// The least OpenSSL 3 does for one signature: the key and a signing context are made once; each
// signature runs on a copy of the context, as a context cannot sign twice.
void BM_OpenSslEcdsaP256Sign(benchmark::State& state) {
  const size_t size = signedDataElementSize();
  if (size == 0) return state.SkipWithError("cannot build the stores");
  const Bytes message(size, 0x3C);
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  EVP_MD_CTX* prepared = EVP_MD_CTX_new();
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (key == nullptr || prepared == nullptr || context == nullptr ||
      EVP_DigestSignInit(prepared, nullptr, EVP_sha256(), nullptr, key) != 1) {
    state.SkipWithError("cannot prepare the signature");
  }
  unsigned char signature[80];
  for (auto _ : state) {
    size_t length = sizeof signature;
    if (EVP_MD_CTX_copy_ex(context, prepared) != 1 ||
        EVP_DigestSign(context, signature, &length, message.data(), message.size()) != 1) {
      state.SkipWithError("EVP_DigestSign failed");
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
  EVP_MD_CTX_free(context);
  EVP_MD_CTX_free(prepared);
  EVP_PKEY_free(key);
}
BENCHMARK(BM_OpenSslEcdsaP256Sign);

void BM_OpenSslEcP256Keygen(benchmark::State& state) {
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
  if (context == nullptr || EVP_PKEY_keygen_init(context) != 1 ||
      EVP_PKEY_CTX_set_group_name(context, "P-256") != 1) {
    EVP_PKEY_CTX_free(context);
    return state.SkipWithError("cannot prepare the key generation");
  }
  for (auto _ : state) {
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_keygen(context, &key) != 1) {
      state.SkipWithError("EVP_PKEY_keygen failed");
      break;
    }
    EVP_PKEY_free(key);
  }
  EVP_PKEY_CTX_free(context);
}
BENCHMARK(BM_OpenSslEcP256Keygen);

}  // namespace
