// PolicyHelper: accepted and disallowed lists as tables, criteria validity, Deregister side effect.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/messages/required_fields.h"
#include "corvane/status_codes.h"
#include "fakes/fake_device_info.h"
#include "policy/policy_helper.h"

namespace corvane {
namespace {

using nlohmann::json;
using Tweak = std::function<void(AuthenticatorInfo&)>;
using Uvs = std::optional<std::vector<std::string>>;

constexpr std::string_view kModel = "iPhone14,2";
constexpr std::string_view kApp = "https://rp.example/app";
const std::string kNotAllowed = "aaid:0F3D#0002 policy not allowed. ";
const std::string kNoAccepted = "aaid:0F3D#0002 not matched with any accepted policy. ";
const Uvs kBoth = std::vector<std::string>{"biometry", "pattern"};
const Uvs kBio = std::vector<std::string>{"biometry"};
const Uvs kPattern = std::vector<std::string>{"pattern"};
const Uvs kEmpty = std::vector<std::string>{};

AuthenticatorInfo basicInfo() {
  AuthenticatorInfo info;
  info.authenticatorIndex = 8;
  info.aaid = "0F3D#0002";
  info.assertionScheme = "UAFV1TLV";
  info.authenticationAlgorithm = 2;
  info.attestationTypes = std::vector<uint64_t>{15879};
  info.userVerification = 0x92;
  info.keyProtection = info.matcherProtection = info.attachmentHint = 1;
  info.tcDisplay = 2;
  info.uvs = kBoth;
  info.status = 2;
  return info;
}

Tweak keys(std::vector<std::string> ids) {
  return [ids](AuthenticatorInfo& a) { a.keyIDs = ids; };
}
Tweak uv(uint64_t value) {
  return [value](AuthenticatorInfo& a) { a.userVerification = value; };
}

std::optional<json> list(std::string_view text) {
  return text.empty() ? std::nullopt : std::optional(json::parse(text));
}

struct Row {
  std::string_view criteria;  // the accepted list (AcceptedList) or the disallowed list
  bool verdict;
  Uvs uvsAfter = kBoth;
  Tweak tweak = nullptr;
};

class PolicyTableTest : public ::testing::Test {
 protected:
  // A refusal carries `refusal`; an acceptance leaves the error untouched.
  void run(const Row& row, std::string_view accepted, std::string_view disallowed,
           const std::string& refusal) {
    SCOPED_TRACE(row.criteria);
    AuthenticatorInfo info = basicInfo();
    if (row.tweak) row.tweak(info);
    Error error(kCorvaneErrorDomain, -1, "untouched");
    EXPECT_EQ(
        helper.checkPolicy(&info, list(accepted), list(disallowed), false, "alice", kApp, &error),
        row.verdict);
    EXPECT_EQ(info.uvs, row.uvsAfter);
    EXPECT_EQ(error, row.verdict ? Error(kCorvaneErrorDomain, -1, "untouched")
                                 : Error::corvane(40000, refusal));
    EXPECT_TRUE(requests.empty());
  }

