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

#include "verification/authenticator_rig.h"

namespace corvane {
namespace {

constexpr std::chrono::milliseconds kLockOutClose{3000};
constexpr int64_t kSecond = 1'000'000;
const std::initializer_list<uint32_t> kPattern = {0, 1, 2, 5, 8, 7};
const std::initializer_list<uint32_t> kWrong = {6, 3, 0, 1, 2, 5};

constexpr std::string_view kUser = testing::kRigUser;

// The pattern lock at index 2, policy "2-3|1-3-60|3-lock".
class Rig : public testing::AuthenticatorRig {
 public:
  Rig()
      : AuthenticatorRig(2,
                         "<key>zandrel_fido_pattern_lockout_policy</key>"
                         "<string>2-3|1-3-60|3-lock</string>"
                         "<key>zandrel_fido_pattern_lock_active</key><true/>",
                         false, [](AuthenticatorRig& rig, AsmDelegate& delegate) {
                           return std::make_unique<PatternLockAuthenticator>(delegate,
                                                                             rig.services());
                         }) {}

  PatternLockAuthenticator* authenticator() {
    return static_cast<PatternLockAuthenticator*>(feature);
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
    rememberRegisteredKey();
  }
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
  // Cancel on the enrolment screen, then (the user registered in between) on both sign screens.
  for (bool sign : {false, true}) {
    sign ? rig.startSign() : rig.startRegistration();
    rig.presenter.pattern()->pressButton();
    rig.scheduler.drain();
    EXPECT_EQ(rig.last().status, 5u);
    EXPECT_EQ(rig.last().message,
              sign ? "user canceled sign action" : "user canceled register action");
    EXPECT_EQ(rig.presenter.shownCount(), 0u);
    if (!sign) rig.registerUser();
  }
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
  rig.authenticator()->signWithCommand(command);
  EXPECT_EQ(rig.spy.answers.size(), 5u) << "answered inside the call";
  rig.scheduler.drain();
  rig.draw(kPattern);
  EXPECT_EQ(rig.last().status, 2u);
  EXPECT_EQ(rig.last().message, "invalid khAccessToken");

  // No passcode: both paths.
  rig.device.setPasscodeState(DeviceInfo::PasscodeState::notSet);
  for (bool sign : {true, false}) {
    sign ? rig.startSign() : rig.startRegistration();
    EXPECT_EQ(rig.last().status, 14u);
    EXPECT_EQ(rig.last().message, "precondition failed, please set passcode");
  }
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
  // A sign with `tries` wrong patterns, left until its screen closes, answers `status`.
  const auto failRound = [&rig](int tries, uint64_t status,
                                std::string_view message = "User pattern lock attempt failed.") {
    rig.startSign();
    for (int i = 0; i < tries; ++i) rig.draw(kWrong);
    rig.scheduler.advance(kLockOutClose);
    EXPECT_EQ(rig.last().status, status);
    EXPECT_EQ(rig.last().message, message);
  };
  // Round 1: two wrong tries, cancel, and the round goes on with one try left.
  rig.startSign();
  rig.draw(kWrong);
  rig.draw(kWrong);
  rig.presenter.pattern()->pressButton();
  rig.scheduler.drain();
  ASSERT_EQ(rig.last().status, 5u);
  failRound(1, 18u);
  // Round 2: one wrong try, a restart, two more.
  rig.startSign();
  rig.draw(kWrong);
  rig.reopen();
  failRound(2, 18u);
  // Round 3 carries the wait.
  failRound(3, 17u);
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
  failRound(3, 13u,
            "Reached the maximum number of attempts. For the security reasons, we will delete "
            "your registeration data immediately.");
  EXPECT_TRUE(rig.wiped());
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
