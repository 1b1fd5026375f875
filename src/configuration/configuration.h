// Configuration and localization: settings, colours and texts that the host application supplies
// in its bundle, with the framework's own bundle as fallback, and the persistent user-defaults
// keys.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/platform.h"
#include "corvane/screen_types.h"

namespace corvane {

// Keys of the application's user defaults.
inline constexpr std::string_view kUserDefaultsInstalledKey = "Corvane.installed";
inline constexpr std::string_view kUserDefaultsInitiatedKey = "Corvane.initiated";
inline constexpr std::string_view kUserDefaultsPreferredLanguageKey = "Corvane.preferredLanguage";

// The two dictionaries of the information dictionary that configure Corvane.
inline constexpr std::string_view kSdkConfigKey = "zandrel_fido_sdk_config";
inline constexpr std::string_view kSdkColorKey = "zandrel_fido_sdk_color";

// The transaction confirmation page used when the host names none (an "html" resource).
inline constexpr std::string_view kDefaultTxViewName = "transaction_dialog_default";

// Members of "zandrel_fido_sdk_config".
namespace settings {
inline constexpr std::string_view kPatternLockoutPolicy = "zandrel_fido_pattern_lockout_policy";
inline constexpr std::string_view kCheckPatternReused = "zandrel_fido_check_pattern_reused";
inline constexpr std::string_view kBiometricActive = "zandrel_fido_biometric_active";
inline constexpr std::string_view kPatternLockActive = "zandrel_fido_pattern_lock_active";
inline constexpr std::string_view kBiometricSecurityLevel = "zandrel_fido_biometric_security_level";
inline constexpr std::string_view kTxViewName = "zandrel_fido_tx_view_name";
inline constexpr std::string_view kDev = "zandrel_fido_dev";
}  // namespace settings

// Members of "zandrel_fido_sdk_color": "reg" is the pattern registration screen, "auth" the
// pattern authentication screen.
namespace colors {
inline constexpr std::string_view kPatternRegHeaderBackground =
    "zandrel_fido_pattern_reg_header_background";
inline constexpr std::string_view kPatternRegHeaderTitle = "zandrel_fido_pattern_reg_header_title";
inline constexpr std::string_view kPatternRegPatternBackground =
    "zandrel_fido_pattern_reg_pattern_background";
inline constexpr std::string_view kPatternAuthPatternBackground =
    "zandrel_fido_pattern_auth_pattern_background";
inline constexpr std::string_view kPatternRegPatternDots = "zandrel_fido_pattern_reg_pattern_dots";
inline constexpr std::string_view kPatternAuthPatternDots =
    "zandrel_fido_pattern_auth_pattern_dots";
inline constexpr std::string_view kPatternRegPatternDotsInvalid =
    "zandrel_fido_pattern_reg_pattern_dots_invalid";
inline constexpr std::string_view kPatternAuthPatternDotsInvalid =
    "zandrel_fido_pattern_auth_pattern_dots_invalid";
inline constexpr std::string_view kPatternRegPatternLine = "zandrel_fido_pattern_reg_pattern_line";
inline constexpr std::string_view kPatternAuthPatternLine =
    "zandrel_fido_pattern_auth_pattern_line";
inline constexpr std::string_view kPatternRegPatternLineInvalid =
    "zandrel_fido_pattern_reg_pattern_line_invalid";
inline constexpr std::string_view kPatternAuthPatternLineInvalid =
    "zandrel_fido_pattern_auth_pattern_line_invalid";
inline constexpr std::string_view kPatternRegInfoText = "zandrel_fido_pattern_reg_info_text";
inline constexpr std::string_view kPatternAuthInfoText = "zandrel_fido_pattern_auth_info_text";
inline constexpr std::string_view kPatternRegErrorText = "zandrel_fido_pattern_reg_error_text";
inline constexpr std::string_view kPatternAuthErrorText = "zandrel_fido_pattern_auth_error_text";
inline constexpr std::string_view kPatternRegFooterBackground =
    "zandrel_fido_pattern_reg_footer_background";
inline constexpr std::string_view kPatternAuthFooterBackground =
    "zandrel_fido_pattern_auth_footer_background";
inline constexpr std::string_view kPatternRegFooterButtonText =
    "zandrel_fido_pattern_reg_footer_button_text";
inline constexpr std::string_view kPatternAuthFooterButtonText =
    "zandrel_fido_pattern_auth_footer_button_text";

inline constexpr std::array kAll = {
    kPatternRegHeaderBackground,   kPatternRegHeaderTitle,         kPatternRegPatternBackground,
    kPatternAuthPatternBackground, kPatternRegPatternDots,         kPatternAuthPatternDots,
    kPatternRegPatternDotsInvalid, kPatternAuthPatternDotsInvalid, kPatternRegPatternLine,
    kPatternAuthPatternLine,       kPatternRegPatternLineInvalid,  kPatternAuthPatternLineInvalid,
    kPatternRegInfoText,           kPatternAuthInfoText,           kPatternRegErrorText,
    kPatternAuthErrorText,         kPatternRegFooterBackground,    kPatternAuthFooterBackground,
    kPatternRegFooterButtonText,   kPatternAuthFooterButtonText,
};
}  // namespace colors

// Keys of the localized string tables. Every text the library shows is named here; the framework's
// "en" and "Base" tables carry each of them.
namespace texts {
inline constexpr std::string_view kPatternRegTitle = "zandrel_fido_pattern_reg_title";
inline constexpr std::string_view kPatternRegHeaderTitle = "zandrel_fido_pattern_reg_header_title";
inline constexpr std::string_view kPatternRegInfo = "zandrel_fido_pattern_reg_info";
inline constexpr std::string_view kPatternRegInfoConfirm = "zandrel_fido_pattern_reg_info_confirm";
inline constexpr std::string_view kPatternRegInfoError = "zandrel_fido_pattern_reg_info_error";
inline constexpr std::string_view kPatternRegInfoConfirmError =
    "zandrel_fido_pattern_reg_info_confirm_error";
inline constexpr std::string_view kPatternRegReusedError = "zandrel_fido_pattern_reg_reused_error";
inline constexpr std::string_view kPatternRegFooterButtonCancel =
    "zandrel_fido_pattern_reg_footer_button_cancel";
inline constexpr std::string_view kPatternRegFooterButtonNext =
    "zandrel_fido_pattern_reg_footer_button_next";
inline constexpr std::string_view kPatternAuthTitle = "zandrel_fido_pattern_auth_title";
inline constexpr std::string_view kPatternAuthInfoError = "zandrel_fido_pattern_auth_info_error";
// Formatted with the attempts of the round ("%ld").
inline constexpr std::string_view kPatternAuthAttemptFailed =
    "zandrel_fido_pattern_auth_attempt_failed";
// Formatted with the wait in seconds ("%ld").
inline constexpr std::string_view kPatternAuthTempLock = "zandrel_fido_pattern_auth_temp_lock";
inline constexpr std::string_view kPatternAuthLockOut = "zandrel_fido_pattern_auth_lock_out";
inline constexpr std::string_view kPatternAuthFooterButtonCancel =
    "zandrel_fido_pattern_auth_footer_button_cancel";
inline constexpr std::string_view kTxAuthFooterButtonConfirm =
    "zandrel_fido_tx_auth_footer_button_confirm";
inline constexpr std::string_view kTxAuthFooterButtonCancel =
    "zandrel_fido_tx_auth_footer_button_cancel";
inline constexpr std::string_view kTouchIdReg = "zandrel_fido_touch_id_reg";
inline constexpr std::string_view kTouchIdAuth = "zandrel_fido_touch_id_auth";

// A text key and the number of "%ld" conversions its text carries (no other conversion is allowed,
// so a formatter never reads an argument that is not there).
struct Key {
  std::string_view name;
  int numberArguments;
};

inline constexpr std::array kAll = {
    Key{kPatternRegTitle, 0},
    Key{kPatternRegHeaderTitle, 0},
    Key{kPatternRegInfo, 0},
    Key{kPatternRegInfoConfirm, 0},
    Key{kPatternRegInfoError, 0},
    Key{kPatternRegInfoConfirmError, 0},
    Key{kPatternRegReusedError, 0},
    Key{kPatternRegFooterButtonCancel, 0},
    Key{kPatternRegFooterButtonNext, 0},
    Key{kPatternAuthTitle, 0},
    Key{kPatternAuthInfoError, 0},
    Key{kPatternAuthAttemptFailed, 1},
    Key{kPatternAuthTempLock, 1},
    Key{kPatternAuthLockOut, 0},
    Key{kPatternAuthFooterButtonCancel, 0},
    Key{kTxAuthFooterButtonConfirm, 0},
    Key{kTxAuthFooterButtonCancel, 0},
    Key{kTouchIdReg, 0},
    Key{kTouchIdAuth, 0},
};
}  // namespace texts

// Every configuration and localization lookup. Built from the host application's bundle, the
// framework's own bundle and the user defaults, which must outlive it. Reads only; thread-safe as
// far as the ports are.
class Configuration {
 public:
  Configuration(const HostBundle& host, const HostBundle& framework, const UserDefaults& defaults)
      : host_(host), framework_(framework), defaults_(defaults) {}

