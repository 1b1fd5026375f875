#include "corvane/corvane.h"

#include <utility>

#include "client/corvane_impl.h"
#include "client/messages/operation_header.h"
#include "corvane/status_codes.h"
#include "json/json_text.h"

namespace corvane {

Corvane::Corvane(std::shared_ptr<AuthUIControllerDelegate> delegate, Platform platform) {
  if (!platform.missingPort()) impl_ = std::make_unique<Impl>(std::move(platform));
  // First run of this installation: keys and records left by an earlier installation of the
  // application are not trusted. Otherwise, once, give every user enrolled before the last-pattern
  // record existed a last pattern, so that the reuse check has something to compare with.
  if (impl_) {
    // Neither step can be reported from here; a failed one leaves the stores as they were.
    if (!isInstalled()) {
      static_cast<void>(impl_->keychain.resetAllKeyChain());
    } else if (!isFirstInitialed()) {
      static_cast<void>(impl_->patternManager.updateLastPatternForTheFirstTime());
    }
  }
  authUIControllerDelegate_ = std::move(delegate);
}

std::unique_ptr<Corvane> Corvane::create(std::shared_ptr<AuthUIControllerDelegate> delegate,
                                         Platform platform, Error* error) {
  if (std::optional<std::string_view> missing = platform.missingPort()) {
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                                   "The platform has no " + std::string(*missing)));
    return nullptr;
  }
  return std::make_unique<Corvane>(std::move(delegate), std::move(platform));
}

Corvane::~Corvane() = default;

const std::shared_ptr<AuthUIControllerDelegate>& Corvane::authUIControllerDelegate() const {
  return authUIControllerDelegate_;
}

bool Corvane::isInstalled() {
  if (!impl_) return false;
  UserDefaults& defaults = *impl_->platform.userDefaults;
  const bool installed = defaults.getBool(kUserDefaultsInstalledKey);
  if (!installed) {
    // A fresh installation needs no first-initialisation step: the keychain is wiped instead.
    defaults.setBool(kUserDefaultsInstalledKey, true);
    defaults.setBool(kUserDefaultsInitiatedKey, true);
    // A failed flush keeps the flags pending in memory; the next flush writes them.
    static_cast<void>(defaults.synchronize(nullptr));
  }
  return installed;
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
