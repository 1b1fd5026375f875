// The biometric authenticator through the ASM and through the facade, over the real Linux stores
// in a temporary data directory, with the scripted biometry, the scripted presenter and the manual
// queue: every availability answer, registration and signing with the assertions checked with
// OpenSSL, the prompts and the transaction screen in their order, and what a changed enrolment
// does under each security level.
#include "verification/face_authenticator.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "corvane/corvane.h"
#include "corvane/status_codes.h"
#include "verification/authenticator_rig.h"

namespace corvane {
namespace {

using nlohmann::json;
using testing::ManualScheduler;
using testing::ScriptedBiometry;
using testing::ScriptedPresenter;
using Prompt = ScriptedBiometry::Prompt;
constexpr std::string_view kUser = testing::kRigUser;
constexpr std::string_view kRegPrompt = "Verify your identity to turn on biometric sign-in.";
constexpr std::string_view kAuthPrompt = "Verify your identity to sign in.";

// The biometric authenticator at index 1 over the scripted biometry, with the given security
// level.
class Rig : public testing::AuthenticatorRig {
 public:
  explicit Rig(std::optional<std::string_view> level = std::nullopt)
      : AuthenticatorRig(1, settings(level), true,
                         [](AuthenticatorRig& rig, AsmDelegate& delegate) {
                           return std::make_unique<FaceAuthenticator>(
                               delegate, rig.services(), rig.biometry, *rig.platform->userDefaults);
                         }) {}

  static std::string settings(std::optional<std::string_view> level) {
    return "<key>zandrel_fido_pattern_lockout_policy</key><string>2-3|3-lock</string>" +
           (level ? "<key>zandrel_fido_biometric_security_level</key><string>" +
                        std::string(*level) + "</string>"
                  : std::string());
  }
  FaceAuthenticator* authenticator() { return static_cast<FaceAuthenticator*>(feature); }
  // A registration whose prompt matches; remembers the key ID and public key.
  void registerUser() {
    biometry.queuePrompt(Prompt::success);
    startRegistration();
    rememberRegisteredKey();
  }
  bool hasBioItem() {
    Result<std::vector<std::string>> services =
        keychain->findGenericPasswordServicesDescWithAccount("bio_account_" + Utils::sha256(kUser),
                                                             std::nullopt);
    return services && services->size() == 1 &&
           services->front() == "bio_service_" + Utils::sha256(kUser);
  }
};

TEST(FaceAuthenticatorTest, EachAvailabilityAnswersRegistrationWithoutAPrompt) {
  const struct {
    BiometryAvailability availability;
    BiometryType type;
    uint64_t infoStatus;
    uint64_t status;
    const char* message;
    uint64_t asmStatus;
  } cases[] = {
      {BiometryAvailability::notAvailable, BiometryType::none, 1, 14, "device not support", 15},
      {BiometryAvailability::available, BiometryType::none, 1, 14, "device not support", 15},
      {BiometryAvailability::other, BiometryType::fingerprint, 1, 14, "device not support", 15},
      {BiometryAvailability::passcodeNotSet, BiometryType::face, 3, 14, "precondition failed", 15},
      {BiometryAvailability::lockout, BiometryType::fingerprint, 5, 13, "user lockout", 13},
      {BiometryAvailability::notEnrolled, BiometryType::fingerprint, 6, 14,
       "user not enrolled face id", 15},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.availability));
    Rig rig;
    rig.biometry.setAvailability(c.availability);
    rig.biometry.setBiometryType(c.type);
    EXPECT_EQ(rig.authenticator()->getInfo().status, c.infoStatus);
    rig.startRegistration();
    ASSERT_EQ(rig.spy.answers.size(), 1u);
    EXPECT_EQ(rig.last().status, c.status);
    EXPECT_EQ(rig.last().message, c.message);
    EXPECT_EQ(rig.asmStatus(), c.asmStatus);
    EXPECT_TRUE(rig.biometry.calls().empty());
    EXPECT_FALSE(rig.hasRecord("AUTHNR.data"));
    // Signing is refused the same way, before any screen or prompt.
    rig.startSign(std::vector{Transaction{"text/plain", "SGk", std::nullopt}});
    EXPECT_EQ(rig.last().status, c.status);
    EXPECT_EQ(rig.presenter.shownCount(), 0u);
  }
}

