// A HostBundle for tests: an information dictionary, string tables, preferred localizations and
// resource files set by hand. Records every call; can be switched to lose all its texts or its
// information dictionary. Single-threaded, like the tests that use it.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/platform.h"

namespace corvane::testing {

class FakeHostBundle final : public corvane::HostBundle {
 public:
  // Every call, as "<method> <arguments>" ("localizedString key fr", "localizedString key -" for
  // the default table).
  mutable std::vector<std::string> calls;

  // Fault switches.
  bool failLocalizedStrings = false;  // every text lookup answers absent
  bool failInfo = false;              // every information lookup answers absent

  std::string identifier = "com.example.host";
  corvane::InfoValue info;
  std::vector<std::string> preferred{"en"};
  // Localization name to table; the default table is `preferred`, then "Base".
  std::map<std::string, std::map<std::string, std::string>, std::less<>> tables;
  // "<name>.<type>" to file.
  std::map<std::string, std::filesystem::path, std::less<>> resources;

  // Sets info[dictionary][key] = value.
  void setInfo(std::string_view dictionary, std::string_view key, corvane::InfoValue value) {
    const corvane::InfoValue* existing = info.member(dictionary);
    corvane::InfoValue inner = existing != nullptr ? *existing : corvane::InfoValue();
    inner.set(std::string(key), std::move(value));
    info.set(std::string(dictionary), std::move(inner));
  }
  void setText(std::string_view localization, std::string_view key, std::string_view text) {
    tables[std::string(localization)][std::string(key)] = std::string(text);
  }

  std::string bundleIdentifier() const override {
    calls.push_back("bundleIdentifier");
    return identifier;
  }

  std::optional<corvane::InfoValue> infoValueAtPath(
      std::span<const std::string_view> path) const override {
    std::string call = "infoValue";
    for (std::string_view piece : path) call.append(" ").append(piece);
    calls.push_back(call);
    if (failInfo) return std::nullopt;
    const corvane::InfoValue* value = info.find(path);
    if (value == nullptr) return std::nullopt;
    return *value;
  }

  std::optional<std::string> localizedString(
      std::string_view key, std::optional<std::string_view> localization) const override {
    calls.push_back("localizedString " + std::string(key) + " " +
                    std::string(localization.value_or("-")));
    if (failLocalizedStrings) return std::nullopt;
    auto lookUp = [&](std::string_view name) -> std::optional<std::string> {
      auto table = tables.find(name);
      if (table == tables.end()) return std::nullopt;
      auto entry = table->second.find(std::string(key));
      if (entry == table->second.end()) return std::nullopt;
      return entry->second;
    };
    if (localization) return lookUp(*localization);
    for (const std::string& name : preferred) {
      if (auto text = lookUp(name)) return text;
    }
    return lookUp("Base");
  }

  std::vector<std::string> preferredLocalizations() const override {
    calls.push_back("preferredLocalizations");
    return preferred;
  }

  std::optional<std::filesystem::path> pathForResource(std::string_view name,
                                                       std::string_view type) const override {
    std::string file = std::string(name) + (type.empty() ? "" : "." + std::string(type));
    calls.push_back("pathForResource " + file);
    auto it = resources.find(file);
    if (it == resources.end()) return std::nullopt;
    return it->second;
  }

  // Number of recorded calls starting with `prefix`.
  size_t countCalls(std::string_view prefix) const {
    size_t n = 0;
    for (const std::string& call : calls) n += call.starts_with(prefix) ? 1 : 0;
    return n;
  }
};

}  // namespace corvane::testing