  // The text for `key`: the host's tables in the preferred language (user default
  // "Corvane.preferredLanguage"), then the host's "Base" table, then the framework's tables; every
  // backslash-n pair of the result becomes a line break. Empty when no table has the key.
  std::string getLocalizedStringAndReplaceWithKey(std::string_view key) const;
  // The framework's own text: its "en" table when the language is exactly "en", else (or when "en"
  // lacks it) its "Base" table; empty when missing there too.
  std::string getSDKDefaultLocalizedStringWithLang(std::optional<std::string_view> language,
                                                   std::string_view key) const;
  // True when the text is absent, empty or equal to the key (a failed lookup gives the key back).
  static bool isMessageInvalid(std::optional<std::string_view> text, std::string_view key);
  // The text for `key` with every "%ld" replaced by `number` in decimal; no other conversion is
  // read, so a host's text cannot make the formatter read what is not there.
  std::string getLocalizedNumberText(std::string_view key, int64_t number) const;

  // The colour under `key` in the host's "zandrel_fido_sdk_color", else in the framework's.
  [[nodiscard]] std::optional<Color> getColorFromInfoPlistWithKey(std::string_view key) const;
  // "#RRGGBB" (opaque) or "#AARRGGBB"; the first character is skipped whatever it is and hex digits
  // are read until the first other character. Absent for any other length.
  [[nodiscard]] static std::optional<Color> colorFromHexString(
      std::optional<std::string_view> text);

