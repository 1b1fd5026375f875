// The required-field report: labels in check order, boundary lengths, extension rules, policy
// lists, transactions and deregistration entries.
#include <gtest/gtest.h>

#include <string>

#include "client/messages/required_fields.h"
#include "messages/uaf_samples.h"

namespace corvane {
namespace {

using nlohmann::json;
using testing::sampleAuthentication;
using testing::sampleDeregistration;
using testing::sampleRegistration;

constexpr std::string_view kPrefix = "Missing Required Fields: ";

// Criteria count as valid unless they carry "bad".
RequestCheckContext context(ExtsData extsData = {}) {
  return {{[](const json& c) { return !c.contains("bad"); }, "iPhone14,2"}, std::move(extsData)};
}

std::optional<RegistrationRequest> registration(const json& j) {
  return RegistrationRequest::fromJson(j);
}

// The error of checking a registration request built from `j`.
Error registrationError(const json& j, std::optional<std::string_view> uv = "pattern") {
  Error error;
  EXPECT_FALSE(checkRegistrationRequest(registration(j), uv, context(), &error));
  return error;
}

TEST(RequiredFieldReportTest, AppendsLabelsVerbatim) {
  RequiredFieldReport report;
  EXPECT_TRUE(report.empty());
  report.add("challenge ");
  report.add("username ");
  EXPECT_EQ(report.count(), 2u);
  EXPECT_EQ(report.error(), Error::corvane(60000, "Missing Required Fields: challenge username "));
}

TEST(RequiredFieldReportTest, RegistrationLabelsComeInCheckOrder) {
  json j = sampleRegistration();
  j["policy"]["disallowed"] = json::parse(R"([{"bad":1},{"aaid":["X"]},3])");
  j["policy"]["accepted"] = json::parse(R"([[{"bad":1},{"ok":1}],"x"])");
  j["header"]["appID"] = std::string(513, 'a');
  j["header"]["serverData"] = "";
  j["header"]["upv"]["minor"] = "1";
  j["header"]["op"] = "Auth";
  j["challenge"] = 12;
  j["username"] = "";
  j["header"]["exts"] = json::parse(R"([{"id":"","data":"d","fail_if_unknown":false},
      {"id":"match_model","data":1,"fail_if_unknown":false}])");
  EXPECT_EQ(registrationError(j, std::nullopt).localizedDescription(),
            std::string(kPrefix) +
                "userVerification disallowed disallowed accepted accepted appID serverData upv "
                "op challenge username exts.id exts.data ");
  EXPECT_EQ(registrationError(sampleRegistration(), "").localizedDescription(),
            std::string(kPrefix) + "userVerification ");

  json noAccepted = sampleRegistration();
  noAccepted["policy"]["accepted"] = json::object();
  noAccepted["policy"]["disallowed"] = "x";
  EXPECT_EQ(registrationError(noAccepted).localizedDescription(),
            std::string(kPrefix) + "disallowed accepted ");
}

TEST(RequiredFieldReportTest, LengthBoundariesInUtf16Units) {
  struct Case {
    const char* key;
    std::string value;
    bool passes;
  };
  const std::string euro = "\xE2\x82\xAC";      // one UTF-16 unit, three bytes
  const std::string clef = "\xF0\x9D\x84\x9E";  // two UTF-16 units
  auto repeat = [](const std::string& s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
  };
  const Case cases[] = {
      {"appID", std::string(512, 'a'), true},
      {"appID", std::string(513, 'a'), false},
      {"appID", repeat(euro, 512), true},
      {"appID", repeat(clef, 256) + "a", false},
      {"serverData", std::string(1536, 's'), true},
      {"serverData", std::string(1537, 's'), false},
      {"serverData", "", false},
  };
  for (const Case& c : cases) {
    json j = sampleRegistration();
    j["header"][c.key] = c.value;
    Error error;
    bool ok = checkRegistrationRequest(registration(j), "pattern", context(), &error).has_value();
    EXPECT_EQ(ok, c.passes) << c.key << " " << c.value.size();
    if (!c.passes) {
      EXPECT_EQ(error.localizedDescription(), std::string(kPrefix) + c.key + " ");
    }
  }
  for (size_t length : {31u, 32u, 33u}) {
    json j = sampleRegistration();
    j["header"]["exts"] = json::parse(R"([{"data":"","fail_if_unknown":false}])");
    j["header"]["exts"][0]["id"] = std::string(length, 'e');
    Error error;
    bool ok = checkRegistrationRequest(registration(j), "pattern", context(), &error).has_value();
    EXPECT_EQ(ok, length <= 32) << length;
  }
}

TEST(RequiredFieldReportTest, HeaderExtensionsStopOrAreForwarded) {
  json unknown = sampleRegistration();
  unknown["challenge"] = "";
  unknown["header"]["exts"] = json::parse(R"([{"id":"x-vendor","data":"d","fail_if_unknown":true},
      {"id":"","data":"d","fail_if_unknown":false}])");
  EXPECT_EQ(registrationError(unknown), Error::corvane(10000, "Unknown Extension.id value."));

