// The Linux BiometryPort over fprintd, the fingerprint daemon of the desktop, on the system D-Bus
// (sd-bus). It uses the first reader fprintd lists and the prints enrolled for the user of this
// process (fprintd's own tools, such as fprintd-enroll, or the desktop's settings enrol them).
//
//   availability     no fprintd or no reader: notAvailable; no enrolled finger: notEnrolled; a
//                    daemon that refuses or answers oddly: other; else available
//   biometryType     fingerprint when fprintd lists a reader, none otherwise
//   enrolmentState   SHA-256 of the reader's name and the sorted names of the enrolled fingers;
//                    absent without a reader or without an enrolled finger
//   protectItem      seals (AES-256-GCM under the store key) the value, the binding and, for
//                    currentEnrolmentSet, the enrolment token; no prompt
//   readProtectedItem  opens the seal; an item bound to an enrolment that is no longer current
//                    answers notFound without a scan; otherwise claims the reader, runs one
//                    verification against any enrolled finger and gives the value only on a
//                    match; the reader is released on every path
//
// fprintd shows nothing itself: `onPrompt`, when set, receives the prompt text as the scan starts
// (the host shows it). A scan that does not come within the time-out ends as a failure.
//
// Thread-safety: every call opens a bus connection of its own, so availability(), biometryType()
// and enrolmentState() may run on any thread at the same time; protectItem() and
// readProtectedItem() serve one caller at a time, and readProtectedItem() blocks until the scan
// has ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/ports/biometry.h"
#include "corvane/secret_bytes.h"
#include "linux/store_key.h"

namespace corvane::linux_platform {

class FprintdBiometry final : public BiometryPort {
 public:
  struct Options {
    // Longest wait for a finger once the reader is claimed.
    std::chrono::milliseconds scanTimeout{std::chrono::seconds(30)};
    // Called with the prompt text when a scan starts (on the thread that reads the item).
    std::function<void(std::string_view prompt)> onPrompt;
  };

  FprintdBiometry(std::shared_ptr<const StoreKey> storeKey, Options options);

  BiometryAvailability availability() const override;
  BiometryType biometryType() const override;
  [[nodiscard]] std::optional<std::vector<uint8_t>> enrolmentState() const override;
  BiometryStatus protectItem(const SecretBytes& value, BiometryBinding binding,
                             std::vector<uint8_t>* protectedForm) override;
  BiometryStatus readProtectedItem(std::span<const uint8_t> protectedForm, std::string_view prompt,
                                   SecretBytes* value) override;

 private:
  std::shared_ptr<const StoreKey> storeKey_;
  Options options_;
};

}  // namespace corvane::linux_platform
