#include "verification/pattern_lock_authenticator.h"

#include <algorithm>
#include <utility>

#include "authenticator/generic_authenticator.h"
#include "client/messages/transaction.h"
#include "foundation/utils.h"

namespace corvane {

using namespace authenticator_status;

namespace {

std::string withNumber(std::string_view text, int64_t number) {
  std::string out(text);
  if (size_t at = out.find("%ld"); at != std::string::npos) {
    out.replace(at, 3, std::to_string(number));
  }
  return out;
}

int64_t memberNumber(const nlohmann::json& object, const char* name) {
  auto it = object.find(name);
  return it != object.end() && it->is_number_integer() ? it->get<int64_t>() : 0;
}

// The longest wait of any round of the policy, in seconds.
int64_t longestWait(const std::vector<PatternLockPolicy>& policy) {
  int64_t longest = 0;
  for (const PatternLockPolicy& round : policy) {
    if (round.isTemplockRound) longest = std::max(longest, round.durationSec.value_or(0));
  }
  return longest;
}

}  // namespace

// The fail record's members. Wrong tries are counted as they happen ("patternLockFailAttempts"),
// so closing the screen or ending the process does not give a fresh round.
struct PatternLockAuthenticator::FailRecord {
  std::string keyID;
  int64_t patternLockFailTime = 0;
  int64_t delayRetryTime = 0;
  int64_t patternLockFailAttempts = 0;

  nlohmann::json json() const {
    nlohmann::json object = {{"keyID", keyID}};
    if (patternLockFailTime != 0) object["patternLockFailTime"] = patternLockFailTime;
    if (delayRetryTime != 0) object["delayRetryTime"] = delayRetryTime;
    if (patternLockFailAttempts != 0) object["patternLockFailAttempts"] = patternLockFailAttempts;
    return object;
  }

