#include "configuration/configuration.h"

#include <vector>

#include "foundation/utils.h"

namespace corvane {

namespace {

constexpr std::string_view kEnglishLocalization = "en";
constexpr std::string_view kBaseLocalization = "Base";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Every two-character sequence backslash-n becomes a line break.
std::string replaceEscapedLineBreaks(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
      out += '\n';
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The boolean reading of a text: blanks, then an optional sign and zeros, then Y, y, T, t or a
// digit 1-9 means true; anything else false.
bool textMeansTrue(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                             text[i] == '\r' || text[i] == '\f' || text[i] == '\v')) {
    ++i;
  }
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace

std::optional<std::string> Configuration::hostSetting(std::string_view key) const {
  return host_.infoString({kSdkConfigKey, key});
}

std::optional<std::string> Configuration::frameworkSetting(std::string_view key) const {
  return framework_.infoString({kSdkConfigKey, key});
}

bool Configuration::isMessageInvalid(std::optional<std::string_view> text, std::string_view key) {
  return !text || text->empty() || *text == key;
}

std::string Configuration::getSDKDefaultLocalizedStringWithLang(
    std::optional<std::string_view> language, std::string_view key) const {
  bool english = language && *language == kEnglishLocalization;
  std::optional<std::string> text;
  if (english) text = framework_.localizedString(key, kEnglishLocalization);
  if (!english || isMessageInvalid(text, key)) {
    text = framework_.localizedString(key, kBaseLocalization);
  }
  return text.value_or(std::string());
}

std::string Configuration::getLocalizedNumberText(std::string_view key, int64_t number) const {
  const std::string format = getLocalizedStringAndReplaceWithKey(key);
  const std::string value = std::to_string(number);
  std::string out;
  for (size_t at = 0; at < format.size();) {
    if (format.compare(at, 3, "%ld") == 0) {
      out += value;
      at += 3;
    } else {
      out += format[at++];
    }
  }
  return out;
}

std::string Configuration::getLocalizedStringAndReplaceWithKey(std::string_view key) const {
  std::optional<std::string> language = defaults_.getString(kUserDefaultsPreferredLanguageKey);
  std::string result;
  if (!language || language->empty()) {
    std::optional<std::string> text = host_.localizedString(key, std::nullopt);
    if (isMessageInvalid(text, key)) {
      std::vector<std::string> preferred = host_.preferredLocalizations();
      std::optional<std::string_view> first;
      if (!preferred.empty()) first = preferred.front();
      result = getSDKDefaultLocalizedStringWithLang(first, key);
    } else {
      result = std::move(*text);
    }
  } else {
    std::optional<std::string> text = host_.localizedString(key, *language);
    if (isMessageInvalid(text, key)) text = host_.localizedString(key, kBaseLocalization);
    if (isMessageInvalid(text, key)) {
      result = getSDKDefaultLocalizedStringWithLang(*language, key);
    } else {
      result = std::move(*text);
    }
  }
  return replaceEscapedLineBreaks(result);
}

std::optional<Color> Configuration::colorFromHexString(std::optional<std::string_view> text) {
  if (!text || text->empty()) return std::nullopt;
  size_t length = utf16Length(*text);
  if (length != 7 && length != 9) return std::nullopt;

  // Skip the whole first character, however many bytes it takes.
  size_t i = 1;
  while (i < text->size() && (static_cast<uint8_t>((*text)[i]) & 0xC0) == 0x80) ++i;
  uint32_t value = 0;
  for (; i < text->size() && hexDigit((*text)[i]) >= 0; ++i) {
    value = (value << 4) | static_cast<uint32_t>(hexDigit((*text)[i]));
  }

  Color color;
  color.red = static_cast<double>((value >> 16) & 255) / 255.0;
  color.green = static_cast<double>((value >> 8) & 255) / 255.0;
  color.blue = static_cast<double>(value & 255) / 255.0;
  color.alpha = length == 9 ? static_cast<double>(value >> 24) / 255.0 : 1.0;
  return color;
}

std::optional<Color> Configuration::getColorFromInfoPlistWithKey(std::string_view key) const {
  if (std::optional<Color> color = colorFromHexString(host_.infoString({kSdkColorKey, key}))) {
    return color;
  }
  return colorFromHexString(framework_.infoString({kSdkColorKey, key}));
}

bool Configuration::checkUserVerificationActive(int userVerification) const {
  std::string_view key;
  if (userVerification == 1) {
    key = settings::kBiometricActive;
  } else if (userVerification == 2) {
    key = settings::kPatternLockActive;
  } else {
    return true;
  }
  return hostSetting(key) != "N";
}

std::optional<std::string> Configuration::getPatternLockoutPolicy() const {
  if (std::optional<std::string> policy = hostSetting(settings::kPatternLockoutPolicy)) {
    return policy;
  }
  return frameworkSetting(settings::kPatternLockoutPolicy);
}

bool Configuration::isCheckPatternReused() const {
  std::optional<std::string> value = hostSetting(settings::kCheckPatternReused);
  if (!value) value = frameworkSetting(settings::kCheckPatternReused);
  return value == "Y";
}

std::optional<std::string> Configuration::getBiometricSecurityLevel() const {
  std::optional<std::string> level = hostSetting(settings::kBiometricSecurityLevel);
  if (!level || level->empty()) level = frameworkSetting(settings::kBiometricSecurityLevel);
  if (!level || level->empty()) return std::nullopt;
  return level;
}

bool Configuration::isBiometricSecurityLevelConvenience() const {
  return getBiometricSecurityLevel() == "Convenience";
}

std::string Configuration::getTxViewName() const {
  std::optional<std::string> name = hostSetting(settings::kTxViewName);
  if (!name || name->empty()) return std::string(kDefaultTxViewName);
  return *name;
}

std::optional<std::filesystem::path> Configuration::getTxViewPath() const {
  // Only a page the host names is looked for in the host's bundle.
  std::optional<std::string> name = hostSetting(settings::kTxViewName);
  if (name && !name->empty()) {
    if (std::optional<std::filesystem::path> page = host_.pathForResource(*name, "html")) {
      return page;
    }
  }
  return framework_.pathForResource(kDefaultTxViewName, "html");
}

bool Configuration::isDevMode() const {
  std::optional<InfoValue> value = host_.infoValue({kSdkConfigKey, settings::kDev});
  if (!value) return false;
  if (std::optional<bool> flag = value->boolean()) return *flag;
  if (std::optional<int64_t> number = value->integer()) return *number != 0;
  if (std::optional<double> number = value->real()) return *number != 0;
  if (const std::string* text = value->string()) return textMeansTrue(*text);
  return false;
}

}  // namespace corvane
