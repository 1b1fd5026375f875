// The request and response records between the UAF client and the ASM. They travel in-process as
// objects; nothing here is serialised.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "authenticator/authenticator_info.h"
#include "client/messages/extension.h"
#include "client/messages/transaction.h"
#include "client/messages/version.h"

namespace corvane {

struct RegisterIn {
  std::optional<std::string> appID;
  std::optional<std::string> username;
  std::optional<std::string> finalChallenge;  // the fcParams text the authenticator hashes
  std::optional<std::string> displayName;
  bool operator==(const RegisterIn&) const = default;
};

struct AuthenticateIn {
  std::optional<std::string> appID;
  std::optional<std::vector<std::string>> keyIDs;  // in the order to try
  std::optional<std::string> username;
  std::optional<std::string> finalChallenge;
  std::optional<std::vector<Transaction>> transaction;
  std::optional<std::string> displayName;
  bool operator==(const AuthenticateIn&) const = default;
};

// An empty or absent username and keyID widen what is deleted.
struct DeregisterIn {
  std::optional<std::string> username;
  std::optional<std::string> appID;
  std::optional<std::string> keyID;
  bool operator==(const DeregisterIn&) const = default;
};

struct GetRegistrationsIn {
  std::optional<std::string> username;
  bool operator==(const GetRegistrationsIn&) const = default;
};

struct RegisterOut {
  std::optional<std::string> assertion;  // base64url registration assertion
  std::optional<std::string> assertionScheme;
  bool operator==(const RegisterOut&) const = default;
};

struct AuthenticateOut {
  std::optional<std::string> assertion;  // base64url authentication assertion
  std::optional<std::string> assertionScheme;
  bool operator==(const AuthenticateOut&) const = default;
};

struct GetInfoOut {
  std::optional<std::vector<AuthenticatorInfo>> authenticators;
  bool operator==(const GetInfoOut&) const = default;
};

struct AppRegistration {
  std::optional<std::string> appID;
  std::optional<std::vector<std::string>> keyID;
  std::optional<std::string> userVerification;  // "pattern" or "biometry"
  bool operator==(const AppRegistration&) const = default;
};

struct GetRegistrationOut {
  std::optional<std::vector<AppRegistration>> appRegs;
  bool operator==(const GetRegistrationOut&) const = default;
};

// The position of a name in listAllRequestType() is the value of AsmRequest::requestType.
enum class AsmRequestType : uint64_t {
  kGetInfo = 0,
  kRegistration = 1,
  kAuthenticate = 2,
  kDeregister = 3,
  kGetRegistrations = 4,
  kOpenSettings = 5,
};

struct AsmRequest {
  using Args =
      std::variant<std::monostate, RegisterIn, AuthenticateIn, DeregisterIn, GetRegistrationsIn>;

  uint64_t requestType = 0;
  std::optional<Version> asmVersion;
  int64_t authenticatorIndex = 0;
  Args args;
  std::optional<std::vector<Extension>> exts;
  uint64_t userVerification = 0;  // 1 biometry, 2 pattern

  bool operator==(const AsmRequest&) const = default;

  // "getInfo", "registration", "authenticate", "deregister", "getRegistrations", "openSettings".
  static std::span<const std::string_view> listAllRequestType();
  // The name at position requestType; absent when requestType is 6 or more.
  [[nodiscard]] std::optional<std::string_view> requestTypeCommand() const;
};

struct AsmResponse {
  using Data =
      std::variant<std::monostate, RegisterOut, AuthenticateOut, GetInfoOut, GetRegistrationOut>;

  uint64_t statusCode = 0;  // an ASM status code
  Data responseData;
  std::optional<std::vector<Extension>> exts;

  bool operator==(const AsmResponse&) const = default;
};

// Runs a request that answers by return value (getInfo, getRegistrations, deregister): how code
// outside the ASM, such as the policy check, reaches it without owning it.
using AsmRequestRunner = std::function<AsmResponse(const AsmRequest&)>;

}  // namespace corvane