TEST(FaceAuthenticatorTest, RegistersAndSignsAfterEachPrompt) {
  Rig rig;
  // Available with a kind: supported.
  rig.biometry.setBiometryType(BiometryType::face);
  EXPECT_EQ(rig.authenticator()->getInfo().status, 2u);
  rig.registerUser();
  // The item was made, then read back once with the registration prompt.
  ASSERT_EQ(rig.biometry.calls().size(), 2u);
  EXPECT_EQ(rig.biometry.calls()[0].op, ScriptedBiometry::Op::protect);
  EXPECT_EQ(rig.biometry.promptsShown(), std::vector<std::string>{std::string(kRegPrompt)});
  EXPECT_TRUE(rig.hasRecord("AUTHNR.data") && rig.hasRecord("ASMKH.data") && rig.hasBioItem());
  EXPECT_EQ(rig.platform->userDefaults->getString("FingerprintDatabaseStateKey"),
            Utils::base64URLSafeStringFromData(*rig.biometry.enrolmentState()));

  for (uint32_t expected : {1u, 2u}) {
    rig.biometry.queuePrompt(Prompt::success);
    rig.startSign();
    ASSERT_EQ(rig.asmStatus(), 0u) << rig.last().message;
    EXPECT_EQ(rig.verifiedCounter(), expected);
  }
  EXPECT_EQ(rig.biometry.promptsShown().back(), kAuthPrompt);

  // A transaction is shown first; the prompt comes only after the user confirms it.
  const size_t prompts = rig.biometry.promptsShown().size();
  rig.biometry.queuePrompt(Prompt::success);
  rig.startSign(std::vector{Transaction{"text/plain", "UGF5IDEwIEVVUg", std::nullopt}});
  ASSERT_TRUE(rig.presenter.transaction());
  EXPECT_EQ(rig.presenter.transaction()->transactionText(), "Pay 10 EUR");
  EXPECT_EQ(rig.biometry.promptsShown().size(), prompts);
  rig.presenter.transaction()->pressConfirm();
  rig.scheduler.drain();
  EXPECT_EQ(rig.biometry.promptsShown().size(), prompts + 1);
  EXPECT_EQ(rig.presenter.shownCount(), 0u);
  EXPECT_EQ(rig.verifiedCounter(), 3u);

  // A second registration of the user is refused without a prompt and keeps the first key.
  const size_t calls = rig.biometry.calls().size();
  rig.startRegistration();
  EXPECT_EQ(rig.last().status, 1u);
  EXPECT_EQ(rig.last().message, "the user is registered already: deregister first.");
  EXPECT_EQ(rig.biometry.calls().size(), calls);
  rig.biometry.queuePrompt(Prompt::success);
  rig.startSign();
  EXPECT_EQ(rig.verifiedCounter(), 4u);
  EXPECT_EQ(rig.biometry.unscriptedPrompts(), 0);

  // The item lost while the enrolment stays the same: a key that disappeared.
  ASSERT_EQ(rig.keychain->deleteGenericPasswordWithAccount(
                std::nullopt, "bio_service_" + Utils::sha256(kUser), std::nullopt),
            StoreStatus::ok);
  rig.startSign();
  EXPECT_EQ(rig.last().status, 9u);
  EXPECT_EQ(rig.last().message, "the biometric item is gone: register again.");
  EXPECT_EQ(AsmStatusCodeTranslater::translate(static_cast<int64_t>(rig.asmStatus())), 20004);
}

