// DeviceInfo: the port that names the device the library runs on.
//
// Thread-safety: every method is const and may be called from any thread at the same time.
#pragma once

#include <string>

namespace corvane {

class DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;

  // The hardware model identifier (on Linux the `machine` field of uname, such as "x86_64"),
  // UTF-8; never empty on a working system.
  virtual std::string modelIdentifier() const = 0;
  // The operating system's version text.
  virtual std::string systemVersion() const = 0;

  // Whether the device's user has a passcode (or an equivalent login secret) that guards the
  // device: the pattern lock is offered only then. `unknown` when the device cannot tell.
  enum class PasscodeState { set, notSet, unknown };
  virtual PasscodeState passcodeState() const = 0;
};

}  // namespace corvane
