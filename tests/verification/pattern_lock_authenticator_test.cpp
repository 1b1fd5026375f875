// The pattern lock authenticator through the ASM, over the real Linux stores in a temporary data
// directory: registration and signing with the scripted presenter and the manual queue, the
// assertions checked with OpenSSL, and the lockout walk, which neither a cancel nor a restart can
// shorten.
#include "verification/pattern_lock_authenticator.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "asm/asm.h"
#include "corvane/linux_platform.h"
#include "crypto/attestation_material.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_device_info.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_authenticator.h"
#include "fakes/scripted_presenter.h"
#include "foundation/byte_io.h"
#include "test_files.h"
#include "test_support.h"
#include "uaf_assertions.h"

namespace corvane {
namespace {

using testing::ManualScheduler;
using testing::ScriptedPresenter;
constexpr std::string_view kAppID = "https://rp.example/app";
constexpr std::string_view kUser = "alice";
constexpr std::string_view kChallenge = "eyJmY1BhcmFtcyI6MX0";
constexpr std::chrono::milliseconds kLockOutClose{3000};
constexpr int64_t kSecond = 1'000'000;
const std::initializer_list<uint32_t> kPattern = {0, 1, 2, 5, 8, 7};
const std::initializer_list<uint32_t> kWrong = {6, 3, 0, 1, 2, 5};

// What the authenticator answered, before the ASM translates it.
struct Answer {
  uint64_t status;
  std::string message;
  std::optional<std::string> keyHandle;
};

class SpyDelegate final : public AsmDelegate {
 public:
  AsmDelegate* next = nullptr;
  std::vector<Answer> answers;

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

// Everything a process has; reopen() is a restart over the same data directory.
class Rig {
 public:
  Rig() {
    testing::writeFile(
        dir.path() / "Host.app" / "Info.plist",
        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
        "<key>CFBundleIdentifier</key><string>com.example.host</string>"
        "<key>zandrel_fido_sdk_config</key><dict>"
        "<key>zandrel_fido_pattern_lockout_policy</key><string>2-3|1-3-60|3-lock</string>"
        "<key>zandrel_fido_pattern_lock_active</key><true/>"
        "</dict></dict></plist>");
    options.hostBundleDirectory = dir.path() / "Host.app";
    options.dataDirectory = dir.path() / "data";
    options.frameworkBundleDirectory = testing::resourcesDir();
    options.durableWrites = false;
    reopen();
  }

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
    keychain = std::make_unique<Keychain>(*platform->itemStore, *platform->keyStore,
                                          *platform->biometry, *configuration, &attestation);
    patterns = std::make_unique<PatternManager>(*keychain);
    asm_ = std::make_unique<Asm>(
        corvane, *keychain, *configuration, "ios:bundle-id:com.example.host",
        [this](AsmDelegate& asmDelegate) {
          spy.next = &asmDelegate;
          Asm::Authenticators made;
          auto made2 = std::make_unique<PatternLockAuthenticator>(
              spy, AuthenticatorServices{*keychain, *patterns, *configuration, scheduler, presenter,
                                         device, clock, "ios:bundle-id:com.example.host"});
          authenticator = made2.get();
          made[2] = std::move(made2);
          return made;
        });
  }

  AsmRequest request(AsmRequestType type, AsmRequest::Args args) {
    AsmRequest request;
    request.requestType = static_cast<uint64_t>(type);
    request.userVerification = 2;
    request.args = std::move(args);
    return request;
  }
  void startRegistration() {
    asm_->registration(request(
        AsmRequestType::kRegistration,
        RegisterIn{std::string(kAppID), std::string(kUser), std::string(kChallenge), "Alice"}));
    scheduler.drain();
  }
  void startSign(std::optional<std::vector<Transaction>> transactions = std::nullopt) {
    asm_->authenticate(
        request(AsmRequestType::kAuthenticate,
                AuthenticateIn{std::string(kAppID), std::vector{keyID}, std::string(kUser),
                               std::string(kChallenge), std::move(transactions), "Alice"}));
    scheduler.drain();
  }
  // Draws a pattern on the top pattern screen and lets every task that is due run.
  void draw(std::initializer_list<uint32_t> dots) {
    ASSERT_TRUE(presenter.draw(dots));
    scheduler.drain();
  }
  // A registration with kPattern; remembers the key ID and public key.
  void registerUser() {
    startRegistration();
    draw(kPattern);
    draw(kPattern);
    ASSERT_EQ(corvane.answers.back().response.statusCode, 0u)
        << (spy.answers.empty() ? "" : spy.answers.back().message);
    const auto& out = std::get<RegisterOut>(corvane.answers.back().response.responseData);
    std::optional<testing::RegisteredKey> key = testing::registeredKey(out.assertion.value());
    ASSERT_TRUE(key);
    publicKey = key->publicKey;
    keyID = key->keyID;
    ASSERT_EQ(publicKey.size(), 91u);
  }
  // The sign counter of the last authentication answer, after checking its signature.
  std::optional<uint32_t> verifiedCounter() {
    const auto* out = std::get_if<AuthenticateOut>(&corvane.answers.back().response.responseData);
    if (out == nullptr || !out->assertion) return std::nullopt;
    return testing::verifiedSignCounter(publicKey, *out->assertion);
  }
  bool hasRecord(std::string_view prefix) {
    Result<std::vector<std::string>> services =
        keychain->findGenericPasswordServicesDescWithAccount(
            Utils::sha256(kUser) + ".0F3D#0002", std::string(prefix) + "." + Utils::sha256(kUser));
    return services && !services->empty();
  }
  const Answer& last() const { return spy.answers.back(); }

