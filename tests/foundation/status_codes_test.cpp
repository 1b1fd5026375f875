#include <corvane/error.h>
#include <corvane/secret_bytes.h>
#include <corvane/status_codes.h>
#include <gtest/gtest.h>
#include "foundation/utils.h"

#include <limits>
#include <sstream>

namespace corvane {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(StatusCodeTest, AuthenticatorToAsmTableInFull) {
  const int64_t expected[] = {0, 1, 2, 14, 4, 3, 0, 1, 1, 9, 1, 11, 12, 13, 15, 16, 17, 18, 19};
  for (int64_t code = 0; code <= 18; ++code) {
    EXPECT_EQ(AuthenticatorStatusCodeTranslator::translate(code), expected[code]) << code;
  }
  for (int64_t code : {int64_t{19}, int64_t{-1}, int64_t{1000}, kMin, kMax}) {
    EXPECT_EQ(AuthenticatorStatusCodeTranslator::translate(code), 1) << code;
  }
}

TEST(StatusCodeTest, AsmToSdkTableInFull) {
  const int64_t expected[] = {0,     10000, 20000, 30000, 60002, 10000, 10000,
                              10000, 10000, 20004, 40002, 30001, 10000, 20002,
                              20001, 40003, 20006, 40005, 20010, 20009, 40004};
  for (int64_t code = 0; code <= 20; ++code) {
    EXPECT_EQ(AsmStatusCodeTranslater::translate(code), expected[code]) << code;
  }
  for (int64_t code : {int64_t{21}, int64_t{-1}, int64_t{1} << 40, kMin, kMax}) {
    EXPECT_EQ(AsmStatusCodeTranslater::translate(code), 10000) << code;
  }
}

TEST(StatusCodeTest, SdkNamesMatchEnumValues) {
  const std::pair<CorvaneStatusCode, std::string_view> names[] = {
      {CorvaneStatusCode::NO_ERROR, "NO_ERROR"},
      {CorvaneStatusCode::UNKNOWN, "UNKNOWN"},
      {CorvaneStatusCode::AUTHENTICATOR_ACCESS_DENIED, "AUTHENTICATOR_ACCESS_DENIED"},
      {CorvaneStatusCode::USER_NOT_ENROLLED, "USER_NOT_ENROLLED"},
      {CorvaneStatusCode::USER_LOCKOUT, "USER_LOCKOUT"},
      {CorvaneStatusCode::USER_HAS_ENROLLED, "USER_HAS_ENROLLED"},
      {CorvaneStatusCode::KEY_DISAPPEARED_PERMANENTLY, "KEY_DISAPPEARED_PERMANENTLY"},
      {CorvaneStatusCode::INSUFFICIENT_AUTHENTICATOR_RESOURCES,
       "INSUFFICIENT_AUTHENTICATOR_RESOURCES"},
      {CorvaneStatusCode::USER_BIOMETRY_NOT_CURRENT_SET, "USER_BIOMETRY_NOT_CURRENT_SET"},
      {CorvaneStatusCode::USER_BIOMETRY_TEMP_LOCKOUT, "USER_BIOMETRY_TEMP_LOCKOUT"},
      {CorvaneStatusCode::USER_BIOMETRY_TIMEOUT, "USER_BIOMETRY_TIMEOUT"},
      {CorvaneStatusCode::USER_PATTERN_LOCK_ATTEMPT_FAIL, "USER_PATTERN_LOCK_ATTEMPT_FAIL"},
      {CorvaneStatusCode::USER_PATTERN_LOCK_TEMP_LOCKOUT, "USER_PATTERN_LOCK_TEMP_LOCKOUT"},
      {CorvaneStatusCode::USER_CANCELLED, "USER_CANCELLED"},
      {CorvaneStatusCode::USER_NOT_RESPONSIVE, "USER_NOT_RESPONSIVE"},
      {CorvaneStatusCode::DISALLOW_POLICY, "DISALLOW_POLICY"},
      {CorvaneStatusCode::PRECONDITION_FAILED, "PRECONDITION_FAILED"},
      {CorvaneStatusCode::NO_SUITABLE_AUTHENTICATOR, "NO_SUITABLE_AUTHENTICATOR"},
      {CorvaneStatusCode::DEVICE_NOT_SUPPORTED, "DEVICE_NOT_SUPPORTED"},
      {CorvaneStatusCode::NO_ACTIVE_AUTHENTICATOR, "NO_ACTIVE_AUTHENTICATOR"},
      {CorvaneStatusCode::PATTERN_LOCK_INVALID_POLICY, "PATTERN_LOCK_INVALID_POLICY"},
      {CorvaneStatusCode::UNTRUSTED_FACET_ID, "UNTRUSTED_FACET_ID"},
      {CorvaneStatusCode::UNSUPPORTED_VERSION, "UNSUPPORTED_VERSION"},
      {CorvaneStatusCode::MISS_REQUIRED_FIELD, "MISS_REQUIRED_FIELD"},
      {CorvaneStatusCode::INVALID_ARGUMENT, "INVALID_ARGUMENT"},
      {CorvaneStatusCode::INVALID_TRANSACTION_CONTENT, "INVALID_TRANSACTION_CONTENT"},
  };
  EXPECT_EQ(code(CorvaneStatusCode::USER_PATTERN_LOCK_ATTEMPT_FAIL), 20009);
  EXPECT_EQ(code(CorvaneStatusCode::USER_PATTERN_LOCK_TEMP_LOCKOUT), 20010);
  EXPECT_EQ(code(CorvaneStatusCode::NO_ACTIVE_AUTHENTICATOR), 40004);
  EXPECT_EQ(code(CorvaneStatusCode::PATTERN_LOCK_INVALID_POLICY), 40005);
  for (const auto& [status, name] : names) {
    EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(code(status)), name);
  }
  for (int64_t unnamed : {int64_t{20011}, int64_t{1}, int64_t{40006}, int64_t{-1}, kMin, kMax}) {
    EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(unnamed), "") << unnamed;
  }
}

