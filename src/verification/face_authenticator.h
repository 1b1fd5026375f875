// FaceAuthenticator: the built-in authenticator with user-verification index 1 ("biometry"). The
// device's biometry (BiometryPort: a fingerprint reader on Linux, a face or fingerprint sensor on
// a phone) verifies the user by opening a biometry-bound item; keys, key handles, records and
// assertions are AuthenticatorCore's, as for the pattern lock.
//
// Records of its own (H the SHA-256 hex of the user name):
//   biometry-bound item   account "bio_account_H", service "bio_service_H": a random value that
//                         only a passed biometric prompt reads back; bound to any enrolment with
//                         the security level "Convenience", to the current enrolment otherwise
//   enrolment state       user default "FingerprintDatabaseStateKey": the base64url enrolment
//                         token of the last successful verification
//
// Registration reads the new item back once with the prompt "zandrel_fido_touch_id_reg" before
// any key is made, so nobody is registered without a biometric match. Signing shows the
// transaction first (TxFaceViewController), then reads the item with "zandrel_fido_touch_id_auth".
//
// Every answer to the ASM, early failures included, is posted to the main queue and never given
// inside the call that started the operation. Prompts block, so they run as background work with
// the key and record work that follows them. One operation at a time.
//
// Thread-safety: main thread only (background work touches only the stores and the biometry port,
// which the main thread leaves alone meanwhile: docs/threading.md).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_feature.h"
#include "corvane/platform.h"
#include "corvane/ports/biometry.h"
#include "ui/tx_view_controller.h"
#include "verification/authenticator_core.h"
#include "verification/pattern_lock_authenticator.h"

namespace corvane {

class FaceAuthenticator final : public AuthenticatorFeature,
                                public TxFaceViewControllerDelegate,
                                public TxFaceCustomPresentationControllerDelegate {
 public:
  static constexpr std::string_view kBioService = "bio_service_";
  static constexpr std::string_view kBioAccount = "bio_account_";
  static constexpr std::string_view kFingerprintDatabaseStateKey = "FingerprintDatabaseStateKey";

  // Texts of the answers.
  static constexpr std::string_view kDeviceNotSupported = "device not support";
  static constexpr std::string_view kPreconditionFailed = "precondition failed";
  static constexpr std::string_view kUserLockout = "user lockout";
  static constexpr std::string_view kNotEnrolled = "user not enrolled face id";
  static constexpr std::string_view kUserCanceledRegister = "user canceled register action";
  static constexpr std::string_view kUserCanceledSign = "user canceled sign action";
  static constexpr std::string_view kEnrolmentChanged =
      "the biometric enrolment has changed: register again.";
  static constexpr std::string_view kItemGone = "the biometric item is gone: register again.";

  // `biometry` is the port the Keychain of `services` reads biometry-bound items through;
  // `defaults` keeps the enrolment state. Both must outlive the authenticator.
  FaceAuthenticator(AsmDelegate& asmDelegate, AuthenticatorServices services,
                    BiometryPort& biometry, UserDefaults& defaults);
  ~FaceAuthenticator() override;

  // AuthenticatorFeature.
  AuthenticatorInfo getInfo() override;
  void registerWithCommand(const RegisterCommand& command) override;
  void signWithCommand(const SignCommand& command) override;
  uint64_t deregister(std::optional<std::string_view> keyID) override;
  std::string hash(std::string_view text) override;
  Bytes hashBackNSData(std::string_view text) override;
  // The platform's availability as an authenticator-info status: 2 when biometry can be used and
  // the device names a kind, 1 without biometry (or with an unknown reason), 3 without a device
  // passcode, 5 when locked out, 6 when nothing is enrolled.
  uint64_t deviceSupportCheck() override;
  bool deviceHaveTouchCheck() override;

  // Whether the enrolment differs from the one stored at the last successful verification (true
  // when none is stored or the device has no token).
  bool didFingerprintDatabaseChange() const;
  // Stores the current enrolment token as the last verified one.
  void saveFingerprintDatabaseChange();

  // "bio_account_H" and "bio_service_H".
  static std::string bioAccount(std::string_view username);
  static std::string bioService(std::string_view username);

 private:
  // TxFaceViewControllerDelegate and its presentation delegate.
  void txFaceViewAuthenticationRequest(const SignCommand& command) override;
  void txFaceUserCancel() override;
  void onTxFaceCustomPresentationDissmiss() override;

  uint64_t supportStatus() const;
  void confirmTransactions(const SignCommand& command);
  // The biometric prompt and, after a match, the signature.
  void localAuthenticate(const SignCommand& command);
  // The answer to a device that cannot verify now (status and text by deviceSupportCheck).
  [[nodiscard]] std::optional<Error> unsupported() const;
  // What a failed read of the biometry-bound item answers.
  Error readFailure(const Error& keychainError, std::string_view cancelText) const;

  void answerRegister(RegisterResponseCommand response, std::optional<Error> error);
  void answerRegisterFailure(const Error& error);
  void answerSign(SignResponseCommand response, std::optional<Error> error);
  void answerSignFailure(const Error& error);
  void retire(std::unique_ptr<TxFaceViewController> screen);

  AsmDelegate& asmDelegate_;
  AuthenticatorServices services_;
  BiometryPort& biometry_;
  UserDefaults& defaults_;
  AuthenticatorCore core_;
  std::unique_ptr<TxFaceViewController> txScreen_;
  std::vector<std::shared_ptr<void>> retired_;
  enum class Pending { none, registration, sign };
  Pending pending_ = Pending::none;
  // Gone with the authenticator, so that tasks posted earlier do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace corvane