  testing::FakeDeviceInfo device{std::string(kModel)};
  std::vector<AsmRequest> requests;
  PolicyHelper helper{device, [this](const AsmRequest& r) {
                        requests.push_back(r);
                        return AsmResponse{};
                      }};
};

TEST_F(PolicyTableTest, AcceptedList) {
  const std::vector<Row> rows = {
      {R"([[{"authenticatorVersion":1}]])", false},
      {"[[]]", true},
      {"[]", false},
      {"", false},
      {R"([[{"aaid":["X","0F3D#0002"]}]])", true},
      {R"([[{"aaid":["0F3D#0003"]}]])", false},
      {R"([[{"aaid":[]}]])", false},
      {R"([[{"vendorID":["0F3D"]}]])", true},
      {R"([[{"vendorID":["0F3D#"]}]])", false},
      {R"([[{"keyIDs":["k1"]}]])", false},
      {R"([[{"aaid":["0F3D#0002"],"keyIDs":["k1"]}]])", true},
      {R"([[{"keyIDs":["k1"]}]])", false, kBoth, keys({"k2"})},
      {R"([[{"keyIDs":["k1"]}]])", true, kBoth, keys({"k2", "k1"})},
      {R"([[{"userVerification":128}]])", true},
      {R"([[{"userVerification":1}]])", false},
      {R"([[{"userVerification":1152}]])", false},
      {R"([[{"userVerification":128}]])", false, kBoth, uv(0x492)},
      {R"([[{"userVerification":1024}]])", true, kBoth, uv(0x400)},
      // One bit in common is enough, whatever else either side carries: pattern + presence
      // against pattern + face + fingerprint, fingerprint + passcode, pattern + passcode against
      // pattern alone; none in common is not.
      {R"([[{"userVerification":129}]])", true},
      {R"([[{"userVerification":6}]])", true},
      {R"([[{"userVerification":132}]])", true, kBoth, uv(0x80)},
      {R"([[{"userVerification":129}]])", false, kBoth, uv(0x12)},
      {R"([[{"userVerification":1153}]])", false},
      {R"([[{"userVerification":128.5}]])", false},
      {R"([[{"userVerification":"146"}]])", false},
      {R"([[{"keyProtection":2}]])", false},
      {R"([[{"aaid":["0F3D#0002"],"keyProtection":2}]])", true, kBoth,
       [](AuthenticatorInfo& a) { a.keyProtection = 0; }},
      {R"([[{"attachmentHint":146}]])", true},
      {R"([[{"attachmentHint":1}]])", false},
      {R"([[{"tcDisplay":1}]])", false},
      {R"([[{"authenticationAlgorithms":[1]}]])", false},
      {R"([[{"assertionSchemes":["UAFV1"]}]])", false},
      {R"([[{"attestationTypes":[15880]}]])", false},
      {R"([[{"exts":[{"id":"match_model","data":"ALL_iOS"}]}]])", true},
      {R"([[{"exts":[{"id":"match_model","data":"iPhone13,1;iPhone14,2"}]}]])", true},
      {R"([[{"exts":[{"id":"match_model","data":"iPhone13,1"}]}]])", false},
      {R"([[{"exts":[{"id":"match_model","data":"ALL_iOS"},{"id":"match_model","data":"x"}]}]])",
       false},
      {R"([[{"exts":[{"id":"register_limit","data":"1"}]}]])", true},
      {R"([[{"aaid":["0F3D#0002"],"exts":[]}]])", true},
      {R"([[{"exts":[]}]])", false},
      {R"([[{"aaid":["0F3D#0002"]},{"tcDisplay":1}]])", false},
      {R"([[{"aaid":["X"]}],[{"vendorID":["0F3D"]}]])", true},
      {R"([null,[null,{"aaid":["0F3D#0002"]}]])", true},
      {"[[null]]", true},
      {"[null]", false},
      {"[[5]]", false},
      {R"([{"aaid":["0F3D#0002"]}])", false}};
  for (const Row& row : rows) run(row, row.criteria, "", kNoAccepted);
}

TEST_F(PolicyTableTest, DisallowedList) {
  const std::vector<Row> rows = {
      {R"([{"authenticatorVersion":1}])", true},
      {R"([{"aaid":["0F3D#0002"]}])", false},
      {R"([{"aaid":["0F3D#0003"]}])", true},
      {R"([{"userVerification":128}])", true, kBio},
      {R"([{"userVerification":18}])", true, kPattern},
      {R"([{"userVerification":146}])", false, kEmpty},
      {R"([{"userVerification":1024}])", true},
      {R"([{"userVerification":1170}])", true, kEmpty},
      {R"([{"userVerification":146}])", true, kBoth, uv(0)},
      // A criterion sharing one bit and carrying others takes the methods of its bits away, and
      // disallows only when none is left: pattern + presence, fingerprint + passcode, pattern +
      // fingerprint + presence, and pattern + passcode against a pattern-only authenticator.
      {R"([{"userVerification":129}])", true, kBio},
      {R"([{"userVerification":6}])", true, kPattern},
      {R"([{"userVerification":131}])", false, kEmpty},
      {R"([{"userVerification":132}])", false, kEmpty,
       [](AuthenticatorInfo& a) {
         a.userVerification = 0x80;
         a.uvs = kPattern;
       }},
      // No bit in common never disallows, even when the criterion takes every method away.
      {R"([{"userVerification":130}])", true, kEmpty, uv(0x01)},
      {R"([{"userVerification":128},{"userVerification":18}])", false, kEmpty},
      {R"([{"aaid":["X"],"userVerification":146}])", true},
      {R"([{"userVerification":128}])", false, std::nullopt,
       [](AuthenticatorInfo& a) { a.uvs.reset(); }},
      {R"([{"keyIDs":["k1"]}])", true},
      {R"([{"keyIDs":["k1"]}])", false, kBoth, keys({"k0", "k1"})},
      {R"([{"keyIDs":["k1"]}])", true, kBoth, keys({"k2"})},
      {R"([{"attachmentHint":146}])", false},
      {R"([{"attachmentHint":1}])", true},
      {R"([{"exts":[{"id":"match_model","data":"ALL_iOS"}]}])", false},
      {R"([{"exts":[{"id":"match_model","data":"x"},{"id":"match_model","data":"iPhone14,2"}]}])",
       false},
      {R"([{"exts":[]}])", true},
      {R"([{"exts":[{"id":"match_model","data":"x"}],"userVerification":146}])", true},
      {R"([{"exts":[{"id":"match_model","data":"ALL_iOS"}],"userVerification":128}])", true, kBio},
      {R"([null,{"aaid":["0F3D#0002"]}])", false},
      {R"([7,"aaid"])", true}};
  for (const Row& row : rows) run(row, "[[]]", row.criteria, kNotAllowed);
  // The disallowed list is judged first.
  run({"", false}, R"([[{"aaid":["0F3D#0002"]}]])", R"([{"vendorID":["0F3D"]}])", kNotAllowed);
}

TEST_F(PolicyTableTest, ModelNameComesFromTheDevice) {
  AuthenticatorInfo info = basicInfo();
  json criteria = json::parse(R"({"exts":[{"id":"match_model","data":"Pixel 7"}]})");
  EXPECT_FALSE(helper.compareAllowPolicy(&info, criteria));
  device.setModel("Pixel 7");
  EXPECT_TRUE(helper.compareAllowPolicy(&info, criteria));
  EXPECT_FALSE(PolicyHelper::compareAllowPolicy(&info, criteria, ""));
}

TEST(PolicyCriteriaValidTest, JunkInEachFieldIsInvalid) {
  const json base = json::parse(R"({"vendorID":["0F3D"],"keyIDs":["k1"],"userVerification":2,
      "keyProtection":1,"matcherProtection":1,"attachmentHint":1,"tcDisplay":1,
      "authenticatorVersion":1,"authenticationAlgorithms":[2],"assertionSchemes":["UAFV1TLV"],
      "attestationTypes":[15879],"exts":[{"id":"match_model","data":"x","fail_if_unknown":true}]})");
  ASSERT_TRUE(PolicyHelper::checkMatchCriteriaValid(base));
  for (auto it = base.begin(); it != base.end(); ++it) {
    for (const json& value : {json(nullptr), json(true), json("1"), json::object(),
                              json::array({nullptr}), json::parse(R"([1,"2"])")}) {
      json criteria = base;
      criteria[it.key()] = value;
      EXPECT_FALSE(PolicyHelper::checkMatchCriteriaValid(criteria)) << criteria.dump();
    }
  }
}

TEST(PolicyCriteriaValidTest, AaidRulesAndExtensions) {
  const std::vector<std::pair<std::string_view, bool>> rows = {
      {R"({"aaid":[]})", true},
      {R"({"aaid":[1]})", false},
      {R"({"aaid":["A"],"keyIDs":["k"],"attachmentHint":1,"authenticatorVersion":1,"exts":[]})",
       true},
      {R"({"aaid":["A"],"vendorID":["0F3D"]})", false},
      {R"({"aaid":["A"],"userVerification":2})", false},
      {R"({})", false},
      {R"({"assertionSchemes":["UAFV1TLV"]})", false},
      {R"({"assertionSchemes":["UAFV1TLV"],"authenticationAlgorithms":[2],"vendorKey":1})", true}};
  for (const auto& [text, valid] : rows)
    EXPECT_EQ(PolicyHelper::checkMatchCriteriaValid(json::parse(text)), valid) << text;
  auto ext = [](json id, json failIfUnknown = false) {
    return json{{"id", std::move(id)}, {"data", "d"}, {"fail_if_unknown", failIfUnknown}};
  };
  const std::string smile = "\xF0\x9F\x98\x80";  // two UTF-16 code units
  const std::vector<std::pair<json, bool>> exts = {
      {ext(std::string(32, 'a')), true},
      {ext(std::string(33, 'a')), false},
      {ext(std::string(30, 'a') + smile), true},
      {ext(std::string(31, 'a') + smile), false},
      {ext(""), false},
      {ext("vendor_thing", true), false},
      {ext("vendor_thing", false), true},
      {ext("match_model", true), true},
      {ext(5), false},
      {json{{"id", "match_model"}, {"fail_if_unknown", false}}, false},
      {json{{"id", "match_model"}, {"data", "d"}}, false}};
  for (const auto& [extension, valid] : exts) {
    json criteria = {{"aaid", {"0F3D#0002"}}, {"exts", json::array({extension})}};
    EXPECT_EQ(PolicyHelper::checkMatchCriteriaValid(criteria), valid) << extension.dump();
  }
}

TEST(PolicyCriteriaValidTest, PlugsIntoTheRequestCheck) {
  PolicyCheckContext context{&PolicyHelper::checkMatchCriteriaValid, std::string(kModel)};
  Policy policy;
  policy.accepted = json::parse(R"([[{"aaid":["0F3D#0002"]},{"aaid":["A"],"tcDisplay":1}]])");
  policy.disallowed = json::parse(R"([{"aaid":"0F3D#0002"}])");
  RequiredFieldReport report;
  OutgoingExtensions outgoing;
  checkPolicyLists(policy, context, report, outgoing);
  EXPECT_EQ(report.description(), "Missing Required Fields: disallowed accepted ");
}

AuthenticatorInfo enrolled(std::optional<std::vector<std::string>> keyIDs) {
  AuthenticatorInfo info = basicInfo();
  info.status = code(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED);
  info.keyIDs = std::move(keyIDs);
  return info;
}
// A Deregister (type 3) of alice's keys under kApp.
AsmRequest deregister(int64_t index) {
  const DeregisterIn alice{"alice", std::string(kApp), std::nullopt};
  return {3, std::nullopt, index, alice, std::nullopt, 0};
}

TEST_F(PolicyTableTest, EnrolledKeySendsDeregisterOnlyWhenTheServerDoesNotKnowIt) {
  const std::vector<std::string> k1 = {"k0", "k1"};
  AuthenticatorInfo supported = enrolled(k1);
  supported.status = 2;
  struct Case {
    AuthenticatorInfo info;
    bool isReg;
    std::string_view disallowed;
    std::string username;
    bool result;
    std::vector<AsmRequest> sent;
    std::string_view appID = kApp;
  };
  const std::vector<Case> cases = {
      {enrolled(k1), false, "", "alice", false, {}},
      {supported, true, "", "alice", false, {}},
      {enrolled(k1), true, R"([null,{"aaid":["X"]},{"keyIDs":["k1"]}])", "alice", true, {}},
      {enrolled(k1), true, R"([{"keyIDs":["k9"]}])", "alice", false, {deregister(0)}},
      {enrolled(std::nullopt), true, R"([{"keyIDs":["k1"]}])", "alice", false, {deregister(0)}},
      {enrolled(k1), true, "", "alice", false, {deregister(8)}},
      {enrolled(k1), true, "[]", "alice", false, {deregister(8)}},
      {enrolled(std::vector<std::string>{}), true, "", "alice", false, {}},
      {enrolled(k1), true, "", "", false, {}},
      // Without an application ID the Deregister would reach every application's keys.
      {enrolled(k1), true, "", "alice", false, {}, ""},
      {enrolled(k1), true, R"([{"keyIDs":["k9"]}])", "alice", false, {}, ""}};
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    requests.clear();
    EXPECT_EQ(
        helper.findServerEnrolledKeyid(&c.info, list(c.disallowed), c.isReg, c.username, c.appID),
        c.result)
        << i;
    EXPECT_EQ(requests, c.sent) << i;
  }
  // checkPolicy goes on judging the lists after the Deregister.
  requests.clear();
  AuthenticatorInfo info = enrolled(std::vector<std::string>{"k1"});
  Error error;
  EXPECT_FALSE(helper.checkPolicy(&info, list("[]"), list(R"([{"keyIDs":["k2"]}])"), true, "alice",
                                  kApp, &error));
  EXPECT_EQ(error, Error::corvane(40000, kNoAccepted));
  EXPECT_EQ(requests, std::vector<AsmRequest>{deregister(0)});
}

}  // namespace
}  // namespace corvane
