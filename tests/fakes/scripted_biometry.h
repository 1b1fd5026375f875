// ScriptedBiometry: a BiometryPort for tests. Prompts answer from a queue of outcomes the test
// sets up; the enrolment can be changed; every call is recorded with its prompt text. Protected
// items stay in memory and the protected form is a handle to them. Single-threaded, like the tests.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/ports/biometry.h"

namespace corvane::testing {

class ScriptedBiometry final : public BiometryPort {
 public:
  // How the next prompt ends. `lockout`: the user is not recognised once too often and the
  // platform locks biometry (availability becomes lockout).
  enum class Prompt { success, userCancel, failed, lockout };
  enum class Op { protect, read };
  struct Call {
    Op op;
    std::string prompt;  // empty for protect
    bool prompted;       // whether a prompt was shown
    BiometryStatus status;
  };

  // Fault switches and settings.
  void setAvailability(BiometryAvailability availability) { availability_ = availability; }
  void setBiometryType(BiometryType type) { type_ = type; }
  void failProtect(bool fail) { failProtect_ = fail; }

  void queuePrompt(Prompt outcome) { prompts_.push_back(outcome); }
  size_t pendingPrompts() const { return prompts_.size(); }
  // A finger or face was added or removed: the enrolment token changes and items bound to the
  // current enrolment set stop opening.
  void changeEnrolment() { ++enrolment_; }

  const std::vector<Call>& calls() const { return calls_; }
  // The texts of the prompts shown, in order.
  std::vector<std::string> promptsShown() const {
    std::vector<std::string> shown;
    for (const Call& call : calls_) {
      if (call.prompted) shown.push_back(call.prompt);
    }
    return shown;
  }
  // Reads that found no scripted outcome (a test that forgot to queue one).
  int unscriptedPrompts() const { return unscripted_; }
  size_t itemCount() const { return items_.size(); }

  BiometryAvailability availability() const override { return availability_; }
  BiometryType biometryType() const override { return type_; }
  std::optional<std::vector<uint8_t>> enrolmentState() const override {
    if (availability_ == BiometryAvailability::notAvailable || type_ == BiometryType::none) {
      return std::nullopt;
    }
    return encodeHandle(enrolment_);
  }

  BiometryStatus protectItem(const SecretBytes& value, BiometryBinding binding,
                             std::vector<uint8_t>* protectedForm) override {
    if (failProtect_) return record(Op::protect, "", false, BiometryStatus::failure);
    const uint64_t handle = ++lastHandle_;
    items_[handle] = Item{value, binding, enrolment_};
    if (protectedForm != nullptr) *protectedForm = encodeHandle(handle);
    return record(Op::protect, "", false, BiometryStatus::ok);
  }

  BiometryStatus readProtectedItem(std::span<const uint8_t> protectedForm, std::string_view prompt,
                                   SecretBytes* value) override {
    const std::optional<uint64_t> handle = decodeHandle(protectedForm);
    auto item = handle ? items_.find(*handle) : items_.end();
    if (item == items_.end()) return record(Op::read, prompt, false, BiometryStatus::notFound);
    if (item->second.binding == BiometryBinding::currentEnrolmentSet &&
        item->second.enrolment != enrolment_) {
      return record(Op::read, prompt, false, BiometryStatus::notFound);
    }
    if (availability_ != BiometryAvailability::available) {
      return record(Op::read, prompt, false, BiometryStatus::notAvailable);
    }
    if (prompts_.empty()) {
      ++unscripted_;
      return record(Op::read, prompt, true, BiometryStatus::failure);
    }
    const Prompt outcome = prompts_.front();
    prompts_.pop_front();
    switch (outcome) {
      case Prompt::success:
        if (value != nullptr) *value = item->second.value;
        return record(Op::read, prompt, true, BiometryStatus::ok);
      case Prompt::userCancel:
        return record(Op::read, prompt, true, BiometryStatus::userCancel);
      case Prompt::lockout:
        availability_ = BiometryAvailability::lockout;
        return record(Op::read, prompt, true, BiometryStatus::notAvailable);
      case Prompt::failed:
        break;
    }
    return record(Op::read, prompt, true, BiometryStatus::authenticationFailed);
  }

 private:
  struct Item {
    SecretBytes value;
    BiometryBinding binding;
    uint64_t enrolment;
  };
  static constexpr uint8_t kMagic[2] = {'S', 'B'};

  static std::vector<uint8_t> encodeHandle(uint64_t handle) {
    std::vector<uint8_t> out(std::begin(kMagic), std::end(kMagic));
    for (int shift = 56; shift >= 0; shift -= 8)
      out.push_back(static_cast<uint8_t>(handle >> shift));
    return out;
  }
  static std::optional<uint64_t> decodeHandle(std::span<const uint8_t> form) {
    if (form.size() != 10 || form[0] != kMagic[0] || form[1] != kMagic[1]) return std::nullopt;
    uint64_t handle = 0;
    for (size_t i = 2; i < form.size(); ++i) handle = (handle << 8) | form[i];
    return handle;
  }

  BiometryStatus record(Op op, std::string_view prompt, bool prompted, BiometryStatus status) {
    calls_.push_back({op, std::string(prompt), prompted, status});
    return status;
  }

  BiometryAvailability availability_ = BiometryAvailability::available;
  BiometryType type_ = BiometryType::fingerprint;
  bool failProtect_ = false;
  std::deque<Prompt> prompts_;
  std::map<uint64_t, Item> items_;
  std::vector<Call> calls_;
  uint64_t enrolment_ = 1;
  uint64_t lastHandle_ = 0;
  int unscripted_ = 0;
};

}  // namespace corvane::testing
