// The Linux DeviceInfo: the kernel's own description of the machine, from uname(2).
#pragma once

#include <string>

#include "corvane/ports/device_info.h"

namespace corvane::linux_platform {

// modelIdentifier() is uname's `machine` field (the hardware name, such as "x86_64" or
// "aarch64"), the counterpart of a phone's hardware model identifier. systemVersion() is uname's
// `release` field (the kernel release, such as "6.1.0-18-amd64"): the version text of the system
// the library runs on. Both answer "unknown" should uname fail, so that neither is ever empty.
// Thread-safety: stateless; every method may be called from any thread at the same time.
class LinuxDeviceInfo final : public DeviceInfo {
 public:
  static constexpr const char* kUnknown = "unknown";

  std::string modelIdentifier() const override;
  std::string systemVersion() const override;
};

}  // namespace corvane::linux_platform
