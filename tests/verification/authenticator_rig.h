// One built-in authenticator under the ASM, over the real Linux stores in a temporary data
// directory, with the manual queue, the scripted presenter and the scripted biometry: what both
// authenticator suites drive. A spy between the authenticator and the ASM keeps every answer as
// the authenticator gave it, before the ASM translates it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "asm/asm.h"
#include "corvane/linux_platform.h"
#include "crypto/attestation_material.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_device_info.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_authenticator.h"
#include "fakes/scripted_biometry.h"
#include "fakes/scripted_presenter.h"
#include "storage/pattern_manager.h"
#include "test_files.h"
#include "test_support.h"
#include "uaf_assertions.h"
#include "verification/authenticator_core.h"

namespace corvane::testing {

inline constexpr std::string_view kRigFacet = "ios:bundle-id:com.example.host";
inline constexpr std::string_view kRigAppID = "https://rp.example/app";
inline constexpr std::string_view kRigUser = "alice";
inline constexpr std::string_view kRigChallenge = "eyJmY1BhcmFtcyI6MX0";

// What the authenticator answered.
struct AuthenticatorAnswer {
  uint64_t status;
  std::string message;
  std::optional<std::string> keyHandle;
};

class SpyDelegate final : public AsmDelegate {
 public:
  AsmDelegate* next = nullptr;
  std::vector<AuthenticatorAnswer> answers;

  void authenticatorRegisterResponse(const RegisterResponseCommand* response,
                                     const std::optional<Error>& error) override {
    answers.push_back(
        {response->statusCode, error ? error->localizedDescription() : "", response->keyHandle});
    next->authenticatorRegisterResponse(response, error);
  }
  void authenticatorSignResponse(const SignResponseCommand* response,
                                 const std::optional<Error>& error) override {
    answers.push_back({response->statusCode, error ? error->localizedDescription() : "", {}});
    next->authenticatorSignResponse(response, error);
  }
  Result<void> authenticatorRegistrationRecords(const RegisterResponseCommand& response) override {
    return next->authenticatorRegistrationRecords(response);
  }
};

class AuthenticatorRig {
 public:
  // Makes the authenticator under test, answering to the given delegate.
  using Make =
      std::function<std::unique_ptr<AuthenticatorFeature>(AuthenticatorRig&, AsmDelegate&)>;

  // `settings`: the members of the host's "zandrel_fido_sdk_config" dictionary, as plist text.
  // `scriptedBiometry`: the Keychain's biometry is `biometry`, else the platform's.
  AuthenticatorRig(uint64_t userVerification, std::string_view settings, bool scriptedBiometry,
                   Make make)
      : options(hostOptions(dir, settings)),
        userVerification_(userVerification),
        scriptedBiometry_(scriptedBiometry),
        make_(std::move(make)) {
    reopen();
  }

  // The platform options over `dir`, whose host bundle is written with `settings`.
  static linux_platform::LinuxPlatformOptions hostOptions(const TempDir& dir,
                                                          std::string_view settings) {
    writeFile(dir.path() / "Host.app" / "Info.plist",
              R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
              "<key>CFBundleIdentifier</key><string>com.example.host</string>"
              "<key>zandrel_fido_sdk_config</key><dict>" +
                  std::string(settings) + "</dict></dict></plist>");
    linux_platform::LinuxPlatformOptions options;
    options.hostBundleDirectory = dir.path() / "Host.app";
    options.dataDirectory = dir.path() / "data";
    options.frameworkBundleDirectory = resourcesDir();
    options.durableWrites = false;
    return options;
  }

  // A restart: new stores, ASM and authenticator over the same data directory.
  void reopen() {
    asm_.reset();
    patterns.reset();
    keychain.reset();
    configuration.reset();
    platform.reset();
    Error error;
    platform = linux_platform::makePlatform(options, &error);
    ASSERT_TRUE(platform) << error.localizedDescription();
    configuration = std::make_unique<Configuration>(
        *platform->hostBundle, *platform->frameworkBundle, *platform->userDefaults);
    keychain = std::make_unique<Keychain>(
        *platform->itemStore, *platform->keyStore,
        scriptedBiometry_ ? static_cast<BiometryPort&>(biometry) : *platform->biometry,
        *configuration, &attestation);
    patterns = std::make_unique<PatternManager>(*keychain);
    asm_ = std::make_unique<Asm>(corvane, *keychain, *configuration, std::string(kRigFacet),
                                 [this](AsmDelegate& asmDelegate) {
                                   spy.next = &asmDelegate;
                                   Asm::Authenticators made;
                                   auto authenticator = make_(*this, spy);
                                   feature = authenticator.get();
                                   made[userVerification_] = std::move(authenticator);
                                   return made;
                                 });
  }

