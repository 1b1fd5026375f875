#include "verification/face_authenticator.h"

#include <openssl/crypto.h>

#include <utility>

#include "authenticator/generic_authenticator.h"
#include "foundation/utils.h"
#include "storage/keychain.h"

namespace corvane {

using namespace authenticator_status;

namespace {

constexpr uint32_t kBioValueBytes = 32;

Error failure(uint64_t status, std::string_view message) {
  return Error::corvane(static_cast<int64_t>(status), std::string(message));
}

}  // namespace

FaceAuthenticator::FaceAuthenticator(AsmDelegate& asmDelegate, AuthenticatorServices services,
                                     BiometryPort& biometry, UserDefaults& defaults)
    : asmDelegate_(asmDelegate),
      services_(std::move(services)),
      biometry_(biometry),
      defaults_(defaults),
      core_(services_.keychain, services_.patterns, services_.clock, services_.facetID,
            services_.nonceSource) {}

FaceAuthenticator::~FaceAuthenticator() {
  // A prompt or a signature of this object may be running: it must end before the object does.
  services_.scheduler.waitForBackgroundWork();
  if (txScreen_) txScreen_->close();
}

std::string FaceAuthenticator::bioAccount(std::string_view username) {
  return std::string(kBioAccount) + AuthenticatorCore::userHash(username);
}

std::string FaceAuthenticator::bioService(std::string_view username) {
  return std::string(kBioService) + AuthenticatorCore::userHash(username);
}

AuthenticatorInfo FaceAuthenticator::getInfo() {
  AuthenticatorInfo info = GenericAuthenticator::getBasicAuthenticatorInfo();
  info.status = deviceSupportCheck();
  return info;
}

uint64_t FaceAuthenticator::deviceSupportCheck() {
  return supportStatus();
}

uint64_t FaceAuthenticator::supportStatus() const {
  switch (biometry_.availability()) {
    case BiometryAvailability::available:
      return biometry_.biometryType() == BiometryType::none ? kInfoNotSupported : kInfoSupported;
    case BiometryAvailability::passcodeNotSet:
      return kInfoPreconditionFailed;
    case BiometryAvailability::lockout:
      return kInfoLockout;
    case BiometryAvailability::notEnrolled:
      return kInfoNotEnrolled;
    case BiometryAvailability::notAvailable:
    case BiometryAvailability::other:
      break;
  }
  return kInfoNotSupported;
}

bool FaceAuthenticator::deviceHaveTouchCheck() {
  return deviceSupportCheck() == kInfoSupported;
}

std::string FaceAuthenticator::hash(std::string_view text) {
  return Utils::sha256(text);
}

Bytes FaceAuthenticator::hashBackNSData(std::string_view text) {
  const std::array<uint8_t, 32> digest = Utils::sha256BackData(text);
  return Bytes(digest.begin(), digest.end());
}

uint64_t FaceAuthenticator::deregister(std::optional<std::string_view> keyID) {
  return core_.deregister(keyID);
}

bool FaceAuthenticator::didFingerprintDatabaseChange() const {
  const std::optional<std::vector<uint8_t>> current = biometry_.enrolmentState();
  const std::optional<std::string> stored = defaults_.getString(kFingerprintDatabaseStateKey);
  return !current || !stored || *stored != Utils::base64URLSafeStringFromData(*current);
}

void FaceAuthenticator::saveFingerprintDatabaseChange() {
  const std::optional<std::vector<uint8_t>> current = biometry_.enrolmentState();
  if (!current) return;
  defaults_.setString(kFingerprintDatabaseStateKey, Utils::base64URLSafeStringFromData(*current));
  // Not durable now means durable at the next flush; the state only tells a changed enrolment
  // from a lost item, so a failure here must not fail the operation.
  static_cast<void>(defaults_.synchronize(nullptr));
}

std::optional<Error> FaceAuthenticator::unsupported() const {
  switch (supportStatus()) {
    case kInfoSupported:
      return std::nullopt;
    case kInfoPreconditionFailed:
      return failure(kStatusNotSupported, kPreconditionFailed);
    case kInfoLockout:
      return failure(kStatusLockedOut, kUserLockout);
    case kInfoNotEnrolled:
      return failure(kStatusNotSupported, kNotEnrolled);
    default:
      break;
  }
  return failure(kStatusNotSupported, kDeviceNotSupported);
}

Error FaceAuthenticator::readFailure(const Error& keychainError,
                                     std::string_view cancelText) const {
  switch (keychainError.code()) {
    case keychain_status::kUserCanceled:
      return failure(kStatusCancelled, cancelText);
    case keychain_status::kItemNotFound:
      // The Keychain has wiped every registration by now. A changed enrolment is the usual
      // reason; an item lost any other way is reported as a key that disappeared.
      return didFingerprintDatabaseChange() ? failure(kStatusBiometryChanged, kEnrolmentChanged)
                                            : failure(kStatusKeyDisappeared, kItemGone);
    case keychain_status::kInteractionNotAllowed:
      // Biometry became unusable during the prompt (locked out after failed tries, the reader
      // gone, the enrolment emptied): answer as the availability test says now.
      if (std::optional<Error> reason = unsupported()) return *reason;
      break;
    default:
      break;
  }
  return failure(kStatusAccessDenied, keychainError.localizedDescription());
}

// --- Registration ---

void FaceAuthenticator::registerWithCommand(const RegisterCommand& command) {
  pending_ = Pending::registration;
  if (std::optional<Error> reason = unsupported()) {
    answerRegisterFailure(*reason);
    return;
  }
  const std::string prompt =
      services_.configuration.getLocalizedStringAndReplaceWithKey(texts::kTouchIdReg);
  auto outcome = std::make_shared<std::optional<Result<RegisterResponseCommand>>>();
  services_.scheduler.runInBackground(
      [this, alive = std::weak_ptr<bool>(alive_), command, prompt, outcome] {
        if (!alive.lock()) return;
        *outcome = Error::corvane(static_cast<int64_t>(kStatusError),
                                  std::string(AuthenticatorCore::kStoreFailed));
        const std::string username = command.username.value_or(std::string());
        // A registered user keeps the item of the first registration.
        Result<bool> registered = core_.isRegistered(username);
        if (!registered) return;
        if (*registered) {
          *outcome = failure(kStatusError, AuthenticatorCore::kAlreadyRegistered);
          return;
        }
        std::optional<Bytes> random = Utils::randomBytesWithLength(kBioValueBytes);
        if (!random) {
          *outcome = failure(kStatusError, AuthenticatorCore::kCannotRegister);
          return;
        }
        const SecretBytes value(std::move(*random));
        const std::string account = bioAccount(username);
        const std::string service = bioService(username);
        Keychain& keychain = services_.keychain;
        Error error;
        if (!keychain.insertBioAuthDataWithAccount(account, service, std::nullopt, value, &error)) {
          *outcome = readFailure(error, kUserCanceledRegister);
          return;
        }
        // The user proves the biometry once before any key exists.
        std::optional<SecretBytes> read =
            keychain.findBioAuthDataWithAccount(account, service, std::nullopt, prompt, &error);
        if (read && (read->size() != value.size() ||
                     CRYPTO_memcmp(read->exposeSecret().data(), value.exposeSecret().data(),
                                   value.size()) != 0)) {
          read.reset();
          error =
              Error::corvane(keychain_status::kAuthFailed, "the biometric item read back differs.");
        }
        if (!read) {
          static_cast<void>(
              keychain.deleteGenericPasswordWithAccount(account, service, std::nullopt));
          *outcome = readFailure(error, kUserCanceledRegister);
          return;
        }
        *outcome = core_.registerInOneCommit(
            command, GenericAuthenticator::kUserVerificationBiometry,
            [](const std::string&) -> Result<void> { return {}; }, asmDelegate_);
        if (!**outcome) {
          static_cast<void>(
              keychain.deleteGenericPasswordWithAccount(account, service, std::nullopt));
        }
      },
      [this, alive = std::weak_ptr<bool>(alive_), outcome] {
        if (!alive.lock()) return;
        Result<RegisterResponseCommand>& result = **outcome;
        if (!result) {
          answerRegisterFailure(result.error());
          return;
        }
        saveFingerprintDatabaseChange();
        answerRegister(std::move(*result), std::nullopt);
      });
}

// --- Authentication ---

void FaceAuthenticator::signWithCommand(const SignCommand& command) {
  pending_ = Pending::sign;
  if (std::optional<Error> reason = unsupported()) {
    answerSignFailure(*reason);
    return;
  }
  if (command.originalTc && !AuthenticatorCore::hasTextTransaction(*command.originalTc)) {
    answerSignFailure(failure(kStatusParamsInvalid, AuthenticatorCore::kNoDisplayableTransaction));
    return;
  }
  if (command.transaction && !command.transaction->empty()) {
    confirmTransactions(command);
  } else {
    localAuthenticate(command);
  }
}

void FaceAuthenticator::confirmTransactions(const SignCommand& command) {
  txScreen_ = std::make_unique<TxFaceViewController>(services_.configuration, services_.presenter,
                                                     *this, *this, command);
  txScreen_->show();
}

void FaceAuthenticator::txFaceViewAuthenticationRequest(const SignCommand& command) {
  retire(std::move(txScreen_));
  localAuthenticate(command);
}

void FaceAuthenticator::txFaceUserCancel() {
  onTxFaceCustomPresentationDissmiss();
}

void FaceAuthenticator::onTxFaceCustomPresentationDissmiss() {
  retire(std::move(txScreen_));
  answerSignFailure(failure(kStatusCancelled, kUserCanceledSign));
}

void FaceAuthenticator::localAuthenticate(const SignCommand& command) {
  const std::string prompt =
      services_.configuration.getLocalizedStringAndReplaceWithKey(texts::kTouchIdAuth);
  auto outcome = std::make_shared<std::optional<Result<SignResponseCommand>>>();
  services_.scheduler.runInBackground(
      [this, alive = std::weak_ptr<bool>(alive_), command, prompt, outcome] {
        if (!alive.lock()) return;
        const std::string username = command.username.value_or(std::string());
        Error error;
        if (!services_.keychain.findBioAuthDataWithAccount(
                bioAccount(username), bioService(username), std::nullopt, prompt, &error)) {
          *outcome = readFailure(error, kUserCanceledSign);
          return;
        }
        *outcome = core_.signInOneCommit(command, []() -> Result<void> { return {}; });
      },
      [this, alive = std::weak_ptr<bool>(alive_), outcome] {
        if (!alive.lock()) return;
        Result<SignResponseCommand>& result = **outcome;
        if (!result) {
          answerSignFailure(result.error());
          return;
        }
        // With the level "Convenience" the item opens after an enrolment change: the new
        // enrolment is the one verified last.
        saveFingerprintDatabaseChange();
        answerSign(std::move(*result), std::nullopt);
      });
}

// --- Answers and screens ---

void FaceAuthenticator::answerRegister(RegisterResponseCommand response,
                                       std::optional<Error> error) {
  if (pending_ != Pending::registration) return;
  pending_ = Pending::none;
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_),
                            response = std::move(response), error = std::move(error)] {
    if (alive.lock()) asmDelegate_.authenticatorRegisterResponse(&response, error);
  });
}

void FaceAuthenticator::answerRegisterFailure(const Error& error) {
  RegisterResponseCommand response;
  response.statusCode = static_cast<uint64_t>(error.code());
  answerRegister(std::move(response), error);
}

void FaceAuthenticator::answerSign(SignResponseCommand response, std::optional<Error> error) {
  if (pending_ != Pending::sign) return;
  pending_ = Pending::none;
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_),
                            response = std::move(response), error = std::move(error)] {
    if (alive.lock()) asmDelegate_.authenticatorSignResponse(&response, error);
  });
}

void FaceAuthenticator::answerSignFailure(const Error& error) {
  SignResponseCommand response;
  response.statusCode = static_cast<uint64_t>(error.code());
  answerSign(std::move(response), error);
}

void FaceAuthenticator::retire(std::unique_ptr<TxFaceViewController> screen) {
  if (!screen) return;
  screen->close();
  retired_.push_back(std::shared_ptr<void>(std::move(screen)));
  services_.scheduler.post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock()) retired_.clear();
  });
}

}  // namespace corvane
