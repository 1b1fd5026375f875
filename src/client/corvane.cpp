#include "corvane/corvane.h"

#include <utility>

#include "client/corvane_impl.h"
#include "client/messages/operation_header.h"
#include "corvane/status_codes.h"
#include "json/json_text.h"

namespace corvane {

Corvane::Corvane(std::shared_ptr<AuthUIControllerDelegate> delegate, Platform platform)
    : Corvane(std::move(delegate), std::move(platform), Unstarted{}) {
  // A constructor cannot report: a failed step leaves the stores as they were.
  if (impl_) static_cast<void>(start(nullptr));
}

Corvane::Corvane(std::shared_ptr<AuthUIControllerDelegate> delegate, Platform platform, Unstarted)
    : authUIControllerDelegate_(std::move(delegate)) {
  if (!platform.missingPort()) {
    impl_ = std::make_unique<Impl>(std::move(platform));
    impl_->host = authUIControllerDelegate_.get();
  }
}

std::unique_ptr<Corvane> Corvane::create(std::shared_ptr<AuthUIControllerDelegate> delegate,
                                         Platform platform, Error* error) {
  if (std::optional<std::string_view> missing = platform.missingPort()) {
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                                   "The platform has no " + std::string(*missing)));
    return nullptr;
  }
  std::unique_ptr<Corvane> corvane(
      new Corvane(std::move(delegate), std::move(platform), Unstarted{}));
  if (!corvane->start(error)) return nullptr;
  return corvane;
}

bool Corvane::start(Error* error) {
  const auto fail = [error](std::string_view what, const std::optional<Error>& cause) {
    std::string message(what);
    if (cause && !cause->localizedDescription().empty()) {
      message += ": " + cause->localizedDescription();
    }
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN), std::move(message)));
    return false;
  };
  // Settings that cannot be read say nothing about the installation; they are never taken for a
  // fresh one.
  if (std::optional<Error> unreadable = impl_->platform.userDefaults->loadError()) {
    setError(error, *unreadable);
    return false;
  }
  // The record database is opened (and made, the first time) now, so that a folder it cannot use
  // is reported here rather than at the first data sync.
  Result<std::vector<WBTable>> records = impl_->records.fetchRecordsFromTable(
      kWBTableEntityName, RecordPredicate::usernameEquals(std::nullopt));
  if (!records) return fail("Cannot open the record database", records.error());
  Result<bool> installed = impl_->installedBefore();
  if (!installed) return fail("Cannot read the item store", installed.error());
  if (!*installed) {
    // First run of this installation: keys and records left by an earlier installation of the
    // application are not trusted. The marker is written only after the wipe, so a wipe cut
    // short runs again at the next start.
    if (impl_->keychain.resetAllKeyChain() != StoreStatus::ok) {
      return fail("Cannot wipe the data of an earlier installation", std::nullopt);
    }
    if (!impl_->markInstalled()) return fail("Cannot mark the installation", std::nullopt);
  } else if (!isFirstInitialed()) {
    // Once, give every user enrolled before the last-pattern record existed a last pattern, so
    // that the reuse check has something to compare with.
    Result<void> copied = impl_->patternManager.updateLastPatternForTheFirstTime();
    if (!copied) return fail("Cannot record the users' last patterns", copied.error());
  }
  return true;
}

Corvane::~Corvane() = default;

const std::shared_ptr<AuthUIControllerDelegate>& Corvane::authUIControllerDelegate() const {
  return authUIControllerDelegate_;
}

bool Corvane::isInstalled() {
  if (!impl_) return false;
  Result<bool> installed = impl_->installedBefore();
  if (!installed) return true;
  // A marker that cannot be written now is written at the next call.
  if (!*installed) static_cast<void>(impl_->markInstalled());
  return *installed;
}

bool Corvane::isFirstInitialed() {
  if (!impl_) return false;
  UserDefaults& defaults = *impl_->platform.userDefaults;
  const bool initiated = defaults.getBool(kUserDefaultsInitiatedKey);
  if (!initiated) {
    defaults.setBool(kUserDefaultsInitiatedKey, true);
    static_cast<void>(defaults.synchronize(nullptr));
  }
  return initiated;
}

bool Corvane::validateProperties(std::string_view message) const {
  std::optional<nlohmann::json> parsed = jsonmodel::parseJson(message, nullptr);
  return parsed && corvane::validateProperties(*parsed);
}

std::string Corvane::getDeviceModelName() const {
  if (!impl_) return std::string();
  return impl_->platform.deviceInfo->modelIdentifier();
}

std::string Corvane::getRunningSDKVersion() const {
  if (!impl_) return std::string();
  return impl_->platform.frameworkBundle->infoString({"CFBundleShortVersionString"})
      .value_or(std::string());
}

void Corvane::setLanguage(std::optional<std::string_view> language,
                          std::optional<std::string_view> scriptCode,
                          std::optional<std::string_view> regionCode) {
  if (!impl_) return;
  UserDefaults& defaults = *impl_->platform.userDefaults;
  if (!language || language->empty()) {
    defaults.remove(kUserDefaultsPreferredLanguageKey);
    static_cast<void>(defaults.synchronize(nullptr));
    return;
  }
  std::string tag(*language);
  for (const std::optional<std::string_view>& part : {scriptCode, regionCode}) {
    if (part && !part->empty()) tag.append("-").append(*part);
  }
  defaults.setString(kUserDefaultsPreferredLanguageKey, tag);
  static_cast<void>(defaults.synchronize(nullptr));
}

std::string Corvane::getTranslation(std::string_view kind) {
  if (kind == "pattern") return "圖形密碼驗證";
  if (kind == "biometry") return "生物辨識驗證";
  return std::string();
}

}  // namespace corvane