  // Whether user verification 1 (biometry) or 2 (pattern) is switched on; only the text "N" in the
  // host's own settings switches one off. Every other index is always on.
  bool checkUserVerificationActive(int userVerification) const;
  bool isBiometricActive() const { return checkUserVerificationActive(1); }
  bool isPatternLockActive() const { return checkUserVerificationActive(2); }

  // The lockout policy text: the host's, else the framework's; absent when neither has one.
  [[nodiscard]] std::optional<std::string> getPatternLockoutPolicy() const;
  // True when the reuse check is "Y" (the host's setting, else the framework's).
  bool isCheckPatternReused() const;
  // The host's non-empty level, else the framework's non-empty level, else absent.
  [[nodiscard]] std::optional<std::string> getBiometricSecurityLevel() const;
  // True only for the level "Convenience" (any enrolled biometry).
  bool isBiometricSecurityLevelConvenience() const;
  // The host's non-empty page name, else "transaction_dialog_default".
  std::string getTxViewName() const;
  // The transaction page file: the host's named "html" resource, else the framework's default.
  [[nodiscard]] std::optional<std::filesystem::path> getTxViewPath() const;
  // The host's development switch: a true boolean, a non-zero number, or a text that starts (after
  // blanks, a sign and zeros) with Y, y, T, t or a digit 1-9. False when absent.
  bool isDevMode() const;

  const HostBundle& host() const { return host_; }
  const HostBundle& framework() const { return framework_; }

 private:
  [[nodiscard]] std::optional<std::string> hostSetting(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> frameworkSetting(std::string_view key) const;

  const HostBundle& host_;
  const HostBundle& framework_;
  const UserDefaults& defaults_;
};

}  // namespace corvane
