// Asm: the authenticator-specific module between the UAF client and the authenticators.
//
// The client hands it an AsmRequest. Registration and authentication pick the authenticator by
// user-verification index, fill a command with the KHAccessToken that binds the key handle to the
// calling application, and answer later through the CorvaneDelegate, once the authenticator has
// answered through this object's AsmDelegate side. getInfo, getRegistrations and deregister answer
// by return value. The ASM keeps one registration record per key ID in the Keychain.
//
// The ASM token (16 random bytes, made once per facet ID and kept in the Keychain) is part of every
// KHAccessToken. When it can be neither read nor stored the Asm cannot bind key handles: it tries
// again at each registration and authentication, which answer status 1 while it is missing.
//
// Threads: no locks, one operation at a time. Authenticators may answer on another thread; the
// answer is passed on to the CorvaneDelegate on that thread. Nothing is logged.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "asm/asm_records.h"
#include "asm/corvane_delegate.h"
#include "authenticator/authenticator_feature.h"
#include "authenticator/generic_authenticator.h"
#include "configuration/configuration.h"
#include "corvane/error.h"
#include "corvane/secret_bytes.h"
#include "foundation/result.h"
#include "storage/keychain.h"

namespace corvane {

class Asm final : public AsmDelegate {
 public:
  // User-verification index to authenticator.
  using Authenticators = std::map<uint64_t, std::unique_ptr<AuthenticatorFeature>>;
  // Makes the authenticators, each answering to the given AsmDelegate (the Asm being built). This
  // is how the built-in authenticators, or test doubles, are plugged in.
  using AuthenticatorFactory = std::function<Authenticators(AsmDelegate&)>;

  static constexpr std::string_view kAsmTokenAccount = "CORVANE";
  static constexpr size_t kAsmTokenSize = 16;
  // Item name prefixes of the ASM's records and of the authenticators' records.
  static constexpr std::string_view kAsmData = GenericAuthenticator::kAsmData;
  static constexpr std::string_view kAuthenticatorData = GenericAuthenticator::kAuthenticatorData;

  // Descriptions of the errors the ASM raises itself.
  static constexpr std::string_view kNoActiveAuthenticator = "no active authenticator.";
  static constexpr std::string_view kNoMatchedAuthenticator = "no matched authenticator.";
  static constexpr std::string_view kNoRegistrationData = "no registration data";
  static constexpr std::string_view kAuthenticatorNotActive = "authenticator not active.";
  static constexpr std::string_view kNoMatchedAuthenticatorWithIndex =
      "no matched authenticator with index:";
  static constexpr std::string_view kNoAsmToken = "asm token unavailable: cannot bind key handles.";
  static constexpr std::string_view kInvalidArguments = "invalid asm request arguments.";
  static constexpr std::string_view kInvalidText = "text is not valid UTF-8.";
  static constexpr std::string_view kInvalidRecord = "invalid registration data.";
  static constexpr std::string_view kIncompleteResponse = "incomplete registration response.";
  static constexpr std::string_view kNoPendingRegistration = "no registration in progress.";
  static constexpr std::string_view kCannotStoreRecord = "cannot store registration data.";
  static constexpr std::string_view kStoreFailed = "the item store failed.";

  // Reads or makes the ASM token of `facetID` and makes the authenticators. The delegate, the
  // Keychain and the configuration must outlive the Asm.
  Asm(CorvaneDelegate& corvaneDelegate, Keychain& keychain, const Configuration& configuration,
      std::string facetID, const AuthenticatorFactory& makeAuthenticators);
  Asm(const Asm&) = delete;
  Asm& operator=(const Asm&) = delete;

  // Runs the operation named by the request's requestTypeCommand; any result is dropped. For
  // "registration" and "authenticate", which answer through the CorvaneDelegate.
  void executeWithAsmRequest(const AsmRequest& request);
  // Runs the operation and returns its response. Status 1 when the request type names no operation
  // ("openSettings", 6 or more) or an operation that answers through the delegate instead.
  AsmResponse executeWithAsmRequestThenResponse(const AsmRequest& request);
  // executeWithAsmRequestThenResponse as a runner for code that must not own the Asm. The runner
  // must not outlive the Asm.
  AsmRequestRunner runner();

