// A whole registration and a whole authentication through Corvane (the scripted presenter draws
// the pattern, the manual queue is drained, the data folder is on tmpfs, every write durable)
// beside the cryptography they cannot do without: one P-256 key generation and two signatures
// for a registration (the user's key and the attestation key), one signature for an
// authentication. The goal is at most 3x each. The counter "syncs" is the number of times a
// store file was synced to the disk per operation, that is the durable commits: the goal is 1.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <openssl/evp.h>

#include "corvane/corvane.h"
#include "corvane/linux_platform.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_presenter.h"
#include "linux/sqlite_item_store.h"

namespace {

using corvane::linux_platform::SqliteItemStore;

constexpr std::initializer_list<uint32_t> kPattern = {0, 1, 2, 5, 8, 7};

std::string registrationRequest(const std::string& user) {
  return R"([{"header":{"upv":{"major":1,"minor":1},"op":"Reg","serverData":"sd"},)"
         R"("challenge":"Y2hhbGxlbmdl","username":")" +
         user + R"(","policy":{"accepted":[[{"aaid":["0F3D#0002"]}]]}}])";
}

std::string authenticationRequest() {
  return R"([{"header":{"upv":{"major":1,"minor":1},"op":"Auth","serverData":"sd"},)"
         R"("challenge":"YXV0aC1jaGFsbGVuZ2U","policy":{"accepted":[[{"aaid":["0F3D#0002"]}]]}}])";
}

class Recorder final : public corvane::AuthUIControllerDelegate {
 public:
  std::optional<corvane::Error> last;
  void onRegistrationComplete(std::optional<std::string>, const corvane::Error& error) override {
    last = error;
  }
  void onAuthenticationComplete(std::optional<std::string>, const corvane::Error& error) override {
    last = error;
  }
};

// A host over a fresh data folder on tmpfs (the temporary folder when there is no /dev/shm),
// removed when the host goes.
class BenchHost {
 public:
  BenchHost() {
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                           ? "/dev/shm"
                                           : std::filesystem::temp_directory_path();
    std::string pattern = (base / "corvane-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return;
    root_ = pattern;
    std::filesystem::create_directories(root_ / "Host.app");
    std::ofstream(root_ / "Host.app" / "Info.plist")
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
           "<key>CFBundleIdentifier</key><string>com.example.host</string>"
           "<key>zandrel_fido_sdk_config</key><dict>"
           "<key>zandrel_fido_pattern_lock_active</key><string>Y</string>"
           "</dict></dict></plist>";
    corvane::linux_platform::LinuxPlatformOptions options;
    options.hostBundleDirectory = root_ / "Host.app";
    options.dataDirectory = root_ / "data";
    options.frameworkBundleDirectory = std::filesystem::path(CORVANE_SOURCE_DIR) / "resources";
    options.durableWrites = true;
    std::optional<corvane::Platform> platform =
        corvane::linux_platform::makePlatform(options, nullptr);
    if (!platform) return;
    platform->scheduler = scheduler_;
    platform->screenPresenter = presenter_;
    corvane_ = corvane::Corvane::create(recorder_, std::move(*platform), nullptr);
  }
  ~BenchHost() {
    corvane_.reset();
    std::error_code ignored;
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }
  BenchHost(const BenchHost&) = delete;
  BenchHost& operator=(const BenchHost&) = delete;

  bool ready() const { return corvane_ != nullptr; }

  bool registerUser(const std::string& user) {
    recorder_->last.reset();
    corvane_->doRegistration({registrationRequest(user), "pattern", "", {}});
    return drawAndSucceed(2);
  }
  bool authenticate(const std::string& user) {
    recorder_->last.reset();
    corvane_->doAuthentication({authenticationRequest(), user, {}, ""});
    return drawAndSucceed(1);
  }

 private:
  bool drawAndSucceed(int screens) {
    scheduler_->drain();
    for (int i = 0; i < screens; ++i) {
      if (!presenter_->draw(kPattern)) return false;
      scheduler_->drain();
    }
    return recorder_->last && recorder_->last->code() == 0;
  }

  std::filesystem::path root_;
  std::shared_ptr<corvane::testing::ManualScheduler> scheduler_ =
      std::make_shared<corvane::testing::ManualScheduler>();
  std::shared_ptr<corvane::testing::ScriptedPresenter> presenter_ =
      std::make_shared<corvane::testing::ScriptedPresenter>();
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
  std::unique_ptr<corvane::Corvane> corvane_;
};

void reportSyncs(benchmark::State& state, uint64_t before) {
  state.counters["syncs"] =
      benchmark::Counter(static_cast<double>(SqliteItemStore::syncCount() - before),
                         benchmark::Counter::kAvgIterations);
}

void BM_FacadeRegistration(benchmark::State& state) {
  BenchHost host;
  if (!host.ready()) return state.SkipWithError("cannot set up the host");
  // The first registration also makes the installation's own items; it is not measured.
  if (!host.registerUser("warm-up")) return state.SkipWithError("registration failed");
  uint64_t user = 0;
  const uint64_t syncs = SqliteItemStore::syncCount();
  for (auto _ : state) {
    if (!host.registerUser("user-" + std::to_string(user++))) {
      return state.SkipWithError("registration failed");
    }
  }
  reportSyncs(state, syncs);
}
BENCHMARK(BM_FacadeRegistration)->Unit(benchmark::kMicrosecond);

void BM_FacadeAuthentication(benchmark::State& state) {
  BenchHost host;
  if (!host.ready() || !host.registerUser("alice")) return state.SkipWithError("no registration");
  const uint64_t syncs = SqliteItemStore::syncCount();
  for (auto _ : state) {
    if (!host.authenticate("alice")) return state.SkipWithError("authentication failed");
  }
  reportSyncs(state, syncs);
}
BENCHMARK(BM_FacadeAuthentication)->Unit(benchmark::kMicrosecond);

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// ECDSA with SHA-256 over `message`; false when OpenSSL fails.
bool sign(EVP_PKEY* key, const std::vector<uint8_t>& message, std::vector<uint8_t>& signature) {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  size_t length = signature.size();
  const bool ok =
      context != nullptr && EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key) == 1 &&
      EVP_DigestSign(context, signature.data(), &length, message.data(), message.size()) == 1;
  EVP_MD_CTX_free(context);
  return ok;
}

// About the size of the signed data of an assertion.
const std::vector<uint8_t> kSignedData(180, 0x5a);

void BM_BareRegistrationCrypto(benchmark::State& state) {
  KeyPtr attestation(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  std::vector<uint8_t> signature(72);
  for (auto _ : state) {
    KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!key || !sign(key.get(), kSignedData, signature) ||
        !sign(attestation.get(), kSignedData, signature)) {
      return state.SkipWithError("OpenSSL failed");
    }
    benchmark::DoNotOptimize(signature.data());
  }
}
BENCHMARK(BM_BareRegistrationCrypto)->Unit(benchmark::kMicrosecond);

void BM_BareAuthenticationCrypto(benchmark::State& state) {
  KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  std::vector<uint8_t> signature(72);
  for (auto _ : state) {
    if (!key || !sign(key.get(), kSignedData, signature)) {
      return state.SkipWithError("OpenSSL failed");
    }
    benchmark::DoNotOptimize(signature.data());
  }
}
BENCHMARK(BM_BareAuthenticationCrypto)->Unit(benchmark::kMicrosecond);

}  // namespace