  testing::TempDir dir;
  linux_platform::LinuxPlatformOptions options;
  testing::FakeClock clock{1000 * kSecond};
  testing::FakeDeviceInfo device;
  ManualScheduler scheduler;
  ScriptedPresenter presenter;
  testing::RecordingCorvaneDelegate corvane;
  SpyDelegate spy;
  WhiteboxAttestationKeySource attestation;
  std::optional<Platform> platform;
  std::unique_ptr<Configuration> configuration;
  std::unique_ptr<Keychain> keychain;
  std::unique_ptr<PatternManager> patterns;
  std::unique_ptr<Asm> asm_;
  PatternLockAuthenticator* authenticator = nullptr;
  std::string keyID;
  Bytes publicKey;
};

TEST(PatternLockAuthenticatorTest, RegistersAndSignsWithRisingCounters) {
  Rig rig;
  rig.startRegistration();
  // Nothing answers inside the call; the enrolment screen is up.
  EXPECT_TRUE(rig.spy.answers.empty());
  ASSERT_TRUE(rig.presenter.pattern());
  rig.registerUser();
  EXPECT_EQ(rig.presenter.shownCount(), 0u);
  EXPECT_TRUE(rig.hasRecord("AUTHNR.data") && rig.hasRecord("ASMKH.data"));

  for (uint32_t expected : {1u, 2u}) {
    rig.startSign();
    rig.draw(kPattern);
    EXPECT_EQ(rig.corvane.answers.back().response.statusCode, 0u);
    EXPECT_EQ(rig.verifiedCounter(), expected);
  }
  // A transaction is confirmed on its screen first, then the pattern is drawn.
  rig.startSign(std::vector{Transaction{"text/plain", "SGVsbG8", std::nullopt}});
  ASSERT_TRUE(rig.presenter.transaction());
  EXPECT_EQ(rig.presenter.transaction()->transactionText(), "Hello");
  rig.presenter.transaction()->pressConfirm();
  rig.scheduler.drain();
  rig.draw(kPattern);
  EXPECT_EQ(rig.verifiedCounter(), 3u);

  // A second registration of the same user never replaces the first key.
  rig.startRegistration();
  rig.draw(kPattern);
  rig.draw(kPattern);
  EXPECT_EQ(rig.last().status, 1u);
  EXPECT_EQ(rig.last().message, "the user is registered already: deregister first.");
  rig.startSign();
  rig.draw(kPattern);
  EXPECT_EQ(rig.verifiedCounter(), 4u);
}

TEST(PatternLockAuthenticatorTest, RefusalsAnswerTheirStatus) {
  Rig rig;
  // Cancel on the enrolment screen, then on both sign screens.
  rig.startRegistration();
  rig.presenter.pattern()->pressButton();
  rig.scheduler.drain();
  EXPECT_EQ(rig.last().status, 5u);
  EXPECT_EQ(rig.last().message, "user canceled register action");
  EXPECT_EQ(rig.presenter.shownCount(), 0u);

  rig.registerUser();
  rig.startSign();
  rig.presenter.pattern()->pressButton();
  rig.scheduler.drain();
  EXPECT_EQ(rig.last().status, 5u);
  EXPECT_EQ(rig.last().message, "user canceled sign action");
  rig.startSign(std::vector{Transaction{"text/plain", "SGk", std::nullopt}});
  rig.presenter.transaction()->pressCancel();
  rig.scheduler.drain();
  EXPECT_EQ(rig.last().status, 5u);
  EXPECT_EQ(rig.presenter.shownCount(), 0u);
  // Only non-text transactions: refused before any screen.
  rig.startSign(std::vector{Transaction{"image/png", "iVBO", std::nullopt}});
  EXPECT_EQ(rig.last().status, 8u);
  EXPECT_EQ(rig.presenter.shownCount(), 0u);

  // A key handle sealed for another caller's token opens, but does not match.
  SignCommand command;
  command.username = std::string(kUser);
  command.khAccessToken = "another application's token";
  command.keyHandle = rig.spy.answers[1].keyHandle;
  command.finalChallengeHash = Bytes(32, 7);
  rig.authenticator->signWithCommand(command);
  EXPECT_EQ(rig.spy.answers.size(), 5u) << "answered inside the call";
  rig.scheduler.drain();
  rig.draw(kPattern);
  EXPECT_EQ(rig.last().status, 2u);
  EXPECT_EQ(rig.last().message, "invalid khAccessToken");

  // No passcode: both paths.
  rig.device.setPasscodeState(DeviceInfo::PasscodeState::notSet);
  rig.startSign();
  EXPECT_EQ(rig.last().status, 14u);
  EXPECT_EQ(rig.last().message, "precondition failed, please set passcode");
  rig.startRegistration();
  EXPECT_EQ(rig.last().status, 14u);
  EXPECT_EQ(rig.last().message, "precondition failed, please set passcode");
  rig.device.setPasscodeState(DeviceInfo::PasscodeState::set);

  // The authenticator's record gone: 12 after the pattern, and the counter is not touched.
  ASSERT_EQ(rig.keychain->deleteGenericPasswordWithAccount(std::nullopt, std::nullopt,
                                                           "AUTHNR.data." + Utils::sha256(kUser)),
            StoreStatus::ok);
  rig.startSign();
  rig.draw(kPattern);
  EXPECT_EQ(rig.last().status, 12u);
  EXPECT_EQ(rig.last().message, "authenticator storage data missing");
}

// "2-3|1-3-60|3-lock": two rounds of 3 tries, one of 3 with a 60 s wait, then a lockout round.
TEST(PatternLockAuthenticatorTest, LockoutWalkCannotBeShortened) {
  Rig rig;
  rig.registerUser();
  const auto failRound = [&rig](int tries) {
    rig.startSign();
    for (int i = 0; i < tries; ++i) rig.draw(kWrong);
    rig.scheduler.advance(kLockOutClose);
  };
  // Round 1: two wrong tries, cancel, and the round goes on with one try left.
  rig.startSign();
  rig.draw(kWrong);
  rig.draw(kWrong);
  rig.presenter.pattern()->pressButton();
  rig.scheduler.drain();
  ASSERT_EQ(rig.last().status, 5u);
  failRound(1);
  EXPECT_EQ(rig.last().status, 18u);
  EXPECT_EQ(rig.last().message, "User pattern lock attempt failed.");
  // Round 2: one wrong try, a restart, two more.
  rig.startSign();
  rig.draw(kWrong);
  rig.reopen();
  failRound(2);
  EXPECT_EQ(rig.last().status, 18u);
  EXPECT_EQ(rig.last().message, "User pattern lock attempt failed.");
  // Round 3 carries the wait.
  failRound(3);
  EXPECT_EQ(rig.last().status, 17u);
  EXPECT_EQ(rig.last().message, "User pattern lock attempt failed.");
  const struct {
    int64_t after;
    const char* message;
  } waits[] = {{0, "User pattern lock have been locked, please try again in (60) s."},
               {kSecond / 2, "User pattern lock have been locked, please try again in (59) s."},
               {58 * kSecond, "User pattern lock have been locked, please try again in (1) s."}};
  for (const auto& wait : waits) {
    rig.clock.advance(wait.after);
    rig.reopen();
    rig.startSign();
    EXPECT_EQ(rig.last().status, 17u);
    EXPECT_EQ(rig.last().message, wait.message);
    EXPECT_EQ(rig.presenter.shownCount(), 0u);
  }
  rig.clock.advance(kSecond);
  // Round 4 is the lockout: its failure wipes the registration.
  failRound(3);
  EXPECT_EQ(rig.last().status, 13u);
  EXPECT_EQ(rig.last().message,
            "Reached the maximum number of attempts. For the security reasons, we will delete "
            "your registeration data immediately.");
  EXPECT_FALSE(rig.hasRecord("AUTHNR.data"));
  EXPECT_FALSE(rig.hasRecord("ASMKH.data"));
  EXPECT_EQ(rig.platform->keyStore->sign(
                "ios:bundle-id:com.example.host.0F3D#0002.PRI." + Utils::sha256(kUser),
                Bytes(32, 1), nullptr),
            StoreStatus::notFound);
}

TEST(PatternLockAuthenticatorTest, KeyHandlesForOneUserAndTokenDiffer) {
  const SecretBytes key(Bytes(32, 9));
  const std::optional<std::string> first = AuthenticatorCore::sealKeyHandle(key, "token", "bob");
  const std::optional<std::string> second = AuthenticatorCore::sealKeyHandle(key, "token", "bob");
  ASSERT_TRUE(first && second);
  EXPECT_NE(*first, *second);
  for (const std::string& handle : {*first, *second}) {
    std::optional<SecretBytes> opened =
        PatternManager::openSealedPattern(key, SecretBytes(Utils::hexString2NSData(handle)));
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->exposeSecretText(), R"({"khAccessToken":"token","username":"bob"})");
  }
}

}  // namespace
}  // namespace corvane
