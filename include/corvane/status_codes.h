// The status codes of the three layers (authenticator, ASM, SDK), the authenticator-info states,
// and the fixed tables that carry a code from one layer to the next.
#pragma once

#include <cstdint>
#include <string_view>

namespace corvane {

// SDK layer: what the host application receives.
enum class CorvaneStatusCode : int64_t {
  NO_ERROR = 0,
  UNKNOWN = 10000,
  AUTHENTICATOR_ACCESS_DENIED = 20000,
  USER_NOT_ENROLLED = 20001,
  USER_LOCKOUT = 20002,
  USER_HAS_ENROLLED = 20003,
  KEY_DISAPPEARED_PERMANENTLY = 20004,
  INSUFFICIENT_AUTHENTICATOR_RESOURCES = 20005,
  USER_BIOMETRY_NOT_CURRENT_SET = 20006,
  USER_BIOMETRY_TEMP_LOCKOUT = 20007,
  USER_BIOMETRY_TIMEOUT = 20008,
  USER_PATTERN_LOCK_ATTEMPT_FAIL = 20009,
  USER_PATTERN_LOCK_TEMP_LOCKOUT = 20010,
  USER_CANCELLED = 30000,
  USER_NOT_RESPONSIVE = 30001,
  DISALLOW_POLICY = 40000,
  PRECONDITION_FAILED = 40001,
  NO_SUITABLE_AUTHENTICATOR = 40002,
  DEVICE_NOT_SUPPORTED = 40003,
  NO_ACTIVE_AUTHENTICATOR = 40004,
  PATTERN_LOCK_INVALID_POLICY = 40005,
  UNTRUSTED_FACET_ID = 50000,
  UNSUPPORTED_VERSION = 50001,
  MISS_REQUIRED_FIELD = 60000,
  INVALID_ARGUMENT = 60001,
  INVALID_TRANSACTION_CONTENT = 60002,
};

// ASM layer: the statusCode of every ASM response. 5 to 8 are unassigned.
enum class AsmStatusCode : int64_t {
  ASM_STATUS_OK = 0,
  ASM_STATUS_ERROR = 1,
  ASM_STATUS_ACCESS_DENIED = 2,
  ASM_STATUS_USER_CANCELLED = 3,
  ASM_STATUS_CANNOT_RENDER_TRANSACTION_CONTENT = 4,
  ASM_STATUS_KEY_DISAPPEARED_PERMANENTLY = 9,
  ASM_STATUS_NO_MATCHED_AUTHENTICATOR = 10,
  ASM_STATUS_USER_NOT_RESPONSIVE = 11,
  ASM_STATUS_STORAGE_DATA_MISSING = 12,
  ASM_STATUS_USER_LOCKOUT = 13,
  ASM_STATUS_USER_NOT_ENROLLED = 14,
  ASM_STATUS_DEVICE_NOT_SUPPORTED = 15,
  ASM_STATUS_BIOMETRY_NOT_CURRENT_SET = 16,
  ASM_STATUS_PATTERN_LOCK_INVALID_POLICY = 17,
  ASM_STATUS_PATTERN_LOCK_TEMP_LOCKOUT = 18,
  ASM_STATUS_PATTERN_LOCK_ATTEMPT_FAIL = 19,
  ASM_STATUS_NO_ACTIVE_AUTHENTICATOR = 20,
};

// Authenticator layer: the statusCode of register and sign responses.
enum class AuthenticatorStatusCode : int64_t {
  AUTHNR_STATUS_OK = 0,
  AUTHNR_STATUS_ERR_UNKNOWN = 1,
  AUTHNR_STATUS_ACCESS_DENIED = 2,
  AUTHNR_STATUS_USER_NOT_ENROLLED = 3,
  AUTHNR_STATUS_CANNOT_RENDER_TRANSACTION_CONTENT = 4,
  AUTHNR_STATUS_USER_CANCELLED = 5,
  AUTHNR_STATUS_CMD_NOT_SUPPORTED = 6,
  AUTHNR_STATUS_ATTESTATION_NOT_SUPPORTED = 7,
  AUTHNR_STATUS_PARAMS_INVALID = 8,
  AUTHNR_STATUS_KEY_DISAPPEARED_PERMANENTLY = 9,
  AUTHNR_STATUS_TIMEOUT = 10,
  AUTHNR_STATUS_USER_NOT_RESPONSIVE = 11,
  AUTHNR_STATUS_INSUFFICIENT_RESOURCES = 12,
  AUTHNR_STATUS_USER_LOCKOUT = 13,
  AUTHNR_STATUS_DEVICE_NOT_SUPPORTED = 14,
  AUTHNR_STATUS_BIOMETRY_NOT_CURRENT_SET = 15,
  AUTHNR_STATUS_PATTERN_LOCK_INVALID_POLICY = 16,
  AUTHNR_STATUS_PATTERN_LOCK_TEMP_LOCKOUT = 17,
  AUTHNR_STATUS_PATTERN_LOCK_ATTEMPT_FAIL = 18,
};

// The state of one authenticator in discovery results. There is no value 0.
enum class AuthenticatorInfoStatus : int64_t {
  AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED = 1,
  AUTHENTICATORINFO_STATUS_SUPPORTED_DEVICE = 2,
  AUTHENTICATORINFO_STATUS_PRECONDITION_FAILED = 3,
  AUTHENTICATORINFO_STATUS_USER_ENROLLED = 4,
  AUTHENTICATORINFO_STATUS_USER_LOCKOUT = 5,
  AUTHENTICATORINFO_STATUS_USER_NOT_ENROLLED = 6,
};

// The numeric value of any of the code enums above.
template <typename Code>
constexpr int64_t code(Code c) {
  return static_cast<int64_t>(c);
}

struct CorvaneStatusCodeTranslator {
  // The SDK code's name ("NO_ERROR", ...); the empty text for any value not in the table.
  static std::string_view convertToString(int64_t code);
};

struct AsmStatusCodeTranslater {
  // ASM code to SDK code; anything above 20, negative values included, gives 10000.
  static int64_t translate(int64_t asmCode);
};

struct AuthenticatorStatusCodeTranslator {
  // Authenticator code to ASM code; anything above 18, negative values included, gives 1.
  static int64_t translate(int64_t authenticatorCode);
};

struct AuthenticatorInfoStatusCodeTranslator {
  // The state's name; the empty text for any value outside 1 to 6.
  static std::string_view convertToString(int64_t status);
};

}  // namespace corvane
