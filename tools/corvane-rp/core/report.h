// Report: the named checks of one verification, in the order they ran. Each check has a stable
// name (docs/relying-party.md lists them) so that a caller can tell which one refused a response.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::rp {

struct CheckResult {
  std::string name;
  bool ok = false;
  std::string reason;  // why it failed; empty when it passed
};

class Report {
 public:
  void pass(std::string_view name) { checks_.push_back({std::string(name), true, {}}); }
  // Records the failure and returns false, so a caller can write `return report.fail(...)`.
  bool fail(std::string_view name, std::string reason) {
    checks_.push_back({std::string(name), false, std::move(reason)});
    return false;
  }
  // Passes when `ok`, else fails with `reason`; returns `ok`.
  bool check(std::string_view name, bool ok, std::string reason) {
    return ok ? (pass(name), true) : fail(name, std::move(reason));
  }

  bool ok() const { return failed() == 0 && !checks_.empty(); }
  size_t passed() const { return checks_.size() - failed(); }
  size_t failed() const {
    size_t count = 0;
    for (const CheckResult& c : checks_) count += c.ok ? 0 : 1;
    return count;
  }
  // The name of the first check that failed.
  std::optional<std::string> firstFailure() const {
    for (const CheckResult& c : checks_) {
      if (!c.ok) return c.name;
    }
    return std::nullopt;
  }
  const std::vector<CheckResult>& checks() const { return checks_; }

  // "ok NAME" or "FAIL NAME: reason", one line per check, then "N passed, M failed".
  std::string text() const {
    std::string out;
    for (const CheckResult& c : checks_) {
      out += c.ok ? "ok " + c.name : "FAIL " + c.name + ": " + c.reason;
      out += '\n';
    }
    out += std::to_string(passed()) + " passed, " + std::to_string(failed()) + " failed\n";
    return out;
  }

 private:
  std::vector<CheckResult> checks_;
};

}  // namespace corvane::rp
