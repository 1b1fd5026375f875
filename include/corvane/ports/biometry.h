// BiometryPort: the port to the device's biometry (a fingerprint reader or a face sensor).
//
// It answers whether biometry can be used now, which kind the device has and a token of the
// current enrolment, and it protects small secrets so that they can be read back only after the
// user passes a biometric prompt.
//
// Where protected items live: in the ItemStore, like every other item of the library. The port
// turns a secret into an opaque protected form (protectItem) and back (readProtectedItem, which
// runs the prompt). The protected form is not secret by itself: it is either a reference to
// material the port keeps (a key that only opens after the prompt, bound to the enrolment as asked)
// or ciphertext under such a key. Keeping the items in the ItemStore means the label-wide wipes,
// listings and deletes of the library reach them without asking the port. A phone port backs
// protectItem with a hardware key created with the biometry access-control flag and opens it with
// the prompt text as the dialogue's reason; docs/keychain.md says more.
//
// Binding: an item bound to `anyEnrolment` stays readable when fingers or faces are added or
// removed; an item bound to `currentEnrolmentSet` answers `notFound` as soon as the enrolment has
// changed since it was protected, without showing a prompt, exactly as a platform keychain answers
// errSecItemNotFound for an item whose biometric binding was invalidated.
//
// Thread-safety: availability(), biometryType() and enrolmentState() may be called from any thread
// at the same time. protectItem() and readProtectedItem() serve one caller at a time (calls must
// not overlap); readProtectedItem() blocks until the prompt has ended, so call it off the main
// queue.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "corvane/secret_bytes.h"

namespace corvane {

// Whether biometric verification can run now (the platform's availability test). The values are
// the platform's own codes, so that a port can pass on what its platform answered and a reader of
// a log sees the number the platform documents.
enum class BiometryAvailability : int32_t {
  available = 0,
  passcodeNotSet = -5,  // biometry needs a device passcode and there is none
  notAvailable = -6,    // no reader, or the reader cannot be used (the "not supported" case)
  notEnrolled = -7,     // a reader but no finger or face enrolled
  lockout = -8,         // too many failed attempts; the device passcode must be entered first
  other = -1000,        // any other reason (the daemon failed, an unknown answer)
};

enum class BiometryType { none, fingerprint, face };

// What a protected item is bound to; the values are the platform's access-control flags.
enum class BiometryBinding : uint32_t {
  anyEnrolment = 2,         // any finger or face enrolled now or later
  currentEnrolmentSet = 8,  // only the enrolment as it was when the item was protected
};

// Outcome of protecting or reading an item.
enum class BiometryStatus {
  ok,
  notFound,              // the protected form is unknown, or its enrolment binding is invalidated
  userCancel,            // the user dismissed the prompt
  authenticationFailed,  // the prompt ran and the user was not recognised
  notAvailable,          // biometry cannot be used now (no reader, not enrolled, locked out)
  failure,               // anything else
};

class BiometryPort {
 public:
  virtual ~BiometryPort() = default;

  virtual BiometryAvailability availability() const = 0;
  virtual BiometryType biometryType() const = 0;
  // An opaque token that changes whenever the enrolled fingers or faces change; absent when the
  // device has no usable biometry.
  [[nodiscard]] virtual std::optional<std::vector<uint8_t>> enrolmentState() const = 0;

  // Turns `value` into its protected form (into `protectedForm` when not null), bound as asked.
  // Shows no prompt.
  virtual BiometryStatus protectItem(const SecretBytes& value, BiometryBinding binding,
                                     std::vector<uint8_t>* protectedForm) = 0;

  // Shows the biometric prompt with `prompt` as its text and, when the user passes it, writes the
  // secret into `value` (when not null). `notFound` without a prompt when the protected form is
  // unknown or its binding no longer holds.
  virtual BiometryStatus readProtectedItem(std::span<const uint8_t> protectedForm,
                                           std::string_view prompt, SecretBytes* value) = 0;
};

}  // namespace corvane
