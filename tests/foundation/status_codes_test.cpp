#include <corvane/status_codes.h>
#include <gtest/gtest.h>

#include <limits>

namespace corvane {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TEST(StatusCodeTest, AuthenticatorToAsmTable) {
  const int64_t expected[] = {0, 1, 2, 14, 4, 3, 0, 1, 1, 9, 1, 11, 12, 13, 15, 16, 17, 18, 19};
  for (int64_t code = 0; code <= 18; ++code) {
    EXPECT_EQ(AuthenticatorStatusCodeTranslator::translate(code), expected[code]) << code;
  }
  for (int64_t code : {int64_t{19}, int64_t{-1}, kMin}) {
    EXPECT_EQ(AuthenticatorStatusCodeTranslator::translate(code), 1) << code;
  }
}

TEST(StatusCodeTest, AsmToSdkTable) {
  const int64_t expected[] = {0,     10000, 20000, 30000, 60002, 10000, 10000,
                              10000, 10000, 20004, 40002, 30001, 10000, 20002,
                              20001, 40003, 20006, 40005, 20010, 20009, 40004};
  for (int64_t code = 0; code <= 20; ++code) {
    EXPECT_EQ(AsmStatusCodeTranslater::translate(code), expected[code]) << code;
  }
  for (int64_t code : {int64_t{21}, int64_t{-1}, kMin}) {
    EXPECT_EQ(AsmStatusCodeTranslater::translate(code), 10000) << code;
  }
}

TEST(StatusCodeTest, Names) {
  EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(0), "NO_ERROR");
  EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(20009), "USER_PATTERN_LOCK_ATTEMPT_FAIL");
  EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(40005), "PATTERN_LOCK_INVALID_POLICY");
  for (int64_t unnamed : {int64_t{20011}, int64_t{1}, int64_t{-1}}) {
    EXPECT_EQ(CorvaneStatusCodeTranslator::convertToString(unnamed), "") << unnamed;
  }
  EXPECT_EQ(AuthenticatorInfoStatusCodeTranslator::convertToString(1),
            "AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED");
  EXPECT_EQ(AuthenticatorInfoStatusCodeTranslator::convertToString(6),
            "AUTHENTICATORINFO_STATUS_USER_NOT_ENROLLED");
  for (int64_t status : {int64_t{0}, int64_t{7}, int64_t{-1}}) {
    EXPECT_EQ(AuthenticatorInfoStatusCodeTranslator::convertToString(status), "") << status;
  }
}

}  // namespace
}  // namespace corvane
