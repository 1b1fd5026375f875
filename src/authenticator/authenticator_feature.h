// The two interfaces between the ASM and the authenticators.
//
// AuthenticatorFeature: what every authenticator offers the ASM. Registration and signing answer
// later through the AsmDelegate the authenticator was built with, possibly on another thread.
// AsmDelegate: how authenticators answer the ASM, and how the ASM writes its registration record
// inside the authenticator's store transaction.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "authenticator/authenticator_info.h"
#include "authenticator/commands.h"
#include "corvane/error.h"
#include "foundation/result.h"
#include "foundation/utils.h"

namespace corvane {

class AuthenticatorFeature {
 public:
  virtual ~AuthenticatorFeature() = default;

  virtual AuthenticatorInfo getInfo() = 0;
  virtual void registerWithCommand(const RegisterCommand& command) = 0;
  virtual void signWithCommand(const SignCommand& command) = 0;
  // Removes the registrations of a base64url key ID (all of them when absent); an authenticator
  // status code.
  virtual uint64_t deregister(std::optional<std::string_view> keyID) = 0;
  // The authenticator's hash of a text, as text.
  virtual std::string hash(std::string_view text) = 0;
  // The authenticator's hash of the final challenge, as bytes.
  virtual Bytes hashBackNSData(std::string_view text) = 0;
  // An authenticator-info status: whether this device can use the authenticator.
  virtual uint64_t deviceSupportCheck() = 0;

  virtual void openSettings(const RegisterCommand& /*command*/) {}
  virtual bool deviceHavePasscodeCheck() { return false; }
  virtual bool deviceHaveTouchCheck() { return false; }
};

class AsmDelegate {
 public:
  virtual ~AsmDelegate() = default;
  // `response` is null when the authenticator has none to give.
  virtual void authenticatorRegisterResponse(const RegisterResponseCommand* response,
                                             const std::optional<Error>& error) = 0;
  virtual void authenticatorSignResponse(const SignResponseCommand* response,
                                         const std::optional<Error>& error) = 0;
  // Called by an authenticator whose registration succeeded, inside the item-store transaction
  // that holds its key and records and before that transaction commits, on the thread doing the
  // authenticator's work: the ASM writes its registration record for `response` in the same
  // transaction, so that the registration lands whole or not at all. On an error the
  // authenticator rolls back and answers the registration with the error's code and message.
  // An authenticator must call it before it answers a registration with success.
  [[nodiscard]] virtual Result<void> authenticatorRegistrationRecords(
      const RegisterResponseCommand& response) = 0;
};

}  // namespace corvane
