#include <corvane/status_codes.h>

#include <array>
#include <utility>

namespace corvane {
namespace {

constexpr std::pair<int64_t, std::string_view> kCorvaneNames[] = {
    {0, "NO_ERROR"},
    {10000, "UNKNOWN"},
    {20000, "AUTHENTICATOR_ACCESS_DENIED"},
    {20001, "USER_NOT_ENROLLED"},
    {20002, "USER_LOCKOUT"},
    {20003, "USER_HAS_ENROLLED"},
    {20004, "KEY_DISAPPEARED_PERMANENTLY"},
    {20005, "INSUFFICIENT_AUTHENTICATOR_RESOURCES"},
    {20006, "USER_BIOMETRY_NOT_CURRENT_SET"},
    {20007, "USER_BIOMETRY_TEMP_LOCKOUT"},
    {20008, "USER_BIOMETRY_TIMEOUT"},
    {20009, "USER_PATTERN_LOCK_ATTEMPT_FAIL"},
    {20010, "USER_PATTERN_LOCK_TEMP_LOCKOUT"},
    {30000, "USER_CANCELLED"},
    {30001, "USER_NOT_RESPONSIVE"},
    {40000, "DISALLOW_POLICY"},
    {40001, "PRECONDITION_FAILED"},
    {40002, "NO_SUITABLE_AUTHENTICATOR"},
    {40003, "DEVICE_NOT_SUPPORTED"},
    {40004, "NO_ACTIVE_AUTHENTICATOR"},
    {40005, "PATTERN_LOCK_INVALID_POLICY"},
    {50000, "UNTRUSTED_FACET_ID"},
    {50001, "UNSUPPORTED_VERSION"},
    {60000, "MISS_REQUIRED_FIELD"},
    {60001, "INVALID_ARGUMENT"},
    {60002, "INVALID_TRANSACTION_CONTENT"},
};

// Indexed by ASM code 0 to 20.
constexpr std::array<int64_t, 21> kAsmToSdk = {
    0,     10000, 20000, 30000, 60002, 10000, 10000, 10000, 10000, 20004, 40002,
    30001, 10000, 20002, 20001, 40003, 20006, 40005, 20010, 20009, 40004,
};

// Indexed by authenticator code 0 to 18. Code 6 (command not supported) maps to 0 on purpose.
constexpr std::array<int64_t, 19> kAuthenticatorToAsm = {
    0, 1, 2, 14, 4, 3, 0, 1, 1, 9, 1, 11, 12, 13, 15, 16, 17, 18, 19,
};

// Indexed by status 1 to 6; slot 0 is unused.
constexpr std::array<std::string_view, 7> kInfoNames = {
    "",
    "AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED",
    "AUTHENTICATORINFO_STATUS_SUPPORTED_DEVICE",
    "AUTHENTICATORINFO_STATUS_PRECONDITION_FAILED",
    "AUTHENTICATORINFO_STATUS_USER_ENROLLED",
    "AUTHENTICATORINFO_STATUS_USER_LOCKOUT",
    "AUTHENTICATORINFO_STATUS_USER_NOT_ENROLLED",
};

}  // namespace

std::string_view CorvaneStatusCodeTranslator::convertToString(int64_t code) {
  for (const auto& [value, name] : kCorvaneNames) {
    if (value == code) return name;
  }
  return {};
}

int64_t AsmStatusCodeTranslater::translate(int64_t asmCode) {
  // Compared as unsigned, so negative codes fall above the table too.
  const auto index = static_cast<uint64_t>(asmCode);
  return index < kAsmToSdk.size() ? kAsmToSdk[index] : 10000;
}

int64_t AuthenticatorStatusCodeTranslator::translate(int64_t authenticatorCode) {
  const auto index = static_cast<uint64_t>(authenticatorCode);
  return index < kAuthenticatorToAsm.size() ? kAuthenticatorToAsm[index] : 1;
}

std::string_view AuthenticatorInfoStatusCodeTranslator::convertToString(int64_t status) {
  const auto index = static_cast<uint64_t>(status);
  return index < kInfoNames.size() ? kInfoNames[index] : std::string_view();
}

}  // namespace corvane
