// PolicyHelper: decides whether one authenticator may take part in a registration or an
// authentication, by matching its description against the server policy's accepted list (a list
// of lists of match criteria: OR of ANDs) and disallowed list (a list of match criteria). It also
// tells whether a match-criteria object is well formed, and during registration notices that the
// server already holds a key of this authenticator.
//
// Criteria are handled in their decoded-JSON form, as the Policy message keeps them. Every
// comparison builds an ordered list of yes/no verdicts, one per criterion field that applies; a
// criterion matches only when that list is non-empty and holds no "no". The comparisons are
// static and pure (given the device model name), apart from checkDisallowUv, which narrows the
// authenticator's `uvs` on purpose. The object adds the two things that reach outside: the device
// model name (DeviceInfo) and the ASM Deregister request of findServerEnrolledKeyid.
//
// Numbers in criteria are compared by numeric value: an integer, or a floating-point value with
// an integral value, equals the same unsigned integer. A negative or fractional value, a number
// beyond 64 bits and a value of any other JSON type (including null) equals no authenticator
// value and shares no bit with one; a field holding such a value still applies, and so adds "no".
//
// Not thread-safe to share one AuthenticatorInfo between calls running at the same time; the
// helper itself holds no mutable state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "asm/asm_records.h"
#include "authenticator/authenticator_info.h"
#include "corvane/error.h"
#include "corvane/ports/device_info.h"

namespace corvane {

// User-verification bits read by name here (UAF registry values).
inline constexpr uint64_t USER_VERIFY_FINGERPRINT = 0x2;
inline constexpr uint64_t USER_VERIFY_FACEPRINT = 0x10;
inline constexpr uint64_t USER_VERIFY_PATTERN = 0x80;
inline constexpr uint64_t USER_VERIFY_ALL = 0x400;

// The "match_model" data that matches every device of the platform family.
inline constexpr std::string_view kMatchModelAllDevices = "ALL_iOS";

// The two policy refusals (code 40000); "%@" stands for the authenticator's aaid.
inline constexpr std::string_view kPolicyNotAllowedFormat = "aaid:%@ policy not allowed. ";
inline constexpr std::string_view kNoAcceptedPolicyFormat =
    "aaid:%@ not matched with any accepted policy. ";

class PolicyHelper {
 public:
  // `deviceInfo` must outlive the helper. `asmRequestRunner` executes the Deregister request of
  // findServerEnrolledKeyid synchronously; an empty runner sends nothing.
  PolicyHelper(const DeviceInfo& deviceInfo, AsmRequestRunner asmRequestRunner);

  // Whether `authenticator` may be used under the policy lists. `allowPolicy` is the accepted
  // list (array of arrays of criteria), `disallowPolicy` the disallowed list (array of criteria);
  // absent, null or any other non-array value counts as an absent list, and null entries inside
  // them are skipped. False without an error for a null authenticator; false with a
  // DISALLOW_POLICY (40000) error when a disallowed criterion matches or no accepted inner list
  // holds. May narrow `authenticator->uvs` (checkDisallowUv) and may send an ASM Deregister
  // (findServerEnrolledKeyid) for the user's registrations under `appID`.
  bool checkPolicy(AuthenticatorInfo* authenticator,
                   const std::optional<nlohmann::json>& allowPolicy,
                   const std::optional<nlohmann::json>& disallowPolicy, bool isReg,
                   std::string_view username, std::string_view appID, Error* error = nullptr) const;

  // Whether the authenticator satisfies one accepted criterion (false for a null authenticator or
  // a criterion that is not a JSON object).
  bool compareAllowPolicy(const AuthenticatorInfo* authenticator,
                          const nlohmann::json& policy) const;
  static bool compareAllowPolicy(const AuthenticatorInfo* authenticator,
                                 const nlohmann::json& policy, std::string_view deviceModelName);

  // Whether one disallowed criterion disallows the authenticator. May narrow
  // `authenticator->uvs` through checkDisallowUv.
  bool compareDisallowPolicy(AuthenticatorInfo* authenticator, const nlohmann::json& policy) const;
  static bool compareDisallowPolicy(AuthenticatorInfo* authenticator, const nlohmann::json& policy,
                                    std::string_view deviceModelName);

  // Removes the user verifications the criterion's "userVerification" disallows from
  // `authenticator->uvs` ("pattern" for 0x80, "biometry" for 0x02 or 0x10) and writes the list
  // back whatever the result; true when the values match and no method is left. False and nothing
  // changed when the criterion has no unsigned "userVerification" or the authenticator's value is
  // zero or absent.
  static bool checkDisallowUv(AuthenticatorInfo* authenticator, const nlohmann::json& policy);

  // During a registration for an authenticator the user is enrolled on (status
  // AUTHENTICATORINFO_STATUS_USER_ENROLLED): true when a disallowed criterion names one of its
  // key IDs (the server knows the key). Otherwise the user's local registrations under the
  // request's application ID `appID` are stale and an ASM Deregister for `username` and `appID`
  // is sent (its response is discarded); false. Registrations under other application IDs belong
  // to other servers and stay; an empty user name or application ID sends nothing, since either
  // would widen the Deregister.
  bool findServerEnrolledKeyid(const AuthenticatorInfo* authenticator,
                               const std::optional<nlohmann::json>& disallowPolicy, bool isReg,
                               std::string_view username, std::string_view appID) const;

  // Whether a criteria object is well formed: types of every known key, the aaid exclusivity rule
  // and the extension entries. Plugs into PolicyCheckContext::checkMatchCriteriaValid.
  static bool checkMatchCriteriaValid(const nlohmann::json& criteria);

  // The device's hardware model identifier.
  std::string getDeviceModelName() const;

 private:
  const DeviceInfo& deviceInfo_;
  AsmRequestRunner asmRequestRunner_;
};

}  // namespace corvane
