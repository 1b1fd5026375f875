// An authenticator that records commands and answers as scripted; a delegate recording answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authenticator/authenticator_feature.h"
#include "foundation/utils.h"

namespace corvane::testing {

class ScriptedAuthenticator final : public AuthenticatorFeature {
 public:
  template <typename Response>
  struct Answer {
    bool present = true;
    Response response;
    std::optional<Error> error;
  };

  ScriptedAuthenticator(AsmDelegate& delegate, uint64_t index)
      : delegate_(delegate), index_(index) {}

  Answer<RegisterResponseCommand> registerAnswer;
  Answer<SignResponseCommand> signAnswer;
  bool deferAnswers = false;
  // False: a successful answer skips the ASM's record write (an authenticator that breaks the
  // rule).
  bool writesRecords = true;
  uint64_t supportStatus = 2;
  std::vector<RegisterCommand> registerCommands;
  std::vector<SignCommand> signCommands;

  // A successful answer is preceded by the ASM's record write, as a real authenticator does it
  // inside its transaction; when that fails the answer is the failure.
  void answerRegister() {
    if (writesRecords && registerAnswer.present && registerAnswer.response.statusCode == 0) {
      if (Result<void> written =
              delegate_.authenticatorRegistrationRecords(registerAnswer.response);
          !written) {
        RegisterResponseCommand failed;
        failed.statusCode = static_cast<uint64_t>(written.error().code());
        delegate_.authenticatorRegisterResponse(&failed, written.error());
        return;
      }
    }
    delegate_.authenticatorRegisterResponse(
        registerAnswer.present ? &registerAnswer.response : nullptr, registerAnswer.error);
  }
  static Bytes hashOf(uint64_t index, std::string_view text) {
    const auto digest = Utils::sha256BackData(std::to_string(index) + ":" + std::string(text));
    return Bytes(digest.begin(), digest.end());
  }

  AuthenticatorInfo getInfo() override { return {}; }
  void registerWithCommand(const RegisterCommand& command) override {
    registerCommands.push_back(command);
    if (!deferAnswers) answerRegister();
  }
  void signWithCommand(const SignCommand& command) override {
    signCommands.push_back(command);
    delegate_.authenticatorSignResponse(signAnswer.present ? &signAnswer.response : nullptr,
                                        signAnswer.error);
  }
  uint64_t deregister(std::optional<std::string_view>) override { return 0; }
  std::string hash(std::string_view text) override { return Utils::sha256(text); }
  Bytes hashBackNSData(std::string_view text) override { return hashOf(index_, text); }
  uint64_t deviceSupportCheck() override { return supportStatus; }

 private:
  AsmDelegate& delegate_;
  uint64_t index_;
};

class RecordingCorvaneDelegate final : public CorvaneDelegate {
 public:
  struct Answer {
    bool authenticate;
    AsmResponse response;
    std::optional<Error> error;
  };
  std::vector<Answer> answers;

  void asmRegisterResponse(const AsmResponse& response,
                           const std::optional<Error>& error) override {
    answers.push_back({false, response, error});
  }
  void asmAuthenticateResponse(const AsmResponse& response,
                               const std::optional<Error>& error) override {
    answers.push_back({true, response, error});
  }
};

}  // namespace corvane::testing