TEST(FaceAuthenticatorTest, FailedPromptsAnswerTheirStatus) {
  Rig rig;
  rig.biometry.failProtect(true);
  rig.startRegistration();
  EXPECT_EQ(rig.last().status, 2u);
  EXPECT_EQ(rig.last().message, "Unable add item to keychain with status : -36");
  rig.biometry.failProtect(false);
  // A cancelled or failed registration prompt leaves nothing behind; the sign rows come once the
  // user is registered.
  const struct {
    bool sign;
    Prompt prompt;
    uint64_t status;
    const char* message;
    uint64_t asmStatus;
  } failures[] = {
      {false, Prompt::userCancel, 5, "user canceled register action", 3},
      {false, Prompt::failed, 2, "Unable find item to keychain with status : -25293", 2},
      {true, Prompt::userCancel, 5, "user canceled sign action", 3},
      {true, Prompt::failed, 2, "Unable find item to keychain with status : -25293", 2},
      {true, Prompt::lockout, 13, "user lockout", 13},
  };
  for (const auto& c : failures) {
    SCOPED_TRACE(c.message);
    if (c.sign && rig.keyID.empty()) rig.registerUser();
    rig.biometry.queuePrompt(c.prompt);
    c.sign ? rig.startSign() : rig.startRegistration();
    EXPECT_EQ(rig.last().status, c.status);
    EXPECT_EQ(rig.last().message, c.message);
    EXPECT_EQ(rig.asmStatus(), c.asmStatus);
    EXPECT_TRUE(c.sign || (rig.wiped() && !rig.hasBioItem()));
  }
  rig.biometry.setAvailability(BiometryAvailability::available);
  // Cancel on the transaction screen: no prompt at all.
  const size_t prompts = rig.biometry.promptsShown().size();
  rig.startSign(std::vector{Transaction{"text/plain", "SGk", std::nullopt}});
  rig.presenter.transaction()->pressCancel();
  rig.scheduler.drain();
  EXPECT_EQ(rig.last().status, 5u);
  EXPECT_EQ(rig.asmStatus(), 3u);
  EXPECT_EQ(rig.biometry.promptsShown().size(), prompts);
  EXPECT_EQ(rig.presenter.shownCount(), 0u);
  // Only non-text transactions: refused before any screen.
  rig.startSign(std::vector{Transaction{"image/png", "iVBO", std::nullopt}});
  EXPECT_EQ(rig.last().status, 8u);
  EXPECT_EQ(rig.presenter.shownCount(), 0u);
  // The registration survived every failure.
  rig.biometry.queuePrompt(Prompt::success);
  rig.startSign();
  EXPECT_EQ(rig.verifiedCounter(), 1u);
}

TEST(FaceAuthenticatorTest, ChangedEnrolmentKeepsOnlyConvenienceRegistrations) {
  const struct {
    std::optional<std::string_view> level;
    bool kept;
  } cases[] = {{"Convenience", true}, {"Strong", false}, {std::nullopt, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.level.value_or("absent")));
    Rig rig(c.level);
    rig.registerUser();
    rig.biometry.changeEnrolment();
    rig.biometry.queuePrompt(Prompt::success);
    rig.startSign();
    const std::optional<std::string> state =
        rig.platform->userDefaults->getString("FingerprintDatabaseStateKey");
    if (c.kept) {
      EXPECT_EQ(rig.asmStatus(), 0u) << rig.last().message;
      EXPECT_EQ(rig.verifiedCounter(), 1u);
      // The enrolment verified last is the one stored.
      EXPECT_EQ(state, Utils::base64URLSafeStringFromData(*rig.biometry.enrolmentState()));
      continue;
    }
    // No prompt: the item no longer opens, every record is wiped, the host hears 20006.
    EXPECT_EQ(rig.biometry.pendingPrompts(), 1u);
    EXPECT_EQ(rig.last().status, 15u);
    EXPECT_EQ(rig.last().message, "the biometric enrolment has changed: register again.");
    EXPECT_EQ(rig.asmStatus(), 16u);
    EXPECT_EQ(AsmStatusCodeTranslater::translate(static_cast<int64_t>(rig.asmStatus())), 20006);
    EXPECT_TRUE(rig.wiped() && !rig.hasBioItem());
    EXPECT_NE(state, Utils::base64URLSafeStringFromData(*rig.biometry.enrolmentState()));
    // The user registers again over the new enrolment and signs with the new key (the prompt
    // queued above is still unused, so the sign has one).
    rig.registerUser();
    rig.startSign();
    EXPECT_EQ(rig.verifiedCounter(), 1u);
  }
}

