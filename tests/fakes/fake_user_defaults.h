// A UserDefaults for tests: values in memory plus a separate "stored" copy that only a successful
// synchronize() updates, so a test can tell what would survive a restart. Records every call and
// can be made to fail synchronize() always or on its n-th call. Single-threaded.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "corvane/error.h"
#include "corvane/platform.h"
#include "corvane/status_codes.h"

namespace corvane::testing {

class FakeUserDefaults final : public corvane::UserDefaults {
 public:
  using Value = std::variant<bool, std::string>;

  mutable std::vector<std::string> calls;  // "getBool key", "setString key value", "synchronize"

  // Fault switches.
  std::optional<Error> failLoad;  // what loadError() answers
  bool failSynchronize = false;
  int failSynchronizeOnCall = 0;  // 1-based call number that fails; 0 for none

  std::map<std::string, Value, std::less<>> values;  // what readers see now
  std::map<std::string, Value, std::less<>> stored;  // what the last successful flush wrote
  int synchronizeCalls = 0;

  bool getBool(std::string_view key) const override {
    calls.push_back("getBool " + std::string(key));
    auto it = values.find(key);
    return it != values.end() && std::holds_alternative<bool>(it->second) &&
           std::get<bool>(it->second);
  }
  void setBool(std::string_view key, bool value) override {
    calls.push_back("setBool " + std::string(key) + (value ? " true" : " false"));
    values.insert_or_assign(std::string(key), value);
  }
  std::optional<std::string> getString(std::string_view key) const override {
    calls.push_back("getString " + std::string(key));
    auto it = values.find(key);
    if (it == values.end() || !std::holds_alternative<std::string>(it->second)) {
      return std::nullopt;
    }
    return std::get<std::string>(it->second);
  }
  void setString(std::string_view key, std::string_view value) override {
    calls.push_back("setString " + std::string(key) + " " + std::string(value));
    values.insert_or_assign(std::string(key), std::string(value));
  }
  void remove(std::string_view key) override {
    calls.push_back("remove " + std::string(key));
    auto it = values.find(key);
    if (it != values.end()) values.erase(it);
  }
  std::optional<Error> loadError() const override { return failLoad; }
  bool synchronize(corvane::Error* error) override {
    calls.push_back("synchronize");
    ++synchronizeCalls;
    if (failSynchronize || synchronizeCalls == failSynchronizeOnCall) {
      corvane::setError(error,
                        corvane::Error::corvane(corvane::code(corvane::CorvaneStatusCode::UNKNOWN),
                                                "synchronize failed (fake)"));
      return false;
    }
    stored = values;
    return true;
  }
};

}  // namespace corvane::testing
