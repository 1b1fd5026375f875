// Reading request texts: the version walk's choices and stops, and hostile input.
#include <gtest/gtest.h>

#include <string>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/registration.h"
#include "client/messages/required_fields.h"
#include "client/messages/uaf_message_array.h"
#include "messages/uaf_samples.h"

namespace corvane {
namespace {

using nlohmann::json;
using testing::sampleDeregistration;
using testing::sampleRegistration;

constexpr int64_t kInvalidArgument = 60001;

template <class Request>
std::optional<UafMessageChoice<Request>> choose(const std::string& text, Error* error) {
  return chooseUafMessageFromText<Request>(text, error);
}

RequestCheckContext anyCriteria() {
  return {{[](const json&) { return true; }, "iPhone14,2"}, {}};
}

TEST(VersionWalkTest, ChoosesTheSingleElementOrTheOneAtVersionOnePointOne) {
  // One element at 1.0 passes the walk and fails later with "Version Error.".
  Error error;
  auto single = choose<RegistrationRequest>(json::array({sampleRegistration(0)}).dump(), &error);
  ASSERT_TRUE(single && single->message);
  EXPECT_FALSE(checkRegistrationRequest(single->message, "pattern", anyCriteria(), &error));
  EXPECT_EQ(error, Error::corvane(50001, "Version Error."));

  json second = sampleRegistration(1);
  second["challenge"] = "c2Vjb25k";
  auto pair =
      choose<RegistrationRequest>(json::array({sampleRegistration(0), second}).dump(), &error);
  ASSERT_TRUE(pair && pair->message);
  EXPECT_EQ(pair->message->challenge, "c2Vjb25k");
  EXPECT_TRUE(checkRegistrationRequest(pair->message, "pattern", anyCriteria(), &error));

  // Elements that are not objects, or whose upv is not 1.1, are skipped among several.
  json upvAsText = sampleRegistration(1);
  upvAsText["header"]["upv"]["major"] = "1";
  auto skipped = choose<RegistrationRequest>(
      json::array({7, "x", upvAsText, second, json::object()}).dump(), &error);
  ASSERT_TRUE(skipped && skipped->message);
  EXPECT_EQ(skipped->message->challenge, "c2Vjb25k");
}

TEST(VersionWalkTest, NothingChosenLeavesTheMessageAbsent) {
  const std::string texts[] = {"[]", "[7]", "[[{}]]", R"([{"header":1},{"header":{"upv":2}}])",
                               json::array({sampleRegistration(0), sampleRegistration(2)}).dump()};
  for (const std::string& text : texts) {
    Error error;
    auto choice = choose<RegistrationRequest>(text, &error);
    ASSERT_TRUE(choice) << text;
    EXPECT_FALSE(choice->message) << text;
    EXPECT_FALSE(checkRegistrationRequest(choice->message, "pattern", anyCriteria(), &error));
    EXPECT_EQ(error, Error::corvane(60000, "Missing Required Fields: registrationRequest "));
  }
}

TEST(VersionWalkTest, StopsWithInvalidArgument) {
  json appIdNumber = sampleRegistration();
  appIdNumber["header"]["appID"] = 5;
  json serverDataList = sampleRegistration();
  serverDataList["header"]["serverData"] = json::array();
  json noPolicy = sampleRegistration();
  noPolicy.erase("policy");
  struct Case {
    std::string text;
    std::string description;
  };
  const Case cases[] = {
      {json::array({sampleRegistration(), sampleRegistration()}).dump(),
       "Multiple UAF Messages with the same version."},
      {json::array({sampleRegistration(), 7, sampleRegistration()}).dump(),
       "Multiple UAF Messages with the same version."},
      {json::array({appIdNumber}).dump(), ""},
      {json::array({serverDataList}).dump(), ""},
      {json::array({noPolicy}).dump(), "RegistrationRequest: required key \"policy\" is missing."},
      {sampleRegistration().dump(), "UAF request is not a JSON array."},
      {"\"just text\"", "UAF request is not a JSON array."},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(choose<RegistrationRequest>(c.text, &error)) << c.text;
    EXPECT_EQ(error, Error::corvane(kInvalidArgument, c.description)) << c.text;
  }
}

std::string nestedObjects(size_t depth) {
  std::string out;
  for (size_t i = 0; i < depth; ++i) out += "{\"a\":";
  return out;
}

TEST(VersionWalkTest, HostileTextEndsInAnError) {
  struct Case {
    std::string text;
    std::string fragment;
  };
  const Case cases[] = {
      {std::string(100000, '[') + std::string(100000, ']'), "nested deeper than 512 levels"},
      {"[{\"header\":" + nestedObjects(100000), "nested deeper than 512 levels"},
      {"[\"" + std::string(10 * 1024 * 1024, 'A') + "\xc3\x28\"]", "ill-formed UTF-8"},
      {R"([{"header":{"upv":{"major":1e999,"minor":1}}}])", "number overflow"},
      {"[{]", "syntax error"},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(choose<AuthenticationRequest>(c.text, &error)) << c.fragment;
    EXPECT_EQ(error.code(), kInvalidArgument);
    EXPECT_EQ(error.domain(), kCorvaneErrorDomain);
    EXPECT_LE(error.localizedDescription().size(), 256u);
    EXPECT_NE(error.localizedDescription().find(c.fragment), std::string::npos)
        << error.localizedDescription().substr(0, 200);
  }
  // A 10 MB appID maps and is then reported as too long.
  json huge = sampleRegistration();
  huge["header"]["appID"] = std::string(10 * 1024 * 1024, 'a');
  Error error;
  auto choice = choose<RegistrationRequest>(json::array({huge}).dump(), &error);
  ASSERT_TRUE(choice && choice->message);
  EXPECT_FALSE(checkRegistrationRequest(choice->message, "pattern", anyCriteria(), &error));
  EXPECT_EQ(error, Error::corvane(60000, "Missing Required Fields: appID "));
}

TEST(VersionWalkTest, DeregistrationReportsUnreadableRequestsWithOneText) {
  json noAuthenticators = sampleDeregistration();
  noAuthenticators.erase("authenticators");
  const std::string texts[] = {"not json", "{}", json::array({noAuthenticators}).dump(),
                               std::string(2000, '[')};
  for (const std::string& text : texts) {
    Error error;
    EXPECT_FALSE(choose<DeregistrationRequest>(text, &error)) << text;
    EXPECT_EQ(error, Error::corvane(kInvalidArgument, "Json Serialization error.")) << text;
  }
  Error error;
  EXPECT_FALSE(choose<DeregistrationRequest>(
      json::array({sampleDeregistration(), sampleDeregistration()}).dump(), &error));
  EXPECT_EQ(error.localizedDescription(), "Multiple UAF Messages with the same version.");
}

}  // namespace
}  // namespace corvane