// The facade: which authenticators a host discovers, and what it hears after an enrolment change.
class Host {
 public:
  explicit Host(std::shared_ptr<BiometryPort> biometry) {
    Error error;
    std::optional<Platform> platform =
        linux_platform::makePlatform(Rig::hostOptions(dir, Rig::settings(std::nullopt)), &error);
    EXPECT_TRUE(platform) << error.localizedDescription();
    platform->scheduler = scheduler;
    platform->screenPresenter = std::make_shared<ScriptedPresenter>();
    if (biometry) platform->biometry = std::move(biometry);
    corvane = Corvane::create(recorder, std::move(*platform), &error);
    EXPECT_TRUE(corvane) << error.localizedDescription();
  }
  json discovered() {
    Error error;
    return json::parse(corvane->discover(&error).value_or("{}"))["availableAuthenticators"];
  }

  struct Recorder final : AuthUIControllerDelegate {
    std::vector<Error> errors;
    void onRegistrationComplete(std::optional<std::string>, const Error& error) override {
      errors.push_back(error);
    }
    void onAuthenticationComplete(std::optional<std::string>, const Error& error) override {
      errors.push_back(error);
    }
  };
  testing::TempDir dir;
  std::shared_ptr<ManualScheduler> scheduler = std::make_shared<ManualScheduler>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::unique_ptr<Corvane> corvane;
};

std::string uafRequest(std::string_view op, std::optional<std::string_view> user) {
  json message = {
      {"header", {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"serverData", "sd"}}},
      {"challenge", "Y2hhbGxlbmdl"},
      {"policy", {{"accepted", json::array({json::array({{{"aaid", {"0F3D#0002"}}}})})}}}};
  if (user) message["username"] = *user;
  return json::array({message}).dump();
}

TEST(FaceAuthenticatorTest, FacadeDiscoversBiometryOnlyWithAReaderAndReportsAChangedEnrolment) {
  // The default Linux platform without a reader: only the pattern lock.
  EXPECT_EQ(Host(nullptr).discovered().size(), 1u);
  auto notEnrolled = std::make_shared<ScriptedBiometry>();
  notEnrolled->setAvailability(BiometryAvailability::notEnrolled);
  EXPECT_EQ(Host(notEnrolled).discovered().size(), 1u);

  auto biometry = std::make_shared<ScriptedBiometry>();
  Host host(biometry);
  EXPECT_EQ(host.discovered().size(), 2u);
  biometry->queuePrompt(Prompt::success);
  host.corvane->doRegistration(DoRegReq{uafRequest("Reg", kUser), "biometry", "Alice", {}});
  host.scheduler->drain();
  ASSERT_EQ(host.recorder->errors.size(), 1u);
  EXPECT_EQ(host.recorder->errors.back().code(), 0);

  Error error;
  json question = json::parse(uafRequest("Auth", kUser));
  std::optional<GetSupportedAuthenticatorResponse> supported =
      host.corvane->getSupportedAuthenticator(question.dump(), &error);
  ASSERT_TRUE(supported) << error.localizedDescription();
  EXPECT_EQ(supported->userVerifications, std::vector<std::string>{"biometry"});

  biometry->changeEnrolment();
  host.corvane->doAuthentication(DoAuthReq{uafRequest("Auth", std::nullopt), "alice", {}, "Alice"});
  host.scheduler->drain();
  ASSERT_EQ(host.recorder->errors.size(), 2u);
  const Error& heard = host.recorder->errors.back();
  EXPECT_EQ(std::to_string(heard.code()) + " " + heard.localizedDescription(),
            "20006 the biometric enrolment has changed: register again.");
  EXPECT_EQ(biometry->promptsShown().size(), 1u);
}

}  // namespace
}  // namespace corvane
