// The command records between the ASM and an authenticator: what the ASM asks (RegisterCommand,
// SignCommand) and what the authenticator answers (RegisterResponseCommand, SignResponseCommand).
// Plain records: the ASM fills a command field by field, the authenticator fills its answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "authenticator/assertion_fields.h"
#include "client/messages/extension.h"
#include "client/messages/transaction.h"
#include "foundation/utils.h"

namespace corvane {

struct RegisterCommand {
  std::optional<int64_t> authenticatorIndex;
  std::optional<std::string> attestationType;
  std::optional<std::string> appID;
  std::optional<Bytes> finalChallengeHash;
  std::optional<std::string> username;
  std::optional<std::string> khAccessToken;
  std::optional<std::string> userVerifyToken;
  std::optional<std::vector<Extension>> exts;
  std::optional<std::string> displayName;

  bool operator==(const RegisterCommand&) const = default;
};

struct SignCommand {
  std::optional<std::string> appID;
  std::optional<Bytes> finalChallengeHash;
  std::optional<std::string> khAccessToken;
  std::optional<std::string> keyHandle;
  std::optional<std::string> username;
  // The transactions the confirmation screen can show (see displayableTransactions).
  std::optional<std::vector<Transaction>> transaction;
  // The request's transactions exactly as received.
  std::optional<std::vector<Transaction>> originalTc;
  std::optional<std::vector<Extension>> exts;
  // The pattern authenticator's failure bookkeeping; a JSON object when set.
  std::optional<nlohmann::json> patternFailDataDic;
  std::optional<std::string> displayName;

  bool operator==(const SignCommand&) const = default;

  // Copies of the "text/plain" transactions of `transactions`, in order, each with its base64url
  // content replaced by the UTF-8 text it decodes to; transactions of any other content type are
  // dropped.
  static std::vector<Transaction> displayableTransactions(
      const std::vector<Transaction>& transactions);
};

struct RegisterResponseCommand {
  uint64_t statusCode = 0;  // 0 for success, else an authenticator status code
  std::optional<std::string> assertion;
  std::optional<std::string> keyHandle;
  uint64_t userVerification = 0;  // 1 biometry, 2 pattern
  std::optional<AssertionFields> krd;

  bool operator==(const RegisterResponseCommand&) const = default;
};

struct SignResponseCommand {
  uint64_t statusCode = 0;
  std::optional<std::string> assertion;

  bool operator==(const SignResponseCommand&) const = default;
};

}  // namespace corvane
