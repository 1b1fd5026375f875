// Class operations of the UAF messages, the header type check, fcParams known answers and round
// trips of every message class.
#include <gtest/gtest.h>

#include <string>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/fc_params.h"
#include "client/messages/registration.h"
#include "foundation/utils.h"
#include "json/json_model.h"
#include "messages/uaf_samples.h"

namespace corvane {
namespace {

using nlohmann::json;

TEST(MessagesTest, CheckVersion) {
  struct Case {
    const char* upv;
    bool supported;
  };
  const Case cases[] = {
      {R"({"major":1,"minor":1})", true},     {R"({"major":1.0,"minor":1.0})", true},
      {R"({"major":1,"minor":0})", false},    {R"({"major":"1","minor":1})", false},
      {R"({"major":2,"minor":1})", false},    {R"({"major":1,"minor":1.5})", false},
      {R"({"major":1,"minor":null})", false},
  };
  for (const Case& c : cases) {
    auto version = Version::fromJson(json::parse(c.upv));
    ASSERT_TRUE(version) << c.upv;
    EXPECT_EQ(Version::checkVersion(*version), c.supported) << c.upv;
  }
  EXPECT_TRUE(Version::checkVersion(Version::getClientSupportedVersion()));
}

TEST(MessagesTest, ExtensionClassOperations) {
  EXPECT_EQ(Extension::getClientSupportedExtensionId(),
            (std::vector<std::string>{"registered_uuid", "match_model", "wb_encryption",
                                      "register_limit"}));
  for (const std::string& id : Extension::getClientSupportedExtensionId()) {
    EXPECT_TRUE(Extension::checkValidExtensionId(id));
    EXPECT_FALSE(Extension::checkValidExtensionId(id + " "));
    EXPECT_FALSE(Extension::checkValidExtensionId(id.substr(1)));
  }
  EXPECT_FALSE(Extension::checkValidExtensionId(""));

  Extension ext{"register_limit", "3", true};
  EXPECT_EQ(Extension::getExtsDataById(ext, {{"register_limit", "9"}}),
            (Extension{"register_limit", "9", true}));
  EXPECT_EQ(Extension::getExtsDataById(ext, {{"other", "9"}}), ext);
  Extension noId{std::nullopt, "d", false};
  EXPECT_EQ(Extension::getExtsDataById(noId, {{"", "9"}}), noId);
}

TEST(MessagesTest, CheckDeregisterAuthenticator) {
  struct Case {
    std::optional<std::string> aaid;
    std::optional<std::string> keyID;
    bool valid;
  };
  const Case cases[] = {
      {"0F3D#0002", "a2V5LWlk", true},
      {"0f3d#abcd", "", true},
      {"", "", true},
      {"", "a2V5", false},
      {"0F3D#0002", "a2V5=", false},
      {"0F3D-0002", "a2V5", false},
      {"0F3D#00021", "", false},
      {"0F3D", "", false},
      {std::nullopt, "", false},
      {"", std::nullopt, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(DeregisterAuthenticator::checkDeregisterAuthenticator({c.aaid, c.keyID}), c.valid)
        << c.aaid.value_or("(absent)") << " / " << c.keyID.value_or("(absent)");
  }
}

TEST(MessagesTest, ValidateProperties) {
  struct Case {
    const char* message;
    bool malformed;
  };
  const Case cases[] = {
      {R"({"header":{"appID":"a","serverData":"s"}})", false},
      {R"({"header":{"appID":null,"serverData":null}})", false},
      {R"({"header":{"appID":1}})", true},
      {R"({"header":{"appID":"a","serverData":{}}})", true},
      {R"({"header":{"serverData":false}})", true},
      {R"({"header":"x"})", false},
      {R"({})", false},
      {R"([])", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(validateProperties(json::parse(c.message)), c.malformed) << c.message;
  }
}

TEST(MessagesTest, CheckTransactionCountsUtf16Units) {
  // Two-unit characters are not base64url, so length is probed with the plain alphabet; the
  // limit itself is in UTF-16 units as utf16Length counts them.
  EXPECT_TRUE(Transaction::checkTransaction({"text/plain", std::string(199, 'x'), std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({"text/plain", std::string(200, 'x'), std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({"text/plain ", "QUJD", std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({std::nullopt, "QUJD", std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({"text/plain", std::nullopt, std::nullopt}));
  Transaction t{"text/plain", "QUJD", std::vector<DisplayPNGCharacteristicsDescriptor>{}};
  EXPECT_EQ(t.toDictionary(), json::parse(R"({"contentType":"text/plain","content":"QUJD"})"));
}

TEST(FcParamsTest, KnownAnswers) {
  EXPECT_EQ(finalChallengeParamsJson("https://rp.example/app", "Y2hhbGxlbmdl",
                                     "ios:bundle-id:com.example"),
            R"({"appID":"https://rp.example/app","challenge":"Y2hhbGxlbmdl",)"
            R"("facetID":"ios:bundle-id:com.example","channelBinding":{}})");
  EXPECT_EQ(
      buildFcParams("https://rp.example/app", "Y2hhbGxlbmdl", "ios:bundle-id:com.example"),
      "eyJhcHBJRCI6Imh0dHBzOi8vcnAuZXhhbXBsZS9hcHAiLCJjaGFsbGVuZ2UiOiJZMmhoYkd4bGJtZGwiLCJmYWN"
      "ldElEIjoiaW9zOmJ1bmRsZS1pZDpjb20uZXhhbXBsZSIsImNoYW5uZWxCaW5kaW5nIjp7fX0");
  // Absent or empty appID: the facet ID stands in; a quote in the challenge is escaped.
  const char* facetOnly =
      "eyJhcHBJRCI6ImlvczpidW5kbGUtaWQ6Y29tLmV4YW1wbGUiLCJjaGFsbGVuZ2UiOiJjXCJxIiwiZmFjZXRJRCI6Imlv"
      "czpidW5kbGUtaWQ6Y29tLmV4YW1wbGUiLCJjaGFubmVsQmluZGluZyI6e319";
  EXPECT_EQ(buildFcParams(std::nullopt, "c\"q", "ios:bundle-id:com.example"), facetOnly);
  EXPECT_EQ(buildFcParams(std::string(), "c\"q", "ios:bundle-id:com.example"), facetOnly);
  EXPECT_EQ(applicationIdFor("a", "f"), "a");
}

template <class Model>
void expectRoundTrip(const json& input) {
  Error error;
  std::optional<Model> first = Model::fromJson(input, &error);
  ASSERT_TRUE(first) << error.localizedDescription();
  EXPECT_EQ(jsonmodel::missingRequiredProperty(*first), std::nullopt);
  auto second = jsonmodel::fromJsonText<Model>(first->toJsonString(), &error);
  ASSERT_TRUE(second) << error.localizedDescription();
  EXPECT_EQ(*first, *second) << first->toJsonString();
  EXPECT_EQ(second->toJson(), input) << "input carries only mapped keys";
}

TEST(MessagesTest, RoundTrips) {
  json withExts = testing::sampleRegistration();
  withExts["header"]["exts"] =
      json::parse(R"([{"id":"register_limit","data":"3","fail_if_unknown":false}])");
  expectRoundTrip<RegistrationRequest>(withExts);
  json auth = testing::sampleAuthentication();
  auth["transaction"][0]["tcDisplayPNGCharacteristics"] = json::parse(
      R"([{"width":320,"height":480,"bitDepth":16,"colorType":2,"compression":0,"filter":0,
           "interlace":0,"plte":[{"r":255,"g":0,"b":-1}]}])");
  expectRoundTrip<AuthenticationRequest>(auth);
  expectRoundTrip<DeregistrationRequest>(testing::sampleDeregistration());
  expectRoundTrip<MatchCriteria>(json::parse(
      R"({"aaid":["0F3D#0002"],"vendorID":["0F3D"],"keyIDs":["a2V5"],"userVerification":2,
          "keyProtection":6,"matcherProtection":1,"attachmentHint":1,"tcDisplay":3,
          "authenticationAlgorithms":[1],"assertionSchemes":["UAFV1TLV"],"attestationTypes":[15879],
          "authenticatorVersion":1,"exts":[{"id":"match_model","data":"","fail_if_unknown":false}]})"));
  json header = testing::sampleHeader("Reg");
  header["upv"]["minor"] = 1.0;
  expectRoundTrip<RegistrationResponse>(
      json{{"header", header},
           {"fcParams", "ZmM"},
           {"assertions", json::parse(R"([{"assertionScheme":"UAFV1TLV","assertion":"AQID",
                                      "exts":[{"id":"wb_encryption","data":"","fail_if_unknown":true}]}])")}});
  expectRoundTrip<AuthenticationResponse>(
      json{{"header", testing::sampleHeader("Auth")},
           {"fcParams", "ZmM"},
           {"assertions", json::parse(R"([{"assertionScheme":"UAFV1TLV","assertion":"AQID"}])")}});
  // upv 1.0 keeps its floating-point form on output.
  EXPECT_NE(RegistrationResponse::fromJson(
                json{{"header", header}, {"fcParams", ""}, {"assertions", json::array()}})
                ->toJsonString()
                .find(R"("minor":1.0)"),
            std::string::npos);
}

}  // namespace
}  // namespace corvane
