// Ports: the narrow interfaces through which Corvane reaches platform services. Each port states
// its thread-safety; the Linux implementations live in platform/linux/, a phone port re-implements
// only these interfaces.
#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "corvane/error.h"
#include "corvane/ports/biometry.h"
#include "corvane/ports/clock.h"
#include "corvane/ports/item_store.h"
#include "corvane/ports/key_store.h"

namespace corvane {

// A value of an information dictionary (a property list): text, boolean, integer, real number,
// array or dictionary. Dictionaries keep their members in insertion order; keys are unique.
// A plain value type: copies are independent.
class InfoValue {
 public:
  using Array = std::vector<InfoValue>;
  using Member = std::pair<std::string, InfoValue>;
  using Dictionary = std::vector<Member>;
  enum class Type { String, Boolean, Integer, Real, Array, Dictionary };

  // An empty dictionary.
  InfoValue() : value_(Dictionary{}) {}
  InfoValue(std::string text) : value_(std::move(text)) {}
  InfoValue(std::string_view text) : value_(std::string(text)) {}
  InfoValue(const char* text) : value_(std::string(text)) {}
  InfoValue(bool flag) : value_(flag) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) InfoValue(T number) : value_(static_cast<int64_t>(number)) {}
  InfoValue(double number) : value_(number) {}
  InfoValue(Array items) : value_(std::move(items)) {}
  InfoValue(Dictionary members) : value_(std::move(members)) {}

  Type type() const { return static_cast<Type>(value_.index()); }

  // Each accessor answers null or absent when the value is of another type.
  const std::string* string() const { return std::get_if<std::string>(&value_); }
  [[nodiscard]] std::optional<bool> boolean() const {
    const bool* flag = std::get_if<bool>(&value_);
    return flag != nullptr ? std::optional<bool>(*flag) : std::nullopt;
  }
  [[nodiscard]] std::optional<int64_t> integer() const {
    const int64_t* number = std::get_if<int64_t>(&value_);
    return number != nullptr ? std::optional<int64_t>(*number) : std::nullopt;
  }
  [[nodiscard]] std::optional<double> real() const {
    const double* number = std::get_if<double>(&value_);
    return number != nullptr ? std::optional<double>(*number) : std::nullopt;
  }
  const Array* array() const { return std::get_if<Array>(&value_); }
  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&value_); }

  // The member named `key` of a dictionary; null when this is not a dictionary or has no such key.
  const InfoValue* member(std::string_view key) const {
    const Dictionary* members = dictionary();
    if (members == nullptr) return nullptr;
    for (const Member& entry : *members) {
      if (entry.first == key) return &entry.second;
    }
    return nullptr;
  }
  // The value reached by following `path` through nested dictionaries; this value itself for an
  // empty path.
  const InfoValue* find(std::span<const std::string_view> path) const {
    const InfoValue* node = this;
    for (std::string_view key : path) {
      node = node->member(key);
      if (node == nullptr) return nullptr;
    }
    return node;
  }
  // Adds or replaces a member; turns a non-dictionary into a dictionary first.
  void set(std::string key, InfoValue value) {
    if (dictionary() == nullptr) value_ = Dictionary{};
    Dictionary& members = std::get<Dictionary>(value_);
    for (Member& entry : members) {
      if (entry.first == key) {
        entry.second = std::move(value);
        return;
      }
    }
    members.emplace_back(std::move(key), std::move(value));
  }
  // Removes a member if present.
  void erase(std::string_view key) {
    Dictionary* members = std::get_if<Dictionary>(&value_);
    if (members == nullptr) return;
    std::erase_if(*members, [key](const Member& entry) { return entry.first == key; });
  }

  bool operator==(const InfoValue&) const = default;

 private:
  std::variant<std::string, bool, int64_t, double, Array, Dictionary> value_;
};

// A bundle of the application or of the framework itself: identifier, information dictionary,
// localized string tables and resource files.
// Thread-safety: every method is const and may be called from any thread at the same time.
class HostBundle {
 public:
  virtual ~HostBundle() = default;

  // "CFBundleIdentifier" of the information dictionary; empty when it has none.
  virtual std::string bundleIdentifier() const = 0;

  // The value at `path` in the information dictionary (the first piece is a top-level key, each
  // following piece a member of the dictionary before it); absent when any step is missing.
  [[nodiscard]] virtual std::optional<InfoValue> infoValueAtPath(
      std::span<const std::string_view> path) const = 0;

  // The text for `key` in the table of `localization` ("en", "fr", "Base", ...), or, when the
  // localization is absent, in the bundle's default lookup order. Absent when missing, so that
  // callers can fall back.
  [[nodiscard]] virtual std::optional<std::string> localizedString(
      std::string_view key, std::optional<std::string_view> localization) const = 0;

  // The bundle's localizations in the order that best fits the user's languages; never "Base".
  virtual std::vector<std::string> preferredLocalizations() const = 0;

  // The file of a resource "<name>.<type>" (just "<name>" for an empty type); absent when the
  // bundle has no such file.
  [[nodiscard]] virtual std::optional<std::filesystem::path> pathForResource(
      std::string_view name, std::string_view type) const = 0;

  [[nodiscard]] std::optional<InfoValue> infoValue(
      std::initializer_list<std::string_view> path) const {
    return infoValueAtPath(std::span(path.begin(), path.size()));
  }
  // The text at `path`; absent when it is missing or not a text.
  [[nodiscard]] std::optional<std::string> infoString(
      std::initializer_list<std::string_view> path) const {
    std::optional<InfoValue> value = infoValue(path);
    if (!value || value->string() == nullptr) return std::nullopt;
    return *value->string();
  }
};

// Small persistent key-value flags of the application (booleans and texts).
// Writes change the values at once for every reader; synchronize() makes them durable.
// Thread-safety: every method may be called from any thread at the same time.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  // False when the key is absent or does not hold a boolean.
  virtual bool getBool(std::string_view key) const = 0;
  virtual void setBool(std::string_view key, bool value) = 0;
  // Absent when the key is absent or does not hold a text.
  [[nodiscard]] virtual std::optional<std::string> getString(std::string_view key) const = 0;
  virtual void setString(std::string_view key, std::string_view value) = 0;
  virtual void remove(std::string_view key) = 0;
  // Writes pending changes to durable storage; false (and the error) when that fails, in which
  // case the changes stay pending and the next call tries again.
  [[nodiscard]] virtual bool synchronize(Error* error) = 0;
  // Absent when the stored values were read, or there were none yet; otherwise why they could not
  // be read (a damaged, oversized or unreadable store). The values then read as empty, and the
  // library refuses to start rather than take that for a fresh installation.
  [[nodiscard]] virtual std::optional<Error> loadError() const = 0;
};

}  // namespace corvane
