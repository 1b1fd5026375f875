// The generic JSON mapping: value types, coercion, key mappers, error texts and codes, and the
// bounded parser.
#include <gtest/gtest.h>

#include <string>

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
  struct Case {
    const char* text;
    bool maps;
  };
  const Case cases[] = {
      {R"({"userVerification": 0})", true},
      {R"({"userVerification": 18446744073709551615})", true},
      {R"({"userVerification": -1})", false},
      {R"({"userVerification": 1.5})", false},
      {R"({"userVerification": 18446744073709551616})", false},  // parsed as a double, too big
      {R"({"userVerification": 4.0})", true},
      {R"({"keyProtection": 65535})", true},
      {R"({"keyProtection": 65536})", false},
      {R"({"tcDisplay": -1})", false},
      {R"({"authenticatorVersion": "1"})", false},
      {R"({"aaid": ["0F3D#0002", 7]})", false},
      {R"({"aaid": "0F3D#0002"})", false},
      {R"({"authenticationAlgorithms": [1, "x", null, {}]})", true},
      {R"({"exts": [{"id": "a", "data": "b", "fail_if_unknown": 0}]})", false},
      {R"({"userVerification": null, "keyProtection": null})", true},
  };
  for (const Case& c : cases) {
    Error error;
    std::optional<MatchCriteria> criteria = MatchCriteria::fromJson(json::parse(c.text), &error);
    EXPECT_EQ(criteria.has_value(), c.maps) << c.text;
    if (!c.maps) {
      EXPECT_EQ(error.domain(), kJSONModelErrorDomain) << c.text;
      EXPECT_EQ(error.code(), modelCode(JSONModelErrorCode::kInvalidValue)) << c.text;
    }
  }
  EXPECT_EQ(MatchCriteria::fromJson(json::parse(R"({"userVerification": 4.0})"))->userVerification,
            4u);
}

TEST(JsonModelTest, MistypedValuesAreCoercedWhereTheTableSaysSo) {
  auto ext = Extension::fromJson(json::parse(R"({"id": 5, "data": [], "fail_if_unknown": true})"));
  ASSERT_TRUE(ext);
  EXPECT_FALSE(ext->extID);
  EXPECT_FALSE(ext->data);
  EXPECT_EQ(ext->failIfUnknown, true);

  auto version = Version::fromJson(json::parse(R"({"major": "1", "minor": null})"));
  ASSERT_TRUE(version);
  EXPECT_FALSE(version->major);
  EXPECT_FALSE(version->minor);

  auto header = OperationHeader::fromJson(json::parse(R"({"upv": "1.1", "op": 3, "appID": null})"));
  ASSERT_TRUE(header);
  EXPECT_FALSE(header->upv);
  EXPECT_FALSE(header->op);
  EXPECT_FALSE(header->appID);

  auto entry = DeregisterAuthenticator::fromJson(json::parse(R"({"aaid": 1, "keyID": false})"));
  ASSERT_TRUE(entry);
  EXPECT_FALSE(entry->aaid);
  EXPECT_FALSE(entry->keyID);
}

TEST(JsonModelTest, FailuresNameTheKeyPathAndUseDistinctCodes) {
  struct Case {
    json input;
    JSONModelErrorCode code;
    std::string description;
  };
  const Case cases[] = {
      {json::array(), JSONModelErrorCode::kNotAnObject,
       "DeregistrationRequest: input is not a JSON object (got array)."},
      {json::parse(R"({"header":{"upv":{"major":1,"minor":1},"op":"Dereg"}})"),
       JSONModelErrorCode::kRequiredKeyMissing,
       "DeregistrationRequest: required key \"authenticators\" is missing."},
      {json::parse(R"({"header":{"upv":{"minor":1},"op":"Dereg"},"authenticators":[]})"),
       JSONModelErrorCode::kRequiredKeyMissing,
       "DeregistrationRequest: required key \"header.upv.major\" is missing."},
      {json::parse(R"({"header":null,"authenticators":[]})"), JSONModelErrorCode::kInvalidValue,
       "DeregistrationRequest: required key \"header\" is null."},
      {json::parse(R"({"header":{"upv":{"major":1,"minor":1},"op":"Dereg"},
                       "authenticators":[{"aaid":"","keyID":""},4]})"),
       JSONModelErrorCode::kInvalidValue,
       "DeregistrationRequest: value of \"authenticators[1]\" is not valid (expected an object, "
       "got number)."},
      {json::parse(R"({"header":{"upv":{"major":1,"minor":1},"op":"Dereg",
                       "exts":[{"id":"a","data":"b","fail_if_unknown":"no"}]},"authenticators":[]})"),
       JSONModelErrorCode::kInvalidValue,
       "DeregistrationRequest: value of \"header.exts[0].fail_if_unknown\" is not valid (expected "
       "a boolean, got string)."},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(DeregistrationRequest::fromJson(c.input, &error)) << c.input;
    EXPECT_EQ(error.domain(), kJSONModelErrorDomain);
    EXPECT_EQ(error.code(), modelCode(c.code)) << c.description;
    EXPECT_EQ(error.localizedDescription(), c.description);
  }
}