  AuthenticatorServices services() {
    return AuthenticatorServices{*keychain, *patterns, *configuration, scheduler,
                                 presenter, device,    clock,          std::string(kRigFacet)};
  }

  AsmRequest request(AsmRequestType type, AsmRequest::Args args) const {
    AsmRequest request;
    request.requestType = static_cast<uint64_t>(type);
    request.userVerification = userVerification_;
    request.args = std::move(args);
    return request;
  }
  // Starts a registration; nothing may be answered inside the call.
  void startRegistration() {
    const size_t before = spy.answers.size();
    asm_->registration(request(AsmRequestType::kRegistration,
                               RegisterIn{std::string(kRigAppID), std::string(kRigUser),
                                          std::string(kRigChallenge), "Alice"}));
    EXPECT_EQ(spy.answers.size(), before) << "answered inside the call";
    scheduler.drain();
  }
  void startSign(std::optional<std::vector<Transaction>> transactions = std::nullopt) {
    const size_t before = spy.answers.size();
    asm_->authenticate(
        request(AsmRequestType::kAuthenticate,
                AuthenticateIn{std::string(kRigAppID), std::vector{keyID}, std::string(kRigUser),
                               std::string(kRigChallenge), std::move(transactions), "Alice"}));
    EXPECT_EQ(spy.answers.size(), before) << "answered inside the call";
    scheduler.drain();
  }
  // After a successful registration through the ASM: remembers its key ID and public key.
  void rememberRegisteredKey() {
    ASSERT_EQ(asmStatus(), 0u) << (spy.answers.empty() ? "" : last().message);
    const auto& out = std::get<RegisterOut>(corvane.answers.back().response.responseData);
    std::optional<RegisteredKey> key = registeredKey(out.assertion.value());
    ASSERT_TRUE(key);
    publicKey = key->publicKey;
    keyID = key->keyID;
    ASSERT_EQ(publicKey.size(), 91u);
  }
  // The sign counter of the last authentication answer, after checking its signature.
  std::optional<uint32_t> verifiedCounter() {
    const auto* out = std::get_if<AuthenticateOut>(&corvane.answers.back().response.responseData);
    if (out == nullptr || !out->assertion) return std::nullopt;
    return verifiedSignCounter(publicKey, *out->assertion);
  }
  // Whether the user has a record named with `prefix` ("AUTHNR.data", "ASMKH.data").
  bool hasRecord(std::string_view prefix) {
    Result<std::vector<std::string>> services =
        keychain->findGenericPasswordServicesDescWithAccount(
            Utils::sha256(kRigUser) + ".0F3D#0002",
            std::string(prefix) + "." + Utils::sha256(kRigUser));
    return services && !services->empty();
  }
  // Whether neither record nor the private key of the user is left.
  bool wiped() {
    return !hasRecord("AUTHNR.data") && !hasRecord("ASMKH.data") &&
           platform->keyStore->sign(
               "ios:bundle-id:com.example.host.0F3D#0002.PRI." + Utils::sha256(kRigUser),
               Bytes(32, 1), nullptr) == StoreStatus::notFound;
  }
  const AuthenticatorAnswer& last() const { return spy.answers.back(); }
  uint64_t asmStatus() const { return corvane.answers.back().response.statusCode; }

  TempDir dir;
  linux_platform::LinuxPlatformOptions options;
  FakeClock clock{1'000'000'000};
  FakeDeviceInfo device;
  ManualScheduler scheduler;
  ScriptedPresenter presenter;
  ScriptedBiometry biometry;
  RecordingCorvaneDelegate corvane;
  SpyDelegate spy;
  WhiteboxAttestationKeySource attestation;
  std::optional<Platform> platform;
  std::unique_ptr<Configuration> configuration;
  std::unique_ptr<Keychain> keychain;
  std::unique_ptr<PatternManager> patterns;
  std::unique_ptr<Asm> asm_;
  AuthenticatorFeature* feature = nullptr;
  std::string keyID;
  Bytes publicKey;

 private:
  uint64_t userVerification_;
  bool scriptedBiometry_;
  Make make_;
};

}  // namespace corvane::testing
