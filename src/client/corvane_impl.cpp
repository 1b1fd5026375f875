#include "client/corvane_impl.h"

#include <utility>

#include "authenticator/generic_authenticator.h"
#include "verification/face_authenticator.h"
#include "verification/pattern_lock_authenticator.h"

namespace corvane {

namespace {
constexpr uint64_t kEnrolled =
    static_cast<uint64_t>(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED);
}  // namespace

Corvane::Impl::Impl(Platform ports)
    : platform(std::move(ports)),
      configuration(*platform.hostBundle, *platform.frameworkBundle, *platform.userDefaults),
      facetTrust(configuration, *platform.httpClient),
      keychain(*platform.itemStore, *platform.keyStore, *platform.biometry, configuration,
               &attestation),
      patternManager(keychain),
      records(platform.recordDatabaseDirectory),
      policy(*platform.deviceInfo, [this](const AsmRequest& request) { return execute(request); }) {
}

Corvane::Impl::~Impl() = default;

Result<bool> Corvane::Impl::installedBefore() {
  Result<bool> marked = keychain.isInstallationMarked();
  if (!marked || *marked) return marked;
  if (!platform.userDefaults->getBool(kUserDefaultsInstalledKey)) return false;
  // Marked at the next start when it cannot be now; the flag still says installed.
  static_cast<void>(keychain.markInstallation());
  return true;
}

bool Corvane::Impl::markInstalled() {
  if (keychain.markInstallation() != StoreStatus::ok) return false;
  UserDefaults& defaults = *platform.userDefaults;
  defaults.setBool(kUserDefaultsInstalledKey, true);
  defaults.setBool(kUserDefaultsInitiatedKey, true);
  static_cast<void>(defaults.synchronize(nullptr));
  return true;
}

Asm& Corvane::Impl::assistant() {
  if (!asm_) {
    asm_ = std::make_unique<Asm>(
        *this, keychain, configuration, facetID(), [this](AsmDelegate& asmDelegate) {
          Asm::Authenticators made;
          // Both built-in authenticators show screens; without a presenter neither is offered.
          if (!platform.screenPresenter) return made;
          const auto services = [this] {
            return AuthenticatorServices{keychain,
                                         patternManager,
                                         configuration,
                                         *platform.scheduler,
                                         *platform.screenPresenter,
                                         *platform.deviceInfo,
                                         *platform.clock,
                                         facetID()};
          };
          made[GenericAuthenticator::kUserVerificationPattern] =
              std::make_unique<PatternLockAuthenticator>(asmDelegate, services());
          // Biometry is offered where the device has a reader, enrolled or not, so that the host
          // hears why it cannot be used yet.
          if (platform.biometry->biometryType() != BiometryType::none) {
            made[GenericAuthenticator::kUserVerificationBiometry] =
                std::make_unique<FaceAuthenticator>(asmDelegate, services(), *platform.biometry,
                                                    *platform.userDefaults);
          }
          return made;
        });
  }
  return *asm_;
}

AsmResponse Corvane::Impl::execute(const AsmRequest& request) {
  // Store reads and writes from here must not meet an authenticator's background work.
  platform.scheduler->waitForBackgroundWork();
  if (request.requestType != static_cast<uint64_t>(AsmRequestType::kGetRegistrations) &&
      request.requestType != static_cast<uint64_t>(AsmRequestType::kGetInfo)) {
    ++changingRequests;
  }
  return assistant().executeWithAsmRequestThenResponse(request);
}

std::optional<std::vector<AuthenticatorInfo>> Corvane::Impl::candidates(
    const std::optional<nlohmann::json>& accepted, const std::optional<nlohmann::json>& disallowed,
    const std::string& username, bool isReg, std::string_view appID, Error* error) {
  AsmRequest getInfo;
  getInfo.requestType = static_cast<uint64_t>(AsmRequestType::kGetInfo);
  const AsmResponse info = execute(getInfo);
  std::vector<AuthenticatorInfo> infos;
  if (const auto* out = std::get_if<GetInfoOut>(&info.responseData); out && out->authenticators) {
    infos = *out->authenticators;
  }
  // The first registration of the user at each authenticator index, with the count of changing
  // requests when it was read.
  struct Seen {
    int64_t index;
    uint64_t changes;
    std::optional<AppRegistration> first;
  };
  std::vector<Seen> seen;
  const auto firstRegistration = [&](int64_t index) {
    for (const Seen& s : seen) {
      if (s.index == index && s.changes == changingRequests) return s.first;
    }
    AsmRequest request;
    request.requestType = static_cast<uint64_t>(AsmRequestType::kGetRegistrations);
    request.authenticatorIndex = index;
    request.args = GetRegistrationsIn{username};
    const AsmResponse answer = execute(request);
    std::optional<AppRegistration> first;
    if (const auto* out = std::get_if<GetRegistrationOut>(&answer.responseData);
        out && out->appRegs && !out->appRegs->empty()) {
      first = out->appRegs->front();
    }
    seen.push_back({index, changingRequests, first});
    return first;
  };
  std::vector<AuthenticatorInfo> matched;
  std::string refusals;
  for (AuthenticatorInfo& authenticator : infos) {
    const std::optional<AppRegistration> first =
        firstRegistration(authenticator.authenticatorIndex.value_or(0));
    if (first) {
      if (first->keyID && !first->keyID->empty()) {
        authenticator.keyIDs = std::vector<std::string>{first->keyID->front()};
      }
      authenticator.status = kEnrolled;
    }
    Error refusal;
    if (policy.checkPolicy(&authenticator, accepted, disallowed, isReg, username, appID,
                           &refusal)) {
      if (authenticator.status == kEnrolled && first) {
        authenticator.uvs = std::vector<std::string>{first->userVerification.value_or("")};
      }
      matched.push_back(std::move(authenticator));
    } else if (refusal.code() != 0) {
      refusals += refusal.localizedDescription();
    }
  }
  if (!refusals.empty() && matched.empty()) {
    setError(error, Error::corvane(code(CorvaneStatusCode::DISALLOW_POLICY), refusals));
    return std::nullopt;
  }
  return matched;
}

void Corvane::Impl::completeRegistration(std::optional<std::string> response, const Error& error) {
  pending = Pending::none;
  if (host != nullptr) host->onRegistrationComplete(std::move(response), error);
}

void Corvane::Impl::completeAuthentication(std::optional<std::string> response,
                                           const Error& error) {
  pending = Pending::none;
  if (host != nullptr) host->onAuthenticationComplete(std::move(response), error);
}

}  // namespace corvane
