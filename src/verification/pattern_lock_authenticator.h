// PatternLockAuthenticator: the built-in authenticator with user-verification index 2
// ("pattern"). It verifies the user with a pattern drawn on the pattern screen, counts wrong
// patterns against the configured lockout policy, and leaves keys, key handles, records and
// assertions to AuthenticatorCore.
//
// Records of its own (H the SHA-256 hex of the user name, A the AAID):
//   current pattern   the pattern store's item (written with the registration)
//   fail record       account "AUTHNR.patternLock.H.A", service "AUTHNR.patternLock", generic
//                     "AUTHNR.patternLock.H": {"keyID": K} plus "patternLockFailTime" (rounds
//                     failed), "delayRetryTime" (the uptime before which no try is allowed) and
//                     "patternLockFailAttempts" (wrong tries in the round in force)
//
// Every answer to the ASM, early failures included, is posted to the main queue and never given
// inside the call that started the operation. Key generation, sealing, signing and their record
// writes run as background work. One operation at a time; the ASM sends no second command while
// one is pending.
//
// Thread-safety: main thread only (background work touches only the stores, which the main
// thread leaves alone meanwhile: docs/threading.md).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_feature.h"
#include "configuration/configuration.h"
#include "configuration/pattern_lock_policy.h"
#include "corvane/ports/clock.h"
#include "corvane/ports/device_info.h"
#include "corvane/ports/scheduler.h"
#include "corvane/ports/screen_presenter.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"
#include "ui/pattern_view_controller.h"
#include "ui/tx_view_controller.h"
#include "verification/authenticator_core.h"
#include "verification/system_clock.h"

namespace corvane {

// What a built-in authenticator works with; everything must outlive it.
struct AuthenticatorServices {
  Keychain& keychain;
  PatternManager& patterns;
  const Configuration& configuration;
  Scheduler& scheduler;
  ScreenPresenter& presenter;
  const DeviceInfo& deviceInfo;
  const Clock& clock;
  // The caller's facet ID, which names the key pairs.
  std::string facetID;
  // The sign assertions' nonce source; the default draws random characters.
  TlvHelper::NonceSource nonceSource = nullptr;
};

class PatternLockAuthenticator final : public AuthenticatorFeature,
                                       public PatternViewControllerDelegate,
                                       public TxPatternViewControllerDelegate,
                                       public TxPatternCustomPresentationControllerDelegate {
 public:
  static constexpr std::string_view kFailRecord = "AUTHNR.patternLock";

  // Texts of the answers.
  static constexpr std::string_view kPreconditionFailed =
      "precondition failed, please set passcode";
  static constexpr std::string_view kDeviceNotSupported = "device not support";
  static constexpr std::string_view kUserCanceledRegister = "user canceled register action";
  static constexpr std::string_view kUserCanceledSign = "user canceled sign action";
  static constexpr std::string_view kLocked =
      "User pattern lock have been locked, please try again in (%ld) s.";
  static constexpr std::string_view kInvalidPolicy =
      "config zandrel_fido_pattern_lockout_policy is invalid.";
  static constexpr std::string_view kAttemptFailed = "User pattern lock attempt failed.";
  static constexpr std::string_view kLockedOut =
      "Reached the maximum number of attempts. For the security reasons, we will delete your "
      "registeration data immediately.";
  static constexpr std::string_view kCannotReadPattern = "cannot read the stored pattern.";
  static constexpr std::string_view kCannotStorePattern = "cannot store the pattern.";

  PatternLockAuthenticator(AsmDelegate& asmDelegate, AuthenticatorServices services);
  ~PatternLockAuthenticator() override;

  // AuthenticatorFeature.
  AuthenticatorInfo getInfo() override;
  void registerWithCommand(const RegisterCommand& command) override;
  void signWithCommand(const SignCommand& command) override;
  uint64_t deregister(std::optional<std::string_view> keyID) override;
  std::string hash(std::string_view text) override;
  Bytes hashBackNSData(std::string_view text) override;
  uint64_t deviceSupportCheck() override;
  // Presents the set-pattern screen for the command's user.
  void openSettings(const RegisterCommand& command) override;
  bool deviceHavePasscodeCheck() override;

  // "AUTHNR.patternLock.H.A" and "AUTHNR.patternLock.H".
  static std::string failRecordAccount(std::string_view username);
  static std::string failRecordGeneric(std::string_view username);

 private:
  struct FailRecord;

  // PatternViewControllerDelegate.
  void unlockedPatternSendBackCommand(const SignCommand& command) override;
  void modifiedPatternSendBackCommand(const RegisterCommand& command,
                                      Result<SecretBytes> sealedPattern) override;
  void cancelModified() override;
  void cancelUnlocked() override;
  void userLockOut(const SignCommand& command) override;
  void backToConfirmTransactions(const SignCommand& command) override;
  void wrongPatternEntered(const SignCommand& command) override;
  void patternCheckFailed(const SignCommand& command, const Error& error) override;
  // TxPatternViewControllerDelegate and its presentation delegate.
  void txPatternViewAuthenticationRequest(const SignCommand& command) override;
  void txPatternUserCancel() override;
  void onTxPatternCustomPresentationDissmiss() override;

  void confirmTransactions(const SignCommand& command);
  void localAuthenticate(const SignCommand& command, PatternViewController::Mode mode);
  // The end of a round whose tries are used up: the next round, or the wipe of a lockout round.
  // Answers the sign operation.
  void endRound(const SignCommand& command);

  [[nodiscard]] Result<std::optional<FailRecord>> readFailRecord(std::string_view username);
  [[nodiscard]] StoreStatus writeFailRecord(std::string_view username, const FailRecord& record);

  // Answers posted to the main queue, so that they never arrive inside the call that started the
  // operation. An answer with an error carries the error's code as its status.
  void answerRegister(RegisterResponseCommand response, std::optional<Error> error);
  void answerRegisterFailure(uint64_t status, std::optional<std::string> message);
  void answerSign(SignResponseCommand response, std::optional<Error> error);
  void answerSignFailure(uint64_t status, std::optional<std::string> message);
  // Closes a screen and keeps it alive until the current main-queue task has returned through
  // it.
  template <typename Screen>
  void retire(std::unique_ptr<Screen> screen);
  PatternViewController::Services screenServices();

  AsmDelegate& asmDelegate_;
  AuthenticatorServices services_;
  AuthenticatorCore core_;
  SystemClock systemClock_;
  // The round in force of the authentication in progress.
  PatternLockPolicy patternLockPolicy_;
  // Tries left in the round in force.
  int64_t triesLeft_ = 0;
  std::unique_ptr<PatternViewController> patternScreen_;
  std::unique_ptr<TxPatternViewController> txScreen_;
  std::vector<std::shared_ptr<void>> retired_;
  // The operation waiting for its one answer.
  enum class Pending { none, registration, sign };
  Pending pending_ = Pending::none;
  // Gone with the authenticator, so that tasks posted earlier do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace corvane
