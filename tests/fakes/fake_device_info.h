// A DeviceInfo for tests: fixed texts that a test can change, and a count of model reads.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "corvane/ports/device_info.h"

namespace corvane::testing {

class FakeDeviceInfo final : public corvane::DeviceInfo {
 public:
  explicit FakeDeviceInfo(std::string model = "iPhone14,2", std::string version = "16.4")
      : model_(std::move(model)), version_(std::move(version)) {}

  std::string modelIdentifier() const override {
    ++modelReads_;
    return model_;
  }
  std::string systemVersion() const override { return version_; }
  PasscodeState passcodeState() const override { return passcode_; }

  void setModel(std::string model) { model_ = std::move(model); }
  void setPasscodeState(PasscodeState state) { passcode_ = state; }
  int modelReads() const { return modelReads_; }

 private:
  std::string model_;
  std::string version_;
  PasscodeState passcode_ = PasscodeState::set;
  mutable std::atomic<int> modelReads_{0};
};

}  // namespace corvane::testing
