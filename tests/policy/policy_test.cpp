// PolicyHelper: accepted and disallowed lists as tables (verdict, uvs after, error text), the
// criteria validity test with junk in every field, and the Deregister side effect.
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
const std::string kNotAllowed = "aaid:0F3D#0002 policy not allowed. ";
const std::string kNoAccepted = "aaid:0F3D#0002 not matched with any accepted policy. ";
const Uvs kBoth = std::vector<std::string>{"biometry", "pattern"};

// The built-in authenticator as getInfo describes it.
AuthenticatorInfo basicInfo() {
  AuthenticatorInfo info;
  info.authenticatorIndex = 8;
  info.aaid = "0F3D#0002";
  info.assertionScheme = "UAFV1TLV";
  info.authenticationAlgorithm = 2;
  info.attestationTypes = std::vector<uint64_t>{15879};
  info.userVerification = 0x92;
  info.keyProtection = 1;
  info.matcherProtection = 1;
  info.attachmentHint = 1;
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
const Tweak kNone = [](AuthenticatorInfo&) {};

std::optional<json> list(std::string_view text) {
  if (text.empty()) return std::nullopt;
  return json::parse(text);
}

struct Row {
  std::string name;
  Tweak tweak;
  std::string_view criteria;  // the accepted list (AllowTable) or the disallowed list
  bool verdict;
  Uvs uvsAfter;
  std::string error;  // empty: no error
};

class PolicyTableTest : public ::testing::Test {
 protected:
  void run(const Row& row, std::string_view accepted, std::string_view disallowed) {
    SCOPED_TRACE(row.name);
    AuthenticatorInfo info = basicInfo();
    row.tweak(info);
    Error error(kCorvaneErrorDomain, -1, "untouched");
    EXPECT_EQ(helper.checkPolicy(&info, list(accepted), list(disallowed), false, "alice", &error),
              row.verdict);
    EXPECT_EQ(info.uvs, row.uvsAfter);
    if (row.error.empty()) {
      EXPECT_EQ(error, Error(kCorvaneErrorDomain, -1, "untouched"));
    } else {
      EXPECT_EQ(error, Error::corvane(40000, row.error));
    }
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
      {"version only never matches", kNone, R"([[{"authenticatorVersion":1}]])", false, kBoth,
       kNoAccepted},
      {"one empty inner list", kNone, "[[]]", true, kBoth, ""},
      {"empty outer list", kNone, "[]", false, kBoth, kNoAccepted},
      {"absent list", kNone, "", false, kBoth, kNoAccepted},
      {"null list", kNone, "null", false, kBoth, kNoAccepted},
      {"aaid", kNone, R"([[{"aaid":["X","0F3D#0002"]}]])", true, kBoth, ""},
      {"aaid other", kNone, R"([[{"aaid":["0F3D#0003"]}]])", false, kBoth, kNoAccepted},
      {"aaid empty adds nothing", kNone, R"([[{"aaid":[]}]])", false, kBoth, kNoAccepted},
      {"aaid mistyped", kNone, R"([[{"aaid":"0F3D#0002"}]])", false, kBoth, kNoAccepted},
      {"vendor", kNone, R"([[{"vendorID":["0F3D"]}]])", true, kBoth, ""},
      {"vendor other", kNone, R"([[{"vendorID":["0F3E"]}]])", false, kBoth, kNoAccepted},
      {"vendor longer", kNone, R"([[{"vendorID":["0F3D#"]}]])", false, kBoth, kNoAccepted},
      {"keyIDs, no keys: adds nothing", kNone, R"([[{"keyIDs":["k1"]}]])", false, kBoth,
       kNoAccepted},
      {"keyIDs, no keys, beside aaid", kNone, R"([[{"aaid":["0F3D#0002"],"keyIDs":["k1"]}]])", true,
       kBoth, ""},
      {"keyIDs other key", keys({"k2"}), R"([[{"keyIDs":["k1"]}]])", false, kBoth, kNoAccepted},
      {"keyIDs any key", keys({"k2", "k1"}), R"([[{"keyIDs":["k1"]}]])", true, kBoth, ""},
      {"uv equal", kNone, R"([[{"userVerification":146}]])", true, kBoth, ""},
      {"uv shared bit", kNone, R"([[{"userVerification":128}]])", true, kBoth, ""},
      {"uv no shared bit", kNone, R"([[{"userVerification":1}]])", false, kBoth, kNoAccepted},
      {"uv ALL in criterion", kNone, R"([[{"userVerification":1152}]])", false, kBoth, kNoAccepted},
      {"uv ALL in authenticator", uv(0x492), R"([[{"userVerification":128}]])", false, kBoth,
       kNoAccepted},
      {"uv ALL both equal", uv(0x400), R"([[{"userVerification":1024}]])", true, kBoth, ""},
      {"uv authenticator zero", uv(0), R"([[{"userVerification":128}]])", false, kBoth,
       kNoAccepted},
      {"uv integral float", kNone, R"([[{"userVerification":128.0}]])", true, kBoth, ""},
      {"uv fraction", kNone, R"([[{"userVerification":128.5}]])", false, kBoth, kNoAccepted},
      {"uv negative", kNone, R"([[{"userVerification":-1}]])", false, kBoth, kNoAccepted},
      {"uv text", kNone, R"([[{"userVerification":"146"}]])", false, kBoth, kNoAccepted},
      {"keyProtection", kNone, R"([[{"keyProtection":1}]])", true, kBoth, ""},
      {"keyProtection other", kNone, R"([[{"keyProtection":2}]])", false, kBoth, kNoAccepted},
      {"matcherProtection other", kNone, R"([[{"matcherProtection":4}]])", false, kBoth,
       kNoAccepted},
      {"keyProtection authenticator zero", [](AuthenticatorInfo& a) { a.keyProtection = 0; },
       R"([[{"aaid":["0F3D#0002"],"keyProtection":2}]])", true, kBoth, ""},
      {"attachmentHint is compared with uv", kNone, R"([[{"attachmentHint":146}]])", true, kBoth,
       ""},
      {"attachmentHint equal to hint fails", kNone, R"([[{"attachmentHint":1}]])", false, kBoth,
       kNoAccepted},
      {"attachmentHint, hint zero", [](AuthenticatorInfo& a) { a.attachmentHint = 0; },
       R"([[{"attachmentHint":1}]])", false, kBoth, kNoAccepted},
      {"tcDisplay", kNone, R"([[{"tcDisplay":2}]])", true, kBoth, ""},
      {"tcDisplay other", kNone, R"([[{"tcDisplay":1}]])", false, kBoth, kNoAccepted},
      {"algorithms", kNone, R"([[{"authenticationAlgorithms":[1,2]}]])", true, kBoth, ""},
      {"algorithms other", kNone, R"([[{"authenticationAlgorithms":[1]}]])", false, kBoth,
       kNoAccepted},
      {"algorithms empty", kNone, R"([[{"authenticationAlgorithms":[]}]])", false, kBoth,
       kNoAccepted},
      {"schemes", kNone, R"([[{"assertionSchemes":["UAFV1TLV"]}]])", true, kBoth, ""},
      {"schemes other", kNone, R"([[{"assertionSchemes":["UAFV1"]}]])", false, kBoth, kNoAccepted},
      {"schemes, authenticator none", [](AuthenticatorInfo& a) { a.assertionScheme.reset(); },
       R"([[{"assertionSchemes":["X"]}]])", false, kBoth, kNoAccepted},
      {"attestation", kNone, R"([[{"attestationTypes":[15880,15879]}]])", true, kBoth, ""},
      {"attestation other", kNone, R"([[{"attestationTypes":[15880]}]])", false, kBoth,
       kNoAccepted},
      {"attestation, authenticator empty",
       [](AuthenticatorInfo& a) { a.attestationTypes = std::vector<uint64_t>{}; },
       R"([[{"attestationTypes":[15879]}]])", false, kBoth, kNoAccepted},
      {"exts ALL_iOS", kNone, R"([[{"exts":[{"id":"match_model","data":"ALL_iOS"}]}]])", true,
       kBoth, ""},
      {"exts model in data", kNone,
       R"([[{"exts":[{"id":"match_model","data":"iPhone13,1;iPhone14,2"}]}]])", true, kBoth, ""},
      {"exts other model", kNone, R"([[{"exts":[{"id":"match_model","data":"iPhone13,1"}]}]])",
       false, kBoth, kNoAccepted},
      {"exts second model entry fails", kNone,
       R"([[{"exts":[{"id":"match_model","data":"ALL_iOS"},{"id":"match_model","data":"x"}]}]])",
       false, kBoth, kNoAccepted},
      {"exts without match_model", kNone, R"([[{"exts":[{"id":"register_limit","data":"1"}]}]])",
       true, kBoth, ""},
      {"exts empty repeats yes", kNone, R"([[{"aaid":["0F3D#0002"],"exts":[]}]])", true, kBoth, ""},
      {"exts empty alone", kNone, R"([[{"exts":[]}]])", false, kBoth, kNoAccepted},
      {"inner list is an AND", kNone, R"([[{"aaid":["0F3D#0002"]},{"tcDisplay":1}]])", false, kBoth,
       kNoAccepted},
      {"later inner list matches", kNone, R"([[{"aaid":["X"]}],[{"vendorID":["0F3D"]}]])", true,
       kBoth, ""},
      {"earlier inner list matches", kNone, R"([[{"aaid":["0F3D#0002"]}],[{"aaid":["X"]}]])", true,
       kBoth, ""},
      {"nulls skipped", kNone, R"([null,[null,{"aaid":["0F3D#0002"]}]])", true, kBoth, ""},
      {"only nulls in inner list", kNone, "[[null]]", true, kBoth, ""},
      {"only null inner lists", kNone, "[null]", false, kBoth, kNoAccepted},
      {"criterion not an object", kNone, "[[5]]", false, kBoth, kNoAccepted},
      {"inner element not a list", kNone, R"([{"aaid":["0F3D#0002"]}])", false, kBoth, kNoAccepted},
  };
  for (const Row& row : rows) run(row, row.criteria, "");
}

TEST_F(PolicyTableTest, DisallowedList) {
  const Uvs bio = std::vector<std::string>{"biometry"};
  const Uvs pattern = std::vector<std::string>{"pattern"};
  const Uvs none = std::vector<std::string>{};
  const std::vector<Row> rows = {
      {"version only disallows none", kNone, R"([{"authenticatorVersion":1}])", true, kBoth, ""},
      {"empty list", kNone, "[]", true, kBoth, ""},
      {"aaid", kNone, R"([{"aaid":["0F3D#0002"]}])", false, kBoth, kNotAllowed},
      {"aaid other", kNone, R"([{"aaid":["0F3D#0003"]}])", true, kBoth, ""},
      {"vendor", kNone, R"([{"vendorID":["0F3D"]}])", false, kBoth, kNotAllowed},
      {"uv pattern only narrows", kNone, R"([{"userVerification":128}])", true, bio, ""},
      {"uv biometry only narrows", kNone, R"([{"userVerification":18}])", true, pattern, ""},
      {"uv both removes all", kNone, R"([{"userVerification":146}])", false, none, kNotAllowed},
      {"uv fingerprint bit", kNone, R"([{"userVerification":2}])", true, pattern, ""},
      {"uv ALL: no match, nothing removed", kNone, R"([{"userVerification":1024}])", true, kBoth,
       ""},
      {"uv ALL with bits: emptied yet allowed", kNone, R"([{"userVerification":1170}])", true, none,
       ""},
      {"uv no shared bit", kNone, R"([{"userVerification":1}])", true, kBoth, ""},
      {"uv authenticator zero", uv(0), R"([{"userVerification":146}])", true, kBoth, ""},
      {"uv negative", kNone, R"([{"userVerification":-1}])", true, kBoth, ""},
      {"uv narrowing adds up over criteria", kNone,
       R"([{"userVerification":128},{"userVerification":18}])", false, none, kNotAllowed},
      {"uv after matching aaid", kNone, R"([{"aaid":["0F3D#0002"],"userVerification":146}])", false,
       none, kNotAllowed},
      {"uv not reached after a no", kNone, R"([{"aaid":["X"],"userVerification":146}])", true,
       kBoth, ""},
      {"uv, no uvs named", [](AuthenticatorInfo& a) { a.uvs.reset(); },
       R"([{"userVerification":128}])", false, std::nullopt, kNotAllowed},
      {"keyIDs, no keys", kNone, R"([{"keyIDs":["k1"]}])", true, kBoth, ""},
      {"keyIDs, empty keys", keys({}), R"([{"keyIDs":["k1"]}])", true, kBoth, ""},
      {"keyIDs, no keys, beside aaid", kNone, R"([{"aaid":["0F3D#0002"],"keyIDs":["k1"]}])", true,
       kBoth, ""},
      {"keyIDs held", keys({"k0", "k1"}), R"([{"keyIDs":["k1"]}])", false, kBoth, kNotAllowed},
      {"keyIDs other", keys({"k2"}), R"([{"keyIDs":["k1"]}])", true, kBoth, ""},
      {"attachmentHint is compared with uv", kNone, R"([{"attachmentHint":146}])", false, kBoth,
       kNotAllowed},
      {"attachmentHint equal to hint", kNone, R"([{"attachmentHint":1}])", true, kBoth, ""},
      {"schemes", kNone, R"([{"assertionSchemes":["UAFV1TLV"]}])", false, kBoth, kNotAllowed},
      {"exts ALL_iOS", kNone, R"([{"exts":[{"id":"match_model","data":"ALL_iOS"}]}])", false, kBoth,
       kNotAllowed},
      {"exts any entry matches", kNone,
       R"([{"exts":[{"id":"match_model","data":"x"},{"id":"match_model","data":"iPhone14,2"}]}])",
       false, kBoth, kNotAllowed},
      {"exts other model", kNone, R"([{"exts":[{"id":"match_model","data":"Pixel 7"}]}])", true,
       kBoth, ""},
      {"exts empty", kNone, R"([{"exts":[]}])", true, kBoth, ""},
      {"exts without match_model", kNone, R"([{"exts":[{"id":"register_limit","data":"1"}]}])",
       true, kBoth, ""},
      {"exts no: uv untouched", kNone,
       R"([{"exts":[{"id":"match_model","data":"x"}],"userVerification":146}])", true, kBoth, ""},
      {"exts yes then uv", kNone,
       R"([{"exts":[{"id":"match_model","data":"ALL_iOS"}],"userVerification":128}])", true, bio,
       ""},
      {"nulls skipped", kNone, R"([null,{"aaid":["0F3D#0002"]}])", false, kBoth, kNotAllowed},
      {"not an object", kNone, R"([7,"aaid"])", true, kBoth, ""},
  };
  for (const Row& row : rows) run(row, "[[]]", row.criteria);
}

TEST_F(PolicyTableTest, DisallowedComesBeforeAcceptedAndNullAuthenticatorIsRefusedQuietly) {
  run({"disallowed wins", kNone, "", false, kBoth, kNotAllowed}, R"([[{"aaid":["0F3D#0002"]}]])",
      R"([{"vendorID":["0F3D"]}])");
  Error error(kCorvaneErrorDomain, -1, "untouched");
  EXPECT_FALSE(helper.checkPolicy(nullptr, list("[[]]"), std::nullopt, true, "alice", &error));
  EXPECT_EQ(error.code(), -1);
  EXPECT_FALSE(PolicyHelper::checkDisallowUv(nullptr, json::parse(R"({"userVerification":2})")));
}

TEST_F(PolicyTableTest, ModelNameComesFromTheDevice) {
  EXPECT_EQ(helper.getDeviceModelName(), kModel);
  AuthenticatorInfo info = basicInfo();
  json criteria = json::parse(R"({"exts":[{"id":"match_model","data":"Pixel 7"}]})");
  EXPECT_FALSE(helper.compareAllowPolicy(&info, criteria));
  device.setModel("Pixel 7");
  EXPECT_TRUE(helper.compareAllowPolicy(&info, criteria));
  EXPECT_TRUE(helper.compareDisallowPolicy(&info, criteria));
  // The static forms take the name instead; an empty name matches nothing.
  EXPECT_TRUE(PolicyHelper::compareAllowPolicy(&info, criteria, "Pixel 7"));
  EXPECT_FALSE(PolicyHelper::compareAllowPolicy(&info, criteria, ""));
  EXPECT_FALSE(PolicyHelper::compareDisallowPolicy(&info, criteria, ""));
}

// ----- checkMatchCriteriaValid -----

json validWithoutAaid() {
  return json::parse(R"({"vendorID":["0F3D"],"keyIDs":["k1"],"userVerification":2,
      "keyProtection":1,"matcherProtection":1,"attachmentHint":1,"tcDisplay":1,
      "authenticatorVersion":1,"authenticationAlgorithms":[2],"assertionSchemes":["UAFV1TLV"],
      "attestationTypes":[15879],"exts":[{"id":"match_model","data":"x","fail_if_unknown":true}]})");
}

TEST(PolicyCriteriaValidTest, JunkInEachFieldIsInvalid) {
  ASSERT_TRUE(PolicyHelper::checkMatchCriteriaValid(validWithoutAaid()));
  const std::vector<json> junk = {nullptr, true, "1", json::object(), json::array({nullptr})};
  const json base = validWithoutAaid();
  for (auto it = base.begin(); it != base.end(); ++it) {
    for (const json& value : junk) {
      json criteria = base;
      criteria[it.key()] = value;
      EXPECT_FALSE(PolicyHelper::checkMatchCriteriaValid(criteria)) << criteria.dump();
    }
  }
  // Any number is a number, and a mixed array is not an array of numbers or of strings.
  for (std::string_view text : {"1.5", "-1", "0", "1e3"}) {
    json criteria = base;
    criteria["userVerification"] = json::parse(text);
    EXPECT_TRUE(PolicyHelper::checkMatchCriteriaValid(criteria)) << text;
  }
  for (std::string_view key : {"authenticationAlgorithms", "attestationTypes"}) {
    json criteria = base;
    criteria[key] = json::parse(R"([1,"2"])");
    EXPECT_FALSE(PolicyHelper::checkMatchCriteriaValid(criteria)) << key;
  }
}

TEST(PolicyCriteriaValidTest, AaidRules) {
  const std::vector<std::pair<std::string_view, bool>> rows = {
      {R"({"aaid":["0F3D#0002"]})", true},
      {R"({"aaid":[]})", true},
      {R"({"aaid":"0F3D#0002"})", false},
      {R"({"aaid":[1]})", false},
      {R"({"aaid":["A"],"keyIDs":["k"],"attachmentHint":1,"authenticatorVersion":1,"exts":[]})",
       true},
      {R"({"aaid":["A"],"vendorID":["0F3D"]})", false},
      {R"({"aaid":["A"],"userVerification":2})", false},
      {R"({"aaid":["A"],"assertionSchemes":["UAFV1TLV"]})", false},
      {R"({"aaid":["A"],"vendorKey":1})", false},
      {R"({})", false},
      {R"({"assertionSchemes":["UAFV1TLV"]})", false},
      {R"({"authenticationAlgorithms":[2]})", false},
      {R"({"assertionSchemes":["UAFV1TLV"],"authenticationAlgorithms":[2],"vendorKey":1})", true},
      {R"([{"aaid":["A"]}])", false},
      {R"("aaid")", false},
  };
  for (const auto& [text, valid] : rows) {
    EXPECT_EQ(PolicyHelper::checkMatchCriteriaValid(json::parse(text)), valid) << text;
  }
}

TEST(PolicyCriteriaValidTest, ExtensionEntries) {
  auto withExt = [](json ext) {
    json criteria = json::parse(R"({"aaid":["0F3D#0002"]})");
    criteria["exts"] = json::array({std::move(ext)});
    return criteria;
  };
  auto ext = [](std::string id, json failIfUnknown = false) {
    return json{{"id", std::move(id)}, {"data", "d"}, {"fail_if_unknown", failIfUnknown}};
  };
  const std::string smile = "\xF0\x9F\x98\x80";  // two UTF-16 code units
  const std::vector<std::pair<json, bool>> rows = {
      {ext(std::string(32, 'a')), true},
      {ext(std::string(33, 'a')), false},
      {ext(std::string(30, 'a') + smile), true},
      {ext(std::string(31, 'a') + smile), false},
      {ext(""), false},
      {ext("vendor_thing", true), false},
      {ext("vendor_thing", "yes"), false},
      {ext("vendor_thing", false), true},
      {ext("vendor_thing", 0), true},
      {ext("match_model", true), true},
      {json{{"id", 5}, {"data", "d"}, {"fail_if_unknown", false}}, false},
      {json{{"id", "match_model"}, {"fail_if_unknown", false}}, false},
      {json{{"id", "match_model"}, {"data", 1}, {"fail_if_unknown", false}}, false},
      {json{{"id", "match_model"}, {"data", "d"}}, false},
      {json{{"id", "match_model"}, {"data", "d"}, {"fail_if_unknown", nullptr}}, true},
      {json("match_model"), false},
  };
  for (const auto& [extension, valid] : rows) {
    EXPECT_EQ(PolicyHelper::checkMatchCriteriaValid(withExt(extension)), valid) << extension.dump();
  }
  json criteria = json::parse(R"({"aaid":["0F3D#0002"]})");
  for (std::string_view exts : {R"({"id":"match_model"})", R"("x")", "1", "null"}) {
    criteria["exts"] = json::parse(exts);
    EXPECT_FALSE(PolicyHelper::checkMatchCriteriaValid(criteria)) << exts;
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

// ----- findServerEnrolledKeyid -----

class PolicyEnrolledKeyTest : public PolicyTableTest {
 protected:
  AuthenticatorInfo enrolled(std::optional<std::vector<std::string>> keyIDs) {
    AuthenticatorInfo info = basicInfo();
    info.status = code(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED);
    info.keyIDs = std::move(keyIDs);
    return info;
  }
  static AsmRequest deregister(int64_t index) {
    AsmRequest request;
    request.requestType = 3;
    request.authenticatorIndex = index;
    request.args = DeregisterIn{"alice", std::nullopt, std::nullopt};
    return request;
  }
};

TEST_F(PolicyEnrolledKeyTest, SendsDeregisterOnlyWhenTheServerDoesNotKnowTheKey) {
  const std::vector<std::string> k1 = {"k0", "k1"};
  struct Case {
    std::string name;
    AuthenticatorInfo info;
    bool isReg;
    std::string_view disallowed;
    std::string username;
    bool result;
    std::vector<AsmRequest> sent;
  };
  AuthenticatorInfo supported = enrolled(k1);
  supported.status = 2;
  const std::vector<Case> cases = {
      {"not a registration", enrolled(k1), false, "", "alice", false, {}},
      {"status not enrolled", supported, true, "", "alice", false, {}},
      {"server lists the key",
       enrolled(k1),
       true,
       R"([null,{"aaid":["X"]},{"keyIDs":["k1"]}])",
       "alice",
       true,
       {}},
      {"server lists other keys",
       enrolled(k1),
       true,
       R"([{"keyIDs":["k9"]}])",
       "alice",
       false,
       {deregister(0)}},
      {"no local keys, list given",
       enrolled(std::nullopt),
       true,
       R"([{"keyIDs":["k1"]}])",
       "alice",
       false,
       {deregister(0)}},
      {"keys, no list", enrolled(k1), true, "", "alice", false, {deregister(8)}},
      {"keys, empty list", enrolled(k1), true, "[]", "alice", false, {deregister(8)}},
      {"no keys, no list", enrolled(std::vector<std::string>{}), true, "", "alice", false, {}},
      {"empty user name never deregisters", enrolled(k1), true, "", "", false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    requests.clear();
    EXPECT_EQ(helper.findServerEnrolledKeyid(&c.info, list(c.disallowed), c.isReg, c.username),
              c.result);
    EXPECT_EQ(requests, c.sent);
  }
}

TEST_F(PolicyEnrolledKeyTest, CheckPolicyShortCutsOrGoesOnAfterDeregister) {
  // The server holds the key: accepted without looking at the (empty) accepted list.
  AuthenticatorInfo info = enrolled(std::vector<std::string>{"k1"});
  Error error(kCorvaneErrorDomain, -1, "untouched");
  EXPECT_TRUE(helper.checkPolicy(&info, std::nullopt, list(R"([{"keyIDs":["k1"]}])"), true, "alice",
                                 &error));
  EXPECT_EQ(error.code(), -1);
  EXPECT_TRUE(requests.empty());
  // Otherwise the stale registrations go and the lists are judged as usual.
  EXPECT_FALSE(
      helper.checkPolicy(&info, list("[]"), list(R"([{"keyIDs":["k2"]}])"), true, "alice", &error));
  EXPECT_EQ(error, Error::corvane(40000, kNoAccepted));
  EXPECT_EQ(requests, std::vector<AsmRequest>{deregister(0)});
}

TEST_F(PolicyEnrolledKeyTest, WithoutRunnerNothingIsSent) {
  PolicyHelper quiet(device, nullptr);
  AuthenticatorInfo info = enrolled(std::vector<std::string>{"k1"});
  EXPECT_FALSE(quiet.findServerEnrolledKeyid(&info, std::nullopt, true, "alice"));
}

}  // namespace
}  // namespace corvane
