#include <gtest/gtest.h>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/extension.h"
#include "client/messages/operation_header.h"
#include "client/messages/policy.h"
#include "json/json_model.h"
#include "json/json_text.h"

namespace corvane {
namespace {

using jsonmodel::JSONModelErrorCode;
using nlohmann::json;

int64_t modelCode(JSONModelErrorCode c) {
  return static_cast<int64_t>(c);
}

TEST(JsonModelTest, NumericRangesOfMatchCriteria) {
  const std::pair<const char*, bool> cases[] = {
      {R"({"userVerification": 18446744073709551615})", true},
      {R"({"userVerification": -1})", false},
      {R"({"userVerification": 1.5})", false},
      {R"({"userVerification": 4.0})", true},
      {R"({"keyProtection": 65535})", true},
      {R"({"keyProtection": 65536})", false},
      {R"({"aaid": ["0F3D#0002", 7]})", false},
      {R"({"userVerification": null, "keyProtection": null})", true},
  };
  for (const auto& [text, maps] : cases) {
    Error error;
    EXPECT_EQ(MatchCriteria::fromJson(json::parse(text), &error).has_value(), maps) << text;
    if (!maps) {
      EXPECT_EQ(error.code(), modelCode(JSONModelErrorCode::kInvalidValue)) << text;
    }
  }
}

TEST(JsonModelTest, MistypedValuesAreCoercedWhereTheTableSaysSo) {
  auto ext = Extension::fromJson(json::parse(R"({"id": 5, "data": [], "fail_if_unknown": true})"));
  ASSERT_TRUE(ext);
  EXPECT_FALSE(ext->extID);
  EXPECT_FALSE(ext->data);
  auto header = OperationHeader::fromJson(json::parse(R"({"upv": "1.1", "op": 3, "appID": null})"));
  ASSERT_TRUE(header);
  EXPECT_FALSE(header->upv);
  EXPECT_FALSE(header->op);
}

TEST(JsonModelTest, FailuresNameTheKeyPathAndUseDistinctCodes) {
  const std::tuple<json, JSONModelErrorCode, std::string> cases[] = {
      {json::array(), JSONModelErrorCode::kNotAnObject,
       "DeregistrationRequest: input is not a JSON object (got array)."},
      {json::parse(R"({"header":{"upv":{"minor":1},"op":"Dereg"},"authenticators":[]})"),
       JSONModelErrorCode::kRequiredKeyMissing,
       "DeregistrationRequest: required key \"header.upv.major\" is missing."},
      {json::parse(R"({"header":null,"authenticators":[]})"), JSONModelErrorCode::kInvalidValue,
       "DeregistrationRequest: required key \"header\" is null."},
      {json::parse(R"({"header":{"upv":{"major":1,"minor":1},"op":"Dereg",
                       "exts":[{"id":"a","data":"b","fail_if_unknown":"no"}]},"authenticators":[]})"),
       JSONModelErrorCode::kInvalidValue,
       "DeregistrationRequest: value of \"header.exts[0].fail_if_unknown\" is not valid (expected "
       "a boolean, got string)."},
  };
  for (const auto& [input, code, description] : cases) {
    Error error;
    EXPECT_FALSE(DeregistrationRequest::fromJson(input, &error)) << input;
    EXPECT_EQ(error.domain(), kJSONModelErrorDomain);
    EXPECT_EQ(error.code(), modelCode(code)) << description;
    EXPECT_EQ(error.localizedDescription(), description);
  }
}

TEST(JsonModelTest, KeyMapperAndMissingRequiredProperty) {
  Extension ext{"register_limit", std::nullopt, false};
  EXPECT_EQ(ext.toJsonString(), R"({"fail_if_unknown":false,"id":"register_limit"})");
  auto request = AuthenticationRequest::fromJson(json::parse(
      R"({"header":{"upv":{"major":1,"minor":1},"op":"Auth"},"challenge":"c","policy":{"accepted":[]},
          "transaction":[{"contentType":"text/plain","content":"x"},{"contentType":1,"content":"y"}]})"));
  ASSERT_TRUE(request);
  EXPECT_EQ(jsonmodel::missingRequiredProperty(*request), "transaction[1].contentType");
}

TEST(JsonTextTest, DepthBoundAndHostileText) {
  auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(jsonmodel::parseJson(nested(jsonmodel::kMaxNestingDepth), nullptr));
  const std::pair<std::string, std::string> cases[] = {
      {nested(jsonmodel::kMaxNestingDepth + 1), "nested deeper than 512 levels"},
      {"[1e999]", "number overflow"},
      {"[\"\xff\"]", "ill-formed UTF-8"},
      {"[1] x", "syntax error"},
  };
  for (const auto& [text, fragment] : cases) {
    Error failure;
    EXPECT_FALSE(jsonmodel::parseJson(text, &failure)) << fragment;
    EXPECT_EQ(failure.code(), modelCode(JSONModelErrorCode::kBadJSON));
    EXPECT_NE(failure.localizedDescription().find(fragment), std::string::npos)
        << failure.localizedDescription();
  }
}

}  // namespace
}  // namespace corvane
