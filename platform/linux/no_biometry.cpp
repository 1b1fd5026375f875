#include "linux/no_biometry.h"

namespace corvane::linux_platform {

BiometryAvailability NoBiometry::availability() const {
  return BiometryAvailability::notAvailable;
}

BiometryType NoBiometry::biometryType() const {
  return BiometryType::none;
}

std::optional<std::vector<uint8_t>> NoBiometry::enrolmentState() const {
  return std::nullopt;
}

BiometryStatus NoBiometry::protectItem(const SecretBytes&, BiometryBinding, std::vector<uint8_t>*) {
  return BiometryStatus::notAvailable;
}

BiometryStatus NoBiometry::readProtectedItem(std::span<const uint8_t>, std::string_view,
                                             SecretBytes*) {
  return BiometryStatus::notAvailable;
}

}  // namespace corvane::linux_platform
