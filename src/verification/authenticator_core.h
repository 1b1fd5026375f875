// AuthenticatorCore: the work both built-in authenticators share once the user is verified. It
// makes the user's key pair, the sealed key handle, the key ID, the registration assertion and
// the registration record; it opens and checks a key handle, raises the sign counter, records the
// sign time and makes the sign assertion. The pattern lock and biometric authenticators differ
// only in how they verify the user and in the records of their own.
//
// Records (H the SHA-256 hex of the user name, A the AAID "0F3D#0002", F the caller's facet ID):
//   key pair            private tag "F.A.PRI.H" (the public tag names nothing stored)
//   "AUTHNR.data"       account "H.A", service "AUTHNR.data.<base64url key ID>", generic
//                       "AUTHNR.data.H": {"keyID": K, "username": U} and, once signed,
//                       "signCounter"
//   "AUTHNR.signtime"   account "H.A", service "AUTHNR.signtime.<base64url key ID>", generic
//                       "AUTHNR.signtime.H": the uptime of the last signature, 8 bytes big-endian
// The key handle is the lower-case hex of the sealed JSON {"khAccessToken": T, "username": U}:
// format byte, a fresh random IV, ciphertext and tag, under the authenticators' key
// ("AUTHNR.authKeyTag").
//
// Failures are Errors whose code is the authenticator status to answer with and whose message is
// the text to answer with. Runs on the background thread; no screen, no ASM.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_feature.h"
#include "authenticator/commands.h"
#include "authenticator/tlv_helper.h"
#include "corvane/ports/clock.h"
#include "foundation/result.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"

namespace corvane {

// The authenticator statuses the built-in authenticators answer with.
namespace authenticator_status {
inline constexpr uint64_t kStatusError = 1;
inline constexpr uint64_t kStatusAccessDenied = 2;
inline constexpr uint64_t kStatusCancelled = 5;
inline constexpr uint64_t kStatusParamsInvalid = 8;
inline constexpr uint64_t kStatusKeyDisappeared = 9;
inline constexpr uint64_t kStatusDataMissing = 12;
inline constexpr uint64_t kStatusLockedOut = 13;
inline constexpr uint64_t kStatusNotSupported = 14;
inline constexpr uint64_t kStatusBiometryChanged = 15;
inline constexpr uint64_t kStatusInvalidPolicy = 16;
inline constexpr uint64_t kStatusTemporarilyLocked = 17;
inline constexpr uint64_t kStatusAttemptFailed = 18;
// Authenticator-info statuses (deviceSupportCheck).
inline constexpr uint64_t kInfoNotSupported = 1;
inline constexpr uint64_t kInfoSupported = 2;
inline constexpr uint64_t kInfoPreconditionFailed = 3;
inline constexpr uint64_t kInfoLockout = 5;
inline constexpr uint64_t kInfoNotEnrolled = 6;
}  // namespace authenticator_status

class AuthenticatorCore {
 public:
  // Texts of the answers.
  static constexpr std::string_view kInvalidKhAccessToken = "invalid khAccessToken";
  static constexpr std::string_view kInvalidUsername = "invalid username";
  static constexpr std::string_view kDataMissing = "authenticator storage data missing";
  static constexpr std::string_view kCannotUpdate = "cannot update authenticator data";
  static constexpr std::string_view kAlreadyRegistered =
      "the user is registered already: deregister first.";
  static constexpr std::string_view kCannotRegister = "cannot make the registration.";
  static constexpr std::string_view kCannotSign = "cannot make the assertion.";
  static constexpr std::string_view kNoDisplayableTransaction = "no text/plain transaction.";
  static constexpr std::string_view kStoreFailed = "the item store failed.";

  // Everything must outlive the core. `patterns` gives the authenticators' key (shared with the
  // pattern store); `clock` reads the sign time.
  AuthenticatorCore(Keychain& keychain, PatternManager& patterns, const Clock& clock,
                    std::string facetID, TlvHelper::NonceSource nonceSource = nullptr);

  // Whether `username` has a registration with this authenticator family (an "AUTHNR.data"
  // record).
  Result<bool> isRegistered(std::string_view username);

  // The registration after the user was verified: refuses (status 1) a user who is registered
  // already, so a second registration can never replace the key of the first behind the relying
  // party's back; then the key pair, key handle, key ID, assertion and "AUTHNR.data" record.
  // `writeOwnRecords(keyID)` runs after the key pair exists and before the assertion is made, to
  // write what only the calling authenticator keeps; its failure fails the registration. A
  // registration that fails deletes the key pair it made.
  Result<RegisterResponseCommand> registerAuthenticator(
      const RegisterCommand& command, uint64_t userVerification,
      const std::function<Result<void>(const std::string& keyID)>& writeOwnRecords);

  // registerAuthenticator inside one item-store transaction, with the ASM's record written through
  // `asmDelegate` before the commit: the key pair, the records and the ASM's record land in one
  // commit, or none does (a key pair a key store keeps outside the item store is deleted again).
  Result<RegisterResponseCommand> registerInOneCommit(
      const RegisterCommand& command, uint64_t userVerification,
      const std::function<Result<void>(const std::string& keyID)>& writeOwnRecords,
      AsmDelegate& asmDelegate);

  // `ownWrites` then signByAuthenticator inside one item-store transaction. The commit is made
  // whatever the signature's outcome (a counter once raised stays raised), but a write that
  // failed spoils it and nothing lands.
  Result<SignResponseCommand> signInOneCommit(const SignCommand& command,
                                              const std::function<Result<void>()>& ownWrites);

  // The signature after the user was verified: the key handle checked against the command, the
  // counter raised, the sign time recorded, the sign assertion made.
  Result<SignResponseCommand> signByAuthenticator(const SignCommand& command);

  // Deletes the user's registration records ("ASMKH.data", "AUTHNR.data", "AUTHNR.signtime") and
  // key pair (a lockout wipe). The pattern items stay.
  Result<void> deleteRegistration(std::string_view username);

  // Deregistration: the records of a base64url key ID, or every record of the system when absent.
  // An authenticator status: 0, 1 when the store fails, 3 when there was nothing at all.
  uint64_t deregister(std::optional<std::string_view> keyID);

  // Whether a transaction list holds a text/plain entry with content (the only kind shown).
  static bool hasTextTransaction(const std::vector<Transaction>& transactions);

  static std::string userHash(std::string_view username);
  // "H.A".
  static std::string recordAccount(std::string_view username);
  // The hex key handle of {"khAccessToken", "username"} under `key`; absent when a text is not
  // UTF-8 or sealing fails.
  static std::optional<std::string> sealKeyHandle(const SecretBytes& key,
                                                  std::string_view khAccessToken,
                                                  std::string_view username);

 private:
  Error failure(uint64_t status, std::string_view message) const;

  Keychain& keychain_;
  PatternManager& patterns_;
  const Clock& clock_;
  std::string facetID_;
  TlvHelper tlv_;
};

}  // namespace corvane
