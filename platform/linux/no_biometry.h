// The Linux BiometryPort for a machine without a biometric reader: biometry is never available,
// so the biometric authenticator reports the device as not supported and nothing can be protected
// or read. Stateless; every method may be called from any thread at the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "corvane/ports/biometry.h"

namespace corvane::linux_platform {

class NoBiometry final : public BiometryPort {
 public:
  BiometryAvailability availability() const override;
  BiometryType biometryType() const override;
  [[nodiscard]] std::optional<std::vector<uint8_t>> enrolmentState() const override;
  BiometryStatus protectItem(const SecretBytes& value, BiometryBinding binding,
                             std::vector<uint8_t>* protectedForm) override;
  BiometryStatus readProtectedItem(std::span<const uint8_t> protectedForm, std::string_view prompt,
                                   SecretBytes* value) override;
};

}  // namespace corvane::linux_platform