TEST(StatusCodeTest, AuthenticatorInfoNames) {
  const std::string_view names[] = {
      "AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED", "AUTHENTICATORINFO_STATUS_SUPPORTED_DEVICE",
      "AUTHENTICATORINFO_STATUS_PRECONDITION_FAILED",  "AUTHENTICATORINFO_STATUS_USER_ENROLLED",
      "AUTHENTICATORINFO_STATUS_USER_LOCKOUT",         "AUTHENTICATORINFO_STATUS_USER_NOT_ENROLLED",
  };
  for (int64_t status = 1; status <= 6; ++status) {
    EXPECT_EQ(AuthenticatorInfoStatusCodeTranslator::convertToString(status), names[status - 1]);
  }
  for (int64_t status : {int64_t{0}, int64_t{7}, int64_t{-1}, kMin, kMax}) {
    EXPECT_EQ(AuthenticatorInfoStatusCodeTranslator::convertToString(status), "") << status;
  }
}

TEST(ErrorTest, CarriesDomainCodeAndOptionalMessage) {
  const Error bare = Error::corvane(60001);
  EXPECT_EQ(bare.domain(), "CORVANEErrorDomain");
  EXPECT_FALSE(bare.message().has_value());
  EXPECT_EQ(bare.localizedDescription(), "");
  const Error withEmpty = Error::corvane(60001, "");
  EXPECT_NE(bare, withEmpty);  // an empty message is still a message
  const Error gcm(kIAGErrorDomain, 2);
  EXPECT_EQ(gcm.domain(), "IAGErrorDomain");
  setError(nullptr, gcm);  // a null slot is allowed
  Error slot;
  setError(&slot, gcm);
  EXPECT_EQ(slot, gcm);
}

TEST(SecretBytesTest, EqualityAndWiping) {
  SecretBytes a = SecretBytes::fromText("correct horse");
  SecretBytes b = SecretBytes::fromText("correct horse");
  SecretBytes c = SecretBytes::fromText("correct horsf");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a == c);
  EXPECT_FALSE(a == SecretBytes::fromText("correct hors"));
  EXPECT_TRUE(SecretBytes() == SecretBytes(0));

  a.resize(7);
  EXPECT_EQ(a.exposeSecretText(), "correct");
  a.append(asBytes(" staple"));
  EXPECT_EQ(a.exposeSecretText(), "correct staple");
  a.clear();
  EXPECT_TRUE(a.empty());

  std::ostringstream printed;
  PrintTo(b, &printed);
  EXPECT_EQ(printed.str(), "SecretBytes(13 bytes)");
}

}  // namespace
}  // namespace corvane