  static std::optional<FailRecord> parse(std::string_view text) {
    const nlohmann::json object = nlohmann::json::parse(text, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    FailRecord record;
    if (auto it = object.find("keyID"); it != object.end() && it->is_string()) {
      record.keyID = it->get<std::string>();
    }
    record.patternLockFailTime = std::max<int64_t>(0, memberNumber(object, "patternLockFailTime"));
    record.delayRetryTime = memberNumber(object, "delayRetryTime");
    record.patternLockFailAttempts =
        std::max<int64_t>(0, memberNumber(object, "patternLockFailAttempts"));
    return record;
  }
};

PatternLockAuthenticator::PatternLockAuthenticator(AsmDelegate& asmDelegate,
                                                   AuthenticatorServices services)
    : asmDelegate_(asmDelegate),
      services_(std::move(services)),
      core_(services_.keychain, services_.patterns, services_.clock, services_.facetID,
            services_.nonceSource),
      systemClock_(services_.clock) {}

PatternLockAuthenticator::~PatternLockAuthenticator() {
  // Background work of this object may be running: it must end before the object does.
  services_.scheduler.waitForBackgroundWork();
  if (patternScreen_) patternScreen_->close();
  if (txScreen_) txScreen_->close();
}

std::string PatternLockAuthenticator::failRecordAccount(std::string_view username) {
  return std::string(kFailRecord) + "." + AuthenticatorCore::userHash(username) + "." +
         std::string(GenericAuthenticator::kAaid);
}

std::string PatternLockAuthenticator::failRecordGeneric(std::string_view username) {
  return std::string(kFailRecord) + "." + AuthenticatorCore::userHash(username);
}

AuthenticatorInfo PatternLockAuthenticator::getInfo() {
  AuthenticatorInfo info = GenericAuthenticator::getBasicAuthenticatorInfo();
  info.status = deviceSupportCheck();
  return info;
}

uint64_t PatternLockAuthenticator::deviceSupportCheck() {
  return deviceHavePasscodeCheck() ? kInfoSupported : kInfoPreconditionFailed;
}

bool PatternLockAuthenticator::deviceHavePasscodeCheck() {
  return services_.deviceInfo.passcodeState() == DeviceInfo::PasscodeState::set;
}

std::string PatternLockAuthenticator::hash(std::string_view text) {
  return Utils::sha256(text);
}

Bytes PatternLockAuthenticator::hashBackNSData(std::string_view text) {
  const std::array<uint8_t, 32> digest = Utils::sha256BackData(text);
  return Bytes(digest.begin(), digest.end());
}

// --- Registration ---

void PatternLockAuthenticator::registerWithCommand(const RegisterCommand& command) {
  pending_ = Pending::registration;
  const uint64_t support = deviceSupportCheck();
  if (support == kInfoSupported) {
    openSettings(command);
    return;
  }
  answerRegisterFailure(
      kStatusNotSupported,
      std::string(support == kInfoPreconditionFailed ? kPreconditionFailed : kDeviceNotSupported));
}

void PatternLockAuthenticator::openSettings(const RegisterCommand& command) {
  patternScreen_ = std::make_unique<PatternViewController>(screenServices(), *this, command);
  patternScreen_->show();
}

void PatternLockAuthenticator::modifiedPatternSendBackCommand(const RegisterCommand& command,
                                                              Result<SecretBytes> sealedPattern) {
  retire(std::move(patternScreen_));
  if (!sealedPattern) {
    answerRegisterFailure(kStatusError, std::string(kCannotStorePattern));
    return;
  }
  auto outcome = std::make_shared<std::optional<Result<RegisterResponseCommand>>>();
  auto sealed = std::make_shared<SecretBytes>(std::move(*sealedPattern));
  services_.scheduler.runInBackground(
      [this, alive = std::weak_ptr<bool>(alive_), command, outcome, sealed] {
        if (!alive.lock()) return;
        const std::string username = command.username.value_or(std::string());
        *outcome = core_.registerInOneCommit(
            command, GenericAuthenticator::kUserVerificationPattern,
            [&](const std::string& keyID) -> Result<void> {
              if (!services_.patterns.storeSealedPattern(*sealed, username)) {
                return Error::corvane(kStatusError, std::string(kCannotStorePattern));
              }
              FailRecord record;
              record.keyID = keyID;
              if (writeFailRecord(username, record) != StoreStatus::ok) {
                return Error::corvane(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
              }
              return {};
            },
            asmDelegate_);
      },
      [this, alive = std::weak_ptr<bool>(alive_), outcome] {
        if (!alive.lock()) return;
        Result<RegisterResponseCommand>& result = **outcome;
        if (!result) {
          answerRegisterFailure(static_cast<uint64_t>(result.error().code()),
                                result.error().message());
          return;
        }
        answerRegister(std::move(*result), std::nullopt);
      });
}

void PatternLockAuthenticator::cancelModified() {
  retire(std::move(patternScreen_));
  answerRegisterFailure(kStatusCancelled, std::string(kUserCanceledRegister));
}

// --- Authentication ---

void PatternLockAuthenticator::signWithCommand(const SignCommand& command) {
  pending_ = Pending::sign;
  const std::string username = command.username.value_or(std::string());
  Result<std::optional<FailRecord>> record = readFailRecord(username);
  if (!record) {
    answerSignFailure(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
    return;
  }
  if (!*record) {
    answerSignFailure(kStatusDataMissing, std::string(AuthenticatorCore::kDataMissing));
    return;
  }
  FailRecord& fail = **record;
  SignCommand kept = command;
  kept.patternFailDataDic = fail.json();

  const std::optional<std::vector<PatternLockPolicy>> policy =
      getPatternLockPolicy(services_.configuration);
  int64_t wait = systemClock_.checkCanRetryPatternLock(fail.delayRetryTime);
  if (wait > 0 && policy && !policy->empty() && wait > longestWait(*policy)) {
    // A deadline from before a reboot (the uptime started again): never longer than the policy's
    // longest wait.
    wait = longestWait(*policy);
    fail.delayRetryTime = systemClock_.uptime() + wait * 1'000'000;
    if (writeFailRecord(username, fail) != StoreStatus::ok) {
      answerSignFailure(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
      return;
    }
  }
  if (wait > 0) {
    answerSignFailure(kStatusTemporarilyLocked, withNumber(kLocked, wait));
    return;
  }
  if (!policy || policy->empty()) {
    answerSignFailure(kStatusInvalidPolicy, std::string(kInvalidPolicy));
    return;
  }
  const size_t index = std::min(static_cast<size_t>(fail.patternLockFailTime), policy->size() - 1);
  patternLockPolicy_ = (*policy)[index];

  const uint64_t support = deviceSupportCheck();
  if (support != kInfoSupported) {
    answerSignFailure(kStatusNotSupported,
                      std::string(support == kInfoPreconditionFailed ? kPreconditionFailed
                                                                     : kDeviceNotSupported));
    return;
  }
  if (command.originalTc && !AuthenticatorCore::hasTextTransaction(*command.originalTc)) {
    answerSignFailure(kStatusParamsInvalid,
                      std::string(AuthenticatorCore::kNoDisplayableTransaction));
    return;
  }
  // Tries used up before the screen closed (the process ended in the 3 seconds): the round ends.
  if (fail.patternLockFailAttempts >= patternLockPolicy_.timesPerRound) {
    endRound(kept);
    return;
  }
  triesLeft_ = patternLockPolicy_.timesPerRound - fail.patternLockFailAttempts;
  if (kept.transaction && !kept.transaction->empty()) {
    confirmTransactions(kept);
  } else {
    localAuthenticate(kept, PatternViewController::Mode::unlock);
  }
}

void PatternLockAuthenticator::confirmTransactions(const SignCommand& command) {
  txScreen_ = std::make_unique<TxPatternViewController>(services_.configuration,
                                                        services_.presenter, *this, *this, command);
  txScreen_->show();
}

void PatternLockAuthenticator::localAuthenticate(const SignCommand& command,
                                                 PatternViewController::Mode mode) {
  patternScreen_ = std::make_unique<PatternViewController>(screenServices(), *this, mode, command,
                                                           patternLockPolicy_, triesLeft_);
  patternScreen_->show();
}

void PatternLockAuthenticator::txPatternViewAuthenticationRequest(const SignCommand& command) {
  retire(std::move(txScreen_));
  localAuthenticate(command, PatternViewController::Mode::unlockFromTransaction);
}

void PatternLockAuthenticator::txPatternUserCancel() {
  onTxPatternCustomPresentationDissmiss();
}

void PatternLockAuthenticator::onTxPatternCustomPresentationDissmiss() {
  retire(std::move(txScreen_));
  answerSignFailure(kStatusCancelled, std::nullopt);
}

void PatternLockAuthenticator::backToConfirmTransactions(const SignCommand& command) {
  retire(std::move(patternScreen_));
  confirmTransactions(command);
}

void PatternLockAuthenticator::cancelUnlocked() {
  retire(std::move(patternScreen_));
  answerSignFailure(kStatusCancelled, std::string(kUserCanceledSign));
}

void PatternLockAuthenticator::wrongPatternEntered(const SignCommand& command) {
  const std::string username = command.username.value_or(std::string());
  Result<std::optional<FailRecord>> record = readFailRecord(username);
  if (record && *record) {
    ++(*record)->patternLockFailAttempts;
    if (writeFailRecord(username, **record) == StoreStatus::ok) {
      --triesLeft_;
      return;
    }
  }
  // A try that cannot be counted must not be given for free: the operation ends here.
  retire(std::move(patternScreen_));
  answerSignFailure(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
}

void PatternLockAuthenticator::patternCheckFailed(const SignCommand& /*command*/,
                                                  const Error& /*error*/) {
  retire(std::move(patternScreen_));
  answerSignFailure(kStatusError, std::string(kCannotReadPattern));
}

void PatternLockAuthenticator::userLockOut(const SignCommand& command) {
  retire(std::move(patternScreen_));
  endRound(command);
}

void PatternLockAuthenticator::endRound(const SignCommand& command) {
  const std::string username = command.username.value_or(std::string());
  Result<std::optional<FailRecord>> record = readFailRecord(username);
  if (!record || !*record) {
    answerSignFailure(
        record ? kStatusDataMissing : kStatusError,
        std::string(record ? AuthenticatorCore::kDataMissing : AuthenticatorCore::kStoreFailed));
    return;
  }
  if (patternLockPolicy_.isLockoutRound) {
    // One commit: a wipe that fails or stops part-way leaves the registration whole, never records
    // without their key or a key without its records.
    ItemStoreTransaction transaction = services_.keychain.transaction();
    const bool wiped = transaction.isOpen() && core_.deleteRegistration(username).ok() &&
                       services_.keychain.deleteGenericPasswordWithAccount(
                           failRecordAccount(username), std::nullopt,
                           failRecordGeneric(username)) != StoreStatus::storeError &&
                       transaction.commit() == StoreStatus::ok;
    if (!wiped) {
      answerSignFailure(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
      return;
    }
    answerSignFailure(kStatusLockedOut, std::string(kLockedOut));
    return;
  }
  FailRecord& fail = **record;
  fail.patternLockFailTime += 1;
  fail.patternLockFailAttempts = 0;
  fail.delayRetryTime = systemClock_.delayRetryPatternLockTime(0, patternLockPolicy_);
  if (writeFailRecord(username, fail) != StoreStatus::ok) {
    answerSignFailure(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
    return;
  }
  answerSignFailure(
      patternLockPolicy_.isTemplockRound ? kStatusTemporarilyLocked : kStatusAttemptFailed,
      std::string(kAttemptFailed));
}

void PatternLockAuthenticator::unlockedPatternSendBackCommand(const SignCommand& command) {
  retire(std::move(patternScreen_));
  auto outcome = std::make_shared<std::optional<Result<SignResponseCommand>>>();
  services_.scheduler.runInBackground(
      [this, alive = std::weak_ptr<bool>(alive_), command, outcome] {
        if (!alive.lock()) return;
        // The fail record, the counter and the sign time land in one commit. The round starts
        // again after a correct pattern, whatever happens next.
        const std::string username = command.username.value_or(std::string());
        *outcome = core_.signInOneCommit(command, [&]() -> Result<void> {
          Result<std::optional<FailRecord>> record = readFailRecord(username);
          if (record && *record) {
            (*record)->patternLockFailTime = 0;
            (*record)->patternLockFailAttempts = 0;
            if (writeFailRecord(username, **record) != StoreStatus::ok) {
              record = Keychain::storeFailure();
            }
          }
          if (!record)
            return Error::corvane(kStatusError, std::string(AuthenticatorCore::kStoreFailed));
          return {};
        });
      },
      [this, alive = std::weak_ptr<bool>(alive_), outcome] {
        if (!alive.lock()) return;
        Result<SignResponseCommand>& result = **outcome;
        if (!result) {
          answerSignFailure(static_cast<uint64_t>(result.error().code()), result.error().message());
          return;
        }
        answerSign(std::move(*result), std::nullopt);
      });
}

// --- Deregistration ---

uint64_t PatternLockAuthenticator::deregister(std::optional<std::string_view> keyID) {
  return core_.deregister(keyID);
}

// --- Records ---

Result<std::optional<PatternLockAuthenticator::FailRecord>>
PatternLockAuthenticator::readFailRecord(std::string_view username) {
  const std::string account = failRecordAccount(username);
  const std::string generic = failRecordGeneric(username);
  Result<std::vector<std::string>> services =
      services_.keychain.findGenericPasswordServicesDescWithAccount(account, generic);
  if (!services) return services.error();
  if (services->empty()) return std::optional<FailRecord>();
  Result<std::optional<SecretBytes>> data =
      services_.keychain.findGenericPasswordWithAccount(account, services->front(), generic);
  if (!data) return data.error();
  if (!*data) return std::optional<FailRecord>();
  return FailRecord::parse((*data)->exposeSecretText());
}

StoreStatus PatternLockAuthenticator::writeFailRecord(std::string_view username,
                                                      const FailRecord& record) {
  return services_.keychain.insertOrUpdateGenericPasswordWithAccount(
      failRecordAccount(username), kFailRecord, failRecordGeneric(username),
      SecretBytes::fromText(record.json().dump()));
}

// --- Answers and screens ---

void PatternLockAuthenticator::answerRegister(RegisterResponseCommand response,
                                              std::optional<Error> error) {
  if (pending_ != Pending::registration) return;
  pending_ = Pending::none;
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_),
                            response = std::move(response), error = std::move(error)] {
    if (alive.lock()) asmDelegate_.authenticatorRegisterResponse(&response, error);
  });
}

void PatternLockAuthenticator::answerRegisterFailure(uint64_t status,
                                                     std::optional<std::string> message) {
  RegisterResponseCommand response;
  response.statusCode = status;
  answerRegister(std::move(response),
                 Error::corvane(static_cast<int64_t>(status), std::move(message)));
}

void PatternLockAuthenticator::answerSign(SignResponseCommand response,
                                          std::optional<Error> error) {
  if (pending_ != Pending::sign) return;
  pending_ = Pending::none;
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_),
                            response = std::move(response), error = std::move(error)] {
    if (alive.lock()) asmDelegate_.authenticatorSignResponse(&response, error);
  });
}

void PatternLockAuthenticator::answerSignFailure(uint64_t status,
                                                 std::optional<std::string> message) {
  SignResponseCommand response;
  response.statusCode = status;
  answerSign(std::move(response), Error::corvane(static_cast<int64_t>(status), std::move(message)));
}

template <typename Screen>
void PatternLockAuthenticator::retire(std::unique_ptr<Screen> screen) {
  if (!screen) return;
  screen->close();
  retired_.push_back(std::shared_ptr<void>(std::move(screen)));
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock()) retired_.clear();
  });
}

PatternViewController::Services PatternLockAuthenticator::screenServices() {
  return PatternViewController::Services{services_.configuration, services_.patterns,
                                         services_.scheduler, services_.presenter};
}

}  // namespace corvane
