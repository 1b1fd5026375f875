// The Linux DeviceInfo: the kernel's own description of the machine, from uname(2).
#pragma once

#include <string>

#include "corvane/ports/device_info.h"

namespace corvane::linux_platform {

// modelIdentifier() is uname's `machine` field (the hardware name, such as "x86_64" or
// "aarch64"), the counterpart of a phone's hardware model identifier. systemVersion() is uname's
// `release` field (the kernel release, such as "6.1.0-18-amd64"): the version text of the system
// the library runs on. Both answer "unknown" should uname fail, so that neither is ever empty.
// passcodeState() is `set` unless the platform options say otherwise: on Linux the login session
// is the device lock (the user authenticated to it, and the session locks with the screen), so a
// running session counts as a set passcode. A host for a kiosk or an unlocked session can say
// `notSet` through LinuxPlatformOptions::passcodeSet.
// Thread-safety: immutable; every method may be called from any thread at the same time.
class LinuxDeviceInfo final : public DeviceInfo {
 public:
  static constexpr const char* kUnknown = "unknown";

  explicit LinuxDeviceInfo(bool passcodeSet = true) : passcodeSet_(passcodeSet) {}

  std::string modelIdentifier() const override;
  std::string systemVersion() const override;
  PasscodeState passcodeState() const override {
    return passcodeSet_ ? PasscodeState::set : PasscodeState::notSet;
  }

 private:
  bool passcodeSet_;
};

}  // namespace corvane::linux_platform
