// UAF message class checks at their limits and fcParams known answers.
#include <gtest/gtest.h>

#include <string>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/fc_params.h"
#include "client/messages/registration.h"

namespace corvane {
namespace {

using nlohmann::json;

TEST(MessagesTest, CheckVersionAndExtensionIds) {
  const std::pair<const char*, bool> cases[] = {{R"({"major":1.0,"minor":1.0})", true},
                                                {R"({"major":1,"minor":0})", false},
                                                {R"({"major":"1","minor":1})", false},
                                                {R"({"major":2,"minor":1})", false},
                                                {R"({"major":1,"minor":1.5})", false}};
  for (const auto& [upv, supported] : cases) {
    EXPECT_EQ(Version::checkVersion(*Version::fromJson(json::parse(upv))), supported) << upv;
  }
  for (const std::string& id : Extension::getClientSupportedExtensionId()) {
    EXPECT_TRUE(Extension::checkValidExtensionId(id));
    EXPECT_FALSE(Extension::checkValidExtensionId(id + " "));
  }
  EXPECT_EQ(Extension::getExtsDataById({"register_limit", "3", true}, {{"register_limit", "9"}}),
            (Extension{"register_limit", "9", true}));
}

TEST(MessagesTest, CheckDeregisterAuthenticatorAndTransaction) {
  using S = std::optional<std::string>;
  const std::tuple<S, S, bool> cases[] = {
      {"0f3d#abcd", "a2V5LWlk", true}, {"", "", true},           {"", "a2V5", false},
      {"0F3D#0002", "a2V5=", false},   {"0F3D-0002", "", false}, {"0F3D#00021", "", false},
      {std::nullopt, "", false}};
  for (const auto& [aaid, keyID, valid] : cases) {
    EXPECT_EQ(DeregisterAuthenticator::checkDeregisterAuthenticator({aaid, keyID}), valid)
        << aaid.value_or("-") << "/" << keyID.value_or("-");
  }
  EXPECT_TRUE(Transaction::checkTransaction({"text/plain", std::string(199, 'x'), std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({"text/plain", std::string(200, 'x'), std::nullopt}));
  EXPECT_FALSE(Transaction::checkTransaction({"text/plain ", "QUJD", std::nullopt}));
}

TEST(FcParamsTest, KnownAnswers) {
  EXPECT_EQ(
      buildFcParams("https://rp.example/app", "Y2hhbGxlbmdl", "ios:bundle-id:com.example"),
      "eyJhcHBJRCI6Imh0dHBzOi8vcnAuZXhhbXBsZS9hcHAiLCJjaGFsbGVuZ2UiOiJZMmhoYkd4bGJtZGwiLCJmYWN"
      "ldElEIjoiaW9zOmJ1bmRsZS1pZDpjb20uZXhhbXBsZSIsImNoYW5uZWxCaW5kaW5nIjp7fX0");
  // Empty appID: the facet ID stands in; a quote in the challenge is escaped.
  EXPECT_EQ(
      buildFcParams(std::string(), "c\"q", "ios:bundle-id:com.example"),
      "eyJhcHBJRCI6ImlvczpidW5kbGUtaWQ6Y29tLmV4YW1wbGUiLCJjaGFsbGVuZ2UiOiJjXCJxIiwiZmFjZXRJRCI6Imlv"
      "czpidW5kbGUtaWQ6Y29tLmV4YW1wbGUiLCJjaGFubmVsQmluZGluZyI6e319");
}

}  // namespace
}  // namespace corvane