TEST(JsonModelTest, KeyMapperAndAbsentValuesOnOutput) {
  Extension ext{"register_limit", std::nullopt, false};
  EXPECT_EQ(ext.toJsonString(), R"({"fail_if_unknown":false,"id":"register_limit"})");
  EXPECT_FALSE(Extension::fromJson(ext.toJson()));  // data is required

  Policy policy{json::parse(R"([[{"aaid":["0F3D#0002"],"x":[1.5,-0.0,"é"]}]])"), std::nullopt};
  EXPECT_EQ(policy.toJsonString(), R"({"accepted":[[{"aaid":["0F3D#0002"],"x":[1.5,-0.0,"é"]}]]})");
  EXPECT_EQ(Policy::fromJson(policy.toJson()), policy);
}

TEST(JsonModelTest, MissingRequiredPropertyReportsTheDeepestPath) {
  auto request = AuthenticationRequest::fromJson(json::parse(
      R"({"header":{"upv":{"major":1,"minor":1},"op":"Auth"},"challenge":"c","policy":{"accepted":[]},
          "transaction":[{"contentType":"text/plain","content":"x"},{"contentType":1,"content":"y"}]})"));
  ASSERT_TRUE(request);
  EXPECT_EQ(jsonmodel::missingRequiredProperty(*request), "transaction[1].contentType");
  request->transaction->at(1).contentType = "text/plain";
  EXPECT_EQ(jsonmodel::missingRequiredProperty(*request), std::nullopt);
  request->header->upv->minor.reset();
  EXPECT_EQ(jsonmodel::missingRequiredProperty(*request), "header.upv.minor");
}

TEST(JsonModelTest, HeaderFromDictionarySetsWhatFits) {
  OperationHeader header =
      OperationHeader::fromDictionary(json::parse(R"({"op":"Reg","appID":7,"serverData":"s"})"));
  EXPECT_EQ(header.op, "Reg");
  EXPECT_FALSE(header.appID);
  EXPECT_EQ(header.serverData, "s");
  EXPECT_FALSE(header.upv);
  EXPECT_EQ(OperationHeader::fromDictionary(json("x")), OperationHeader{});
}

TEST(JsonNumberTest, ComparesByValueAcrossRepresentations) {
  EXPECT_EQ(JsonNumber(int64_t{1}), JsonNumber(1.0));
  EXPECT_EQ(JsonNumber(uint64_t{1}), JsonNumber(int64_t{1}));
  EXPECT_NE(JsonNumber(int64_t{-1}), JsonNumber(UINT64_MAX));
  EXPECT_NE(JsonNumber(1.5), JsonNumber(int64_t{1}));
  EXPECT_NE(JsonNumber(18446744073709551616.0), JsonNumber(UINT64_MAX));
  EXPECT_TRUE(JsonNumber(1.0).equals(1));
  EXPECT_EQ(JsonNumber(1.0).toJson().dump(), "1.0");
  EXPECT_EQ(JsonNumber(int64_t{1}).toJson().dump(), "1");
}

TEST(JsonTextTest, DepthBoundAndHostileText) {
  auto repeat = [](const std::string& s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
  };
  auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  Error error;
  EXPECT_TRUE(jsonmodel::parseJson(nested(jsonmodel::kMaxNestingDepth), &error));
  struct Case {
    std::string text;
    std::string fragment;
  };
  const Case cases[] = {
      {nested(jsonmodel::kMaxNestingDepth + 1), "nested deeper than 512 levels"},
      {repeat("{\"a\":", 100000), "nested deeper than 512 levels"},
      {"[1e999]", "number overflow"},
      {"[\"\xff\"]", "ill-formed UTF-8"},
      {"[1] x", "syntax error"},
      {"", "unexpected end of input"},
      {"\"" + std::string(10 * 1024 * 1024, 'a'), "missing closing quote"},
  };
  for (const Case& c : cases) {
    Error failure;
    EXPECT_FALSE(jsonmodel::parseJson(c.text, &failure)) << c.fragment;
    EXPECT_LE(failure.localizedDescription().size(), 256u);
    EXPECT_EQ(failure.domain(), kJSONModelErrorDomain);
    EXPECT_EQ(failure.code(), modelCode(JSONModelErrorCode::kBadJSON));
    EXPECT_NE(failure.localizedDescription().find(c.fragment), std::string::npos)
        << failure.localizedDescription();
  }
  EXPECT_EQ(jsonmodel::dumpJson(json("\xff")), "\"\xEF\xBF\xBD\"");
}

}  // namespace
}  // namespace corvane