  json forwarded = sampleRegistration();
  forwarded["policy"]["accepted"] = json::parse(R"([
      [{"exts":[{"id":"match_model","data":"ignored"},
                {"id":"wb_encryption","data":"w","fail_if_unknown":"YES"},
                {"id":"x-vendor","data":"v"}, 7]}],
      [{"exts":[{"id":"match_model","data":"again"}]}]])");
  forwarded["header"]["exts"] = json::parse(R"([
      {"id":"register_limit","data":"3","fail_if_unknown":true},
      {"id":"x-vendor","data":"d","fail_if_unknown":false},
      {"id":"registered_uuid","data":"u","fail_if_unknown":false}])");
  Error error;
  auto exts = checkRegistrationRequest(registration(forwarded), "pattern",
                                       context({{"register_limit", "5"}}), &error);
  ASSERT_TRUE(exts) << error.localizedDescription();
  const std::vector<Extension> expected = {
      {"match_model", "iPhone14,2", false},
      {"wb_encryption", "w", true},
      {"register_limit", "5", true},
      {"registered_uuid", "u", false},
  };
  EXPECT_EQ(*exts, expected);
}

json transaction(json contentType, std::string content) {
  json t = json::object();
  t["contentType"] = std::move(contentType);
  t["content"] = std::move(content);
  return t;
}

TEST(RequiredFieldReportTest, AuthenticationChecksTransactionsAndOp) {
  struct Case {
    json transaction;
    bool passes;
  };
  const Case cases[] = {
      {transaction("text/plain", std::string(199, 'A')), true},
      {transaction("text/plain", std::string(200, 'A')), false},
      {transaction("text/plain", ""), false},
      {transaction("text/plain", "not base64!"), false},
      {transaction("image/png", "QUJD"), false},
      {transaction(5, "QUJD"), false},
  };
  for (const Case& c : cases) {
    json j = sampleAuthentication();
    j["transaction"].push_back(c.transaction);
    Error error;
    auto exts = checkAuthenticationRequest(AuthenticationRequest::fromJson(j), context(), &error);
    EXPECT_EQ(exts.has_value(), c.passes) << c.transaction;
    if (!c.passes) {
      EXPECT_EQ(error, Error::corvane(60000, "Missing Required Fields: transaction "));
    }
  }
  json wrongOp = sampleAuthentication();
  wrongOp["header"]["op"] = "Reg";
  wrongOp["challenge"] = nullptr;
  Error error;
  EXPECT_FALSE(
      checkAuthenticationRequest(AuthenticationRequest::fromJson(wrongOp), context(), &error));
  EXPECT_EQ(error.localizedDescription(), std::string(kPrefix) + "op challenge ");
  EXPECT_FALSE(checkAuthenticationRequest(std::nullopt, context(), &error));
  EXPECT_EQ(error.localizedDescription(), std::string(kPrefix) + "authenticationRequest ");
}

TEST(RequiredFieldReportTest, Deregistration) {
  auto check = [](const json& j, Error* error) {
    return checkDeregistrationRequest(DeregistrationRequest::fromJson(j), error);
  };
  Error error;
  EXPECT_TRUE(check(sampleDeregistration(), &error));

  json bad = sampleDeregistration();
  bad["header"]["op"] = "Reg";
  bad["authenticators"] =
      json::parse(R"([{"aaid":"","keyID":"a2V5"},{"aaid":"0F3D#0002","keyID":""},
      {"aaid":1,"keyID":""}])");
  bad["header"]["exts"] = json::parse(R"([{"id":"x","data":5,"fail_if_unknown":false}])");
  EXPECT_FALSE(check(bad, &error));
  EXPECT_EQ(error.localizedDescription(),
            std::string(kPrefix) + "op authenticators authenticators exts.data ");

  json empty = sampleDeregistration();
  empty["authenticators"] = json::array();
  EXPECT_FALSE(check(empty, &error));
  EXPECT_EQ(error.localizedDescription(), std::string(kPrefix) + "authenticators ");

  json supportedButStrict = sampleDeregistration();
  supportedButStrict["header"]["exts"] =
      json::parse(R"([{"id":"register_limit","data":"1","fail_if_unknown":true}])");
  EXPECT_FALSE(check(supportedButStrict, &error));
  EXPECT_EQ(error, Error::corvane(10000, "The property [fail_if_unknown] is set to true."));

  json oldVersion = sampleDeregistration();
  oldVersion["header"]["upv"]["minor"] = 0;
  EXPECT_FALSE(check(oldVersion, &error));
  EXPECT_EQ(error, Error::corvane(50001, "Version Error."));

  EXPECT_FALSE(checkDeregistrationRequest(std::nullopt, &error));
  EXPECT_EQ(error, Error::corvane(60000,
                                  "Missing Required Fields: DeregistrationRequest upv op "
                                  "authenticators "));
}

}  // namespace
}  // namespace corvane
