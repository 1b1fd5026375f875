// The request-type list and the exact bytes of the KHAccessToken.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "asm/asm.h"

namespace corvane {
namespace {

TEST(AsmRecords, RequestTypeNamesByPositionAndAbsentBeyond) {
  const auto list = AsmRequest::listAllRequestType();
  const std::vector<std::string_view> names(list.begin(), list.end());
  EXPECT_EQ(names,
            (std::vector<std::string_view>{"getInfo", "registration", "authenticate", "deregister",
                                           "getRegistrations", "openSettings"}));
  for (uint64_t type : {uint64_t{5}, uint64_t{6}, std::numeric_limits<uint64_t>::max()}) {
    AsmRequest request;
    request.requestType = type;
    EXPECT_EQ(request.requestTypeCommand(), type < 6 ? std::optional(names[type]) : std::nullopt);
  }
}

TEST(AsmKHAccessToken, ExactTextInMemberOrderWithEscapes) {
  const struct {
    std::string appID, asmToken, callerId;
    std::optional<std::string> text;
  } cases[] = {
      {"https://rp.example/app", "00ff", "facet",
       R"({"appID":"https://rp.example/app","asmToken":"00ff","callerId":"facet"})"},
      {"a\"b\\c/", "t\n\r\t\b\f", std::string("\x01\0\x1f\x7f", 4),
       "{\"appID\":\"a\\\"b\\\\c/\",\"asmToken\":\"t\\n\\r\\t\\b\\f\",\"callerId\":"
       "\"\\u0001\\u0000\\u001f\x7f\"}"},
      {"caf\xc3\xa9 \xf4\x8f\xbf\xbf", "", "\xf0\x9f\x98\x80",
       "{\"appID\":\"caf\xc3\xa9 \xf4\x8f\xbf\xbf\",\"asmToken\":\"\",\"callerId\":\"\xf0\x9f\x98"
       "\x80\"}"},
      {"\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf", "", "",
       "{\"appID\":\"\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\",\"asmToken\":\"\",\"callerId\":"
       "\"\"}"},
      // Invalid UTF-8: stray continuation, overlong, surrogate, above U+10FFFF, truncated.
      {"ok\x80", "t", "c", std::nullopt},
      {"a", "\xc0\x80", "c", std::nullopt},
      {"a", "t", "\xed\xa0\x80", std::nullopt},
      {"\xe0\x9f\xbf", "t", "c", std::nullopt},
      {"\xf0\x8f\xbf\xbf", "t", "c", std::nullopt},
      {"\xf4\x90\x80\x80", "t", "c", std::nullopt},
      {"\xff", "t", "c", std::nullopt},
      {"a\xe2\x82", "t", "c", std::nullopt},
      {"\xc3\x28", "t", "c", std::nullopt},
  };
  for (const auto& c : cases) {
    Error error;
    EXPECT_EQ(Asm::makeKHAccessToken(c.appID, c.asmToken, c.callerId, &error), c.text)
        << c.appID << c.callerId;
    if (!c.text) {
      EXPECT_EQ(error, Error::corvane(1, std::string(Asm::kInvalidText)));
    }
  }
}

}  // namespace
}  // namespace corvane
