// The request-type list and the exact bytes of the KHAccessToken, which key handles are bound to.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "asm/asm.h"

namespace corvane {
namespace {

TEST(AsmRecords, RequestTypeNamesByPositionAndAbsentBeyond) {
  const auto list = AsmRequest::listAllRequestType();
  const std::vector<std::string_view> names(list.begin(), list.end());
  EXPECT_EQ(names,
            (std::vector<std::string_view>{"getInfo", "registration", "authenticate", "deregister",
                                           "getRegistrations", "openSettings"}));
  for (uint64_t type : std::vector<uint64_t>{0, 4, 5, 6, 7, std::numeric_limits<uint64_t>::max()}) {
    AsmRequest request;
    request.requestType = type;
    EXPECT_EQ(request.requestTypeCommand(), type < 6 ? std::optional(names[type]) : std::nullopt);
  }
}

std::optional<std::string> token(std::string_view appID, std::string_view asmToken = "00ff",
                                 std::string_view callerId = "facet", Error* error = nullptr) {
  return Asm::makeKHAccessToken(appID, asmToken, callerId, error);
}

// What nlohmann::json writes for the same members in the same order.
std::string reference(std::string_view appID, std::string_view asmToken = "00ff",
                      std::string_view callerId = "facet") {
  nlohmann::ordered_json object;
  object["appID"] = std::string(appID);
  object["asmToken"] = std::string(asmToken);
  object["callerId"] = std::string(callerId);
  return object.dump();
}

TEST(AsmKHAccessToken, KnownAnswersAndEveryAsciiByte) {
  EXPECT_EQ(token("https://rp.example/app"),
            R"({"appID":"https://rp.example/app","asmToken":"00ff","callerId":"facet"})");
  EXPECT_EQ(token("a\"b\\c", "t\n", std::string("\x01\0\x1f\x7f", 4)),
            "{\"appID\":\"a\\\"b\\\\c\",\"asmToken\":\"t\\n\",\"callerId\":\"\\u0001\\u0000"
            "\\u001f\x7f\"}");
  EXPECT_EQ(token("caf\xc3\xa9 \xf0\x9f\x98\x80", "", ""),
            "{\"appID\":\"caf\xc3\xa9 \xf0\x9f\x98\x80\",\"asmToken\":\"\",\"callerId\":\"\"}");
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string text = "x" + std::string(1, static_cast<char>(byte)) + "y";
    EXPECT_EQ(token(text, text, text), reference(text, text, text)) << byte;
  }
}

TEST(AsmKHAccessToken, InvalidUtf8InAnyMemberIsRefused) {
  const std::string invalid[] = {
      "\x80",
      "\xbf",
      "\xc0\x80",
      "\xc1\xbf",
      "\xe0\x80\x80",
      "\xe0\x9f\xbf",
      "\xed\xa0\x80",
      "\xed\xbf\xbf",
      "\xf0\x80\x80\x80",
      "\xf0\x8f\xbf\xbf",
      "\xf4\x90\x80\x80",
      "\xf5\x80\x80\x80",
      "\xff",
      "\xc3\x28",
      "\xe2\x28\xa1",
  };
  for (const std::string& bad : invalid) {
    const std::string text = "ok" + bad + "ok";
    for (int member = 0; member < 3; ++member) {
      Error error;
      EXPECT_EQ(token(member == 0 ? text : "a", member == 1 ? text : "t", member == 2 ? text : "c",
                      &error),
                std::nullopt);
      EXPECT_EQ(error, Error::corvane(1, std::string(Asm::kInvalidText)));
    }
  }
  for (std::string_view edge : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                                "\xee\x80\x80", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(token(edge), reference(edge));
  }
  // Cut at every length: only cuts between characters give a token.
  const std::string text = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z";
  const std::vector<size_t> boundaries = {0, 1, 3, 6, 10, 11};
  for (size_t length = 0; length <= text.size(); ++length) {
    const std::string cut = text.substr(0, length);
    const bool whole = std::count(boundaries.begin(), boundaries.end(), length) == 1;
    EXPECT_EQ(token(cut), whole ? std::optional(reference(cut)) : std::nullopt) << length;
  }
}

}  // namespace
}  // namespace corvane