  void registration(const AsmRequest& request);
  void authenticate(const AsmRequest& request);
  AsmResponse getInfo(const AsmRequest& request);
  AsmResponse getRegistrations(const AsmRequest& request);
  // Status 0 for any DeregisterIn, whether or not something matched; status 1 when the arguments
  // are of another kind or the store failed. The key pairs of the registrations removed go too,
  // once no registration of their user is left. A non-empty appID narrows every form (user, key
  // ID, both, neither) to the registrations whose ASM record names that application ID; without
  // one, an empty user name and key ID wipe every item of the system.
  AsmResponse deregister(const AsmRequest& request);

  void authenticatorRegisterResponse(const RegisterResponseCommand* response,
                                     const std::optional<Error>& error) override;
  void authenticatorSignResponse(const SignResponseCommand* response,
                                 const std::optional<Error>& error) override;
  // Writes the registration record of the pending registration: called by the authenticator
  // inside its store transaction, so the record lands in the same commit as the key and the
  // authenticator's records. A successful answer without it is refused (kCannotStoreRecord).
  Result<void> authenticatorRegistrationRecords(const RegisterResponseCommand& response) override;

  // "<facet ID>.asmToken": the service of the ASM token item.
  const std::string& asmTokenTag() const { return asmTokenTag_; }
  const std::string& facetID() const { return facetID_; }

  // The KHAccessToken: compact JSON with the members "appID", "asmToken", "callerId" in this
  // order, escaped as nlohmann::json writes strings ("/" and non-ASCII left as they are). Absent,
  // with error code 1, when a text is not valid UTF-8.
  [[nodiscard]] static std::optional<std::string> makeKHAccessToken(std::string_view appID,
                                                                    std::string_view asmToken,
                                                                    std::string_view callerId,
                                                                    Error* error);

 private:
  // Reads the ASM token item, or makes and stores one; leaves asmToken_ absent when the Keychain
  // can neither give nor keep one. An error when the store could not be read: then nothing is
  // written, since the token that could not be read may well exist.
  Result<void> loadAsmToken();
  // The KHAccessToken of `appID`, or absent with the error to answer with.
  [[nodiscard]] std::optional<std::string> khAccessTokenFor(const std::optional<std::string>& appID,
                                                            Error* error);
  AuthenticatorFeature* authenticatorFor(uint64_t userVerification) const;
  // Deletes every ASM and authenticator record of the user hash `userHash`, and the user's key
  // pair; false when the store failed.
  bool deregisterUserHash(const std::string& userHash);
  // Deletes the user's key pair once no ASM record of the user is left; false when the store
  // failed.
  bool deleteKeyIfOrphaned(const std::string& userHash);

  // Where one registration's records are: the user hash and the key ID.
  struct RegistrationAddress {
    std::string userHash;
    std::string keyID;
  };
  // The ASM records of a user, of a key ID, of both, or (neither given) every ASM record.
  Result<std::vector<RegistrationAddress>> registrationsOf(
      const std::optional<std::string>& userHash, const std::optional<std::string>& keyID);
  // Whether the ASM record at `address` exists and names `appID`.
  Result<bool> registeredUnder(const RegistrationAddress& address, std::string_view appID);
  // The deregister of a request with an appID; false when the store failed.
  bool deregisterUnderAppID(const DeregisterIn& args);

  CorvaneDelegate& corvaneDelegate_;
  Keychain& keychain_;
  const Configuration& configuration_;
  std::string facetID_;
  std::string asmTokenTag_;
  std::optional<SecretBytes> asmToken_;  // the hexadecimal text of the token
  std::optional<RegisterIn> tempRegisterIn_;
  // Whether the pending registration's record was written (authenticatorRegistrationRecords).
  bool registrationRecordWritten_ = false;
  Authenticators authenticators_;
};

}  // namespace corvane
