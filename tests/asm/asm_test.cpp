#include "asm/asm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "authenticator/generic_authenticator.h"
#include "fakes/scripted_authenticator.h"
#include "storage/keychain_rig.h"

namespace corvane {
namespace {

using testing::ScriptedAuthenticator;
constexpr std::string_view kFacet = "ios:bundle-id:com.example.host";
constexpr std::string_view kAppID = "https://rp.example/app";
constexpr std::string_view kUser = "alice";
constexpr std::string_view kChallenge = "eyJmY1BhcmFtcyI6MX0";
constexpr std::string_view kPatternSwitch = "zandrel_fido_pattern_lock_active";

struct AsmRig {
  std::unique_ptr<Asm> make(std::string_view facet = kFacet, std::set<uint64_t> indices = {1, 2}) {
    return std::make_unique<Asm>(delegate, *keys.keychain, keys.configuration, std::string(facet),
                                 [this, indices](AsmDelegate& asmDelegate) {
                                   Asm::Authenticators made;
                                   for (uint64_t i : indices) {
                                     auto a =
                                         std::make_unique<ScriptedAuthenticator>(asmDelegate, i);
                                     doubles[i] = a.get();
                                     made[i] = std::move(a);
                                   }
                                   return made;
                                 });
  }
  ScriptedAuthenticator& authenticator(uint64_t index) { return *doubles.at(index); }
  std::string storedToken(std::string_view facet = kFacet) {
    auto value = keys.keychain->findGenericPasswordWithAccount(
        "CORVANE", std::string(facet) + ".asmToken", std::nullopt);
    return value && *value ? hexadecimalString((*value)->exposeSecret()) : "-";
  }
  std::string record(std::string_view prefix, std::string_view user, std::string_view keyID) {
    return testing::shown(keys.keychain->findGenericPasswordWithAccount(
        Utils::sha256(user) + ".0F3D#0002", std::string(prefix) + "." + std::string(keyID),
        std::string(prefix) + "." + Utils::sha256(user)));
  }
  bool putRecord(std::string_view prefix, std::string_view user, std::string_view keyID,
                 std::string_view text) {
    return keys.keychain->insertOrUpdateGenericPasswordWithAccount(
               Utils::sha256(user) + ".0F3D#0002", std::string(prefix) + "." + std::string(keyID),
               std::string(prefix) + "." + Utils::sha256(user),
               testing::secret(text)) == StoreStatus::ok;
  }
  const testing::RecordingCorvaneDelegate::Answer& last() const { return delegate.answers.back(); }

  testing::KeychainRig keys{testing::StoreKind::fake};
  testing::RecordingCorvaneDelegate delegate;
  std::map<uint64_t, ScriptedAuthenticator*> doubles;
};

AsmRequest request(AsmRequestType type, AsmRequest::Args args, uint64_t userVerification = 2) {
  AsmRequest request;
  request.requestType = static_cast<uint64_t>(type);
  request.authenticatorIndex = 8;
  request.userVerification = userVerification;
  request.exts = std::vector<Extension>{Extension{"ext-id", "ext-data", false}};
  request.args = std::move(args);
  return request;
}
AsmRequest registration(uint64_t userVerification = 2, std::string_view user = kUser) {
  return request(AsmRequestType::kRegistration,
                 RegisterIn{std::string(kAppID), std::string(user), std::string(kChallenge), "Al"},
                 userVerification);
}
AsmRequest authentication(std::vector<std::string> keyIDs, std::string_view user = kUser) {
  return request(AsmRequestType::kAuthenticate,
                 AuthenticateIn{std::string(kAppID), std::move(keyIDs), std::string(user),
                                std::string(kChallenge), std::nullopt, "Al"});
}
AsmResponse status(uint64_t code) {
  AsmResponse response;
  response.statusCode = code;
  return response;
}
std::optional<Error> error(int64_t code, std::string_view message) {
  return Error::corvane(code, std::string(message));
}
RegisterResponseCommand registered(uint64_t index, const std::string& keyID) {
  AssertionFields krd;
  krd.aaid = "0F3D#0002";
  krd.base64UrlKeyID = keyID;
  return {0, "assertion-" + keyID, "handle-" + keyID, index, krd};
}
std::string expectedToken(AsmRig& rig) {
  return *Asm::makeKHAccessToken(kAppID, rig.storedToken(), kFacet, nullptr);
}
void registerKey(AsmRig& rig, Asm& a, uint64_t index, const std::string& keyID,
                 std::string_view user = kUser) {
  rig.authenticator(index).registerAnswer = {true, registered(index, keyID), std::nullopt};
  a.registration(registration(index, user));
  ASSERT_EQ(rig.last().response.statusCode, 0u);
}

class AsmTest : public ::testing::Test {
 protected:
  AsmRig rig_;
  std::unique_ptr<Asm> asm_ = rig_.make();
};

TEST_F(AsmTest, TokenIsMadeOnceAndReusedByTheNextAsm) {
  const std::string token = rig_.storedToken();
  EXPECT_EQ(token.size(), 32u);
  auto again = rig_.make();
  registerKey(rig_, *again, 2, "kid-1");
  EXPECT_EQ(rig_.storedToken(), token);
  const RegisterCommand& command = rig_.authenticator(2).registerCommands.at(0);
  EXPECT_EQ(command,
            (RegisterCommand{std::nullopt, std::nullopt, std::string(kAppID),
                             ScriptedAuthenticator::hashOf(2, kChallenge), std::string(kUser),
                             expectedToken(rig_), std::nullopt, registration().exts, "Al"}));
  EXPECT_EQ(rig_.last().response.responseData,
            AsmResponse::Data(RegisterOut{"assertion-kid-1", "UAFV1TLV"}));
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid-1"),
            R"({"callerId":"ios:bundle-id:com.example.host","appID":"https://rp.example/app",)"
            R"("keyHandle":"handle-kid-1","keyID":"kid-1","asmToken":")" +
                token + R"(","userVerification":2})");
  rig_.make("other-facet");
  EXPECT_NE(rig_.storedToken("other-facet"), token);
}

struct Case {
  std::string name;
  std::function<void(AsmRig&, AsmRequest&)> arrange;
  uint64_t status;
  std::optional<Error> error;
  bool commandSent;
};
RegisterResponseCommand failure(uint64_t code) {
  return {code, {}, {}, 0, {}};
}
void runCases(const std::vector<Case>& cases, bool authenticate) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AsmRig rig;
    auto a = rig.make();
    rig.authenticator(2).registerAnswer = {true, registered(2, "kid"), std::nullopt};
    rig.putRecord("ASMKH.data", kUser, "kid", R"({"keyHandle":"h","userVerification":2})");
    AsmRequest r = authenticate ? authentication({"kid"}) : registration();
    c.arrange(rig, r);
    authenticate ? a->authenticate(r) : a->registration(r);
    ASSERT_EQ(rig.delegate.answers.size(), 1u);
    EXPECT_EQ(rig.last().response.statusCode, c.status);
    EXPECT_EQ(rig.last().error, c.error);
    const auto& d = rig.doubles;
    EXPECT_EQ(d.at(1)->registerCommands.size() + d.at(1)->signCommands.size() +
                  d.at(2)->registerCommands.size() + d.at(2)->signCommands.size(),
              c.commandSent ? 1u : 0u);
  }
}
#define ARRANGE(body) [=]([[maybe_unused]] AsmRig& rig, [[maybe_unused]] AsmRequest& r) { body; }
#define REG(answer) ARRANGE(rig.authenticator(2).registerAnswer = answer)
#define SIGN(answer) ARRANGE(rig.authenticator(2).signAnswer = answer)
#define RECORD(text) ARRANGE(rig.putRecord("ASMKH.data", kUser, "kid", text))
#define SWITCH(value) ARRANGE(rig.keys.host.setInfo(kSdkConfigKey, kPatternSwitch, value))

TEST(AsmStatus, RegistrationStatusPaths) {
  RegisterResponseCommand noKrd = registered(2, "k"), badHandle = registered(2, "k");
  noKrd.krd.reset();
  badHandle.keyHandle = "\xff";
  using A = ScriptedAuthenticator::Answer<RegisterResponseCommand>;
  runCases({{"PatternOff", SWITCH("N"), 20, error(20, "no active authenticator."), false},
            {"LowerCaseN", SWITCH("n"), 0, std::nullopt, true},
            {"NoAuthenticator", ARRANGE(r.userVerification = 3), 10,
             error(10, "no matched authenticator."), false},
            {"WrongArguments", ARRANGE(r.args = AuthenticateIn{}), 1,
             error(1, Asm::kInvalidArguments), false},
            {"AppIDNotUtf8", ARRANGE(std::get<RegisterIn>(r.args).appID = "\xc0\xaf"), 1,
             error(1, Asm::kInvalidText), false},
            {"Null", REG((A{false, {}, std::nullopt})), 1, std::nullopt, true},
            {"NullWithError", REG((A{false, {}, error(5, "c")})), 1, error(3, "c"), true},
            {"TempLockout", REG((A{true, failure(17), error(17, "w")})), 18, error(18, "w"), true},
            {"Above18", REG((A{true, failure(19), error(19, "o")})), 1, error(1, "o"), true},
            {"NotSupported", REG((A{true, failure(6), {}})), 0, std::nullopt, true},
            {"NoKrd", REG((A{true, noKrd, {}})), 1, error(1, Asm::kIncompleteResponse), true},
            {"HandleNotUtf8", REG((A{true, badHandle, {}})), 1, error(1, Asm::kInvalidText), true},
            {"RecordNotStored", ARRANGE(rig.keys.fake()->failAllWrites(true)), 1,
             error(1, "cannot store registration data."), true},
            {"SuccessWithoutRecord", ARRANGE(rig.authenticator(2).writesRecords = false), 1,
             error(1, "cannot store registration data."), true},
            {"StoreUnreadable", ARRANGE(rig.keys.fake()->failAllReads(true)), 1,
             error(1, "the item store failed."), false}},
           false);
}

TEST(AsmStatus, AuthenticationStatusPaths) {
  const auto noData = error(14, "no registration data");
  const auto bad = error(1, Asm::kInvalidRecord);
  using A = ScriptedAuthenticator::Answer<SignResponseCommand>;
  runCases(
      {{"NoKeyIDs", ARRANGE(std::get<AuthenticateIn>(r.args).keyIDs.reset()), 14, noData, false},
       {"NoneStored", ARRANGE(r = authentication({"x", "y"})), 14, noData, false},
       {"OtherUser", ARRANGE(r = authentication({"kid"}, "bob")), 14, noData, false},
       {"NotAnObject", RECORD("[1]"), 1, bad, false},
       // A damaged record is never quoted: it holds the key handle and the token.
       {"Damaged", RECORD(R"({"keyHandle":"secret-handle)"), 1, bad, false},
       {"NoKeyHandle", RECORD(R"({"userVerification":2})"), 1, bad, false},
       {"NegativeIndex", RECORD(R"({"keyHandle":"h","userVerification":-2})"), 1, bad, false},
       {"NoAuthenticator", RECORD(R"({"keyHandle":"h","userVerification":3})"), 10,
        error(10, "no matched authenticator with index:3"), false},
       {"WrongArguments", ARRANGE(r.args = RegisterIn{}), 1, error(1, Asm::kInvalidArguments),
        false},
       {"PatternOff", SWITCH("N"), 20, error(20, "authenticator not active."), false},
       {"Null", SIGN((A{false, {}, std::nullopt})), 1, std::nullopt, true},
       {"Lockout", SIGN((A{true, {13, {}}, error(13, "l")})), 13, error(13, "l"), true},
       {"UnknownCode", SIGN((A{true, {42, {}}, error(-7, "x")})), 1, error(1, "x"), true},
       // A store that cannot be read says nothing about enrolment: never 14.
       {"StoreUnreadable", ARRANGE(rig.keys.fake()->failAllReads(true)), 1,
        error(1, "the item store failed."), false},
       {"RecordUnreadable", ARRANGE(rig.keys.fake()->failReadsOfService("ASMKH.data.kid")), 1,
        error(1, "the item store failed."), false}},
      true);
}

// Each kind of deregistration deletes the key pairs it orphans, and only those: a user keeps the
// key while a registration of theirs is left, and other users keep theirs.
TEST(AsmDeregistrationTest, KeysGoWithTheirLastRegistration) {
  const auto tag = [](std::string_view user) {
    return "ios:bundle-id:com.example.host.0F3D#0002.PRI." + Utils::sha256(user);
  };
  struct Case {
    std::string name;
    std::vector<DeregisterIn> steps;
    std::vector<std::string> keysLeft;
  };
  const std::vector<Case> cases = {
      {"user", {{"alice", std::nullopt, std::nullopt}}, {"bob"}},
      {"one of two keyIDs", {{"alice", std::nullopt, "kid-a1"}}, {"alice", "bob"}},
      {"both keyIDs",
       {{"alice", std::nullopt, "kid-a1"}, {"alice", std::nullopt, "kid-a2"}},
       {"bob"}},
      {"keyID alone", {{std::nullopt, std::nullopt, "kid-b"}}, {"alice"}},
      {"everything", {{}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AsmRig rig;
    auto a = rig.make();
    for (auto [user, keyID] :
         {std::pair{"alice", "kid-a1"}, {"alice", "kid-a2"}, {"bob", "kid-b"}}) {
      registerKey(rig, *a, 2, keyID, user);
      ASSERT_TRUE(rig.keys.keychain->generate256EcKeyPair("PUB", tag(user)));
    }
    for (const DeregisterIn& step : c.steps) {
      EXPECT_EQ(a->deregister(request(AsmRequestType::kDeregister, step)).statusCode, 0u);
    }
    std::vector<std::string> left;
    for (std::string user : {"alice", "bob"}) {
      if (rig.keys.keychain->signWithECDSASignatureMessageX962SHA256(asBytes("m"), tag(user))) {
        left.push_back(user);
      }
    }
    EXPECT_EQ(left, c.keysLeft);
  }
}

TEST_F(AsmTest, StoreFailuresAreNeverReportedAsAbsence) {
  registerKey(rig_, *asm_, 2, "kid");
  const AsmRequest registrations =
      request(AsmRequestType::kGetRegistrations, GetRegistrationsIn{std::string(kUser)});
  EXPECT_EQ(asm_->getRegistrations(registrations).statusCode, 0u);
  rig_.keys.fake()->failAllReads(true);
  EXPECT_EQ(asm_->getRegistrations(registrations).statusCode, 1u);
  rig_.keys.fake()->failAllReads(false);
  rig_.keys.fake()->failAllWrites(true);
  for (const DeregisterIn& in : {DeregisterIn{std::string(kUser), std::nullopt, std::nullopt},
                                 DeregisterIn{std::string(kUser), std::nullopt, "kid"},
                                 DeregisterIn{std::nullopt, std::nullopt, "kid"}, DeregisterIn{}}) {
    EXPECT_EQ(asm_->deregister(request(AsmRequestType::kDeregister, in)).statusCode, 1u)
        << in.username.value_or("*") << "/" << in.keyID.value_or("*");
  }
  rig_.keys.fake()->failAllWrites(false);
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid").substr(0, 12), R"({"callerId":)");
}

TEST_F(AsmTest, AuthenticationUsesTheFirstStoredKeyID) {
  registerKey(rig_, *asm_, 2, "kid-2");
  AsmRequest r = authentication({"kid-1", "kid-2"});
  const std::vector<Transaction> transactions = {
      {"image/png", "iVBORw0", std::nullopt},
      {"text/plain", Utils::base64URLSafeStringFromData(asBytes("hello")), std::nullopt}};
  std::get<AuthenticateIn>(r.args).transaction = transactions;
  rig_.authenticator(2).signAnswer = {true, {0, "signed"}, std::nullopt};
  asm_->authenticate(r);
  EXPECT_EQ(rig_.authenticator(2).signCommands.at(0),
            (SignCommand{std::string(kAppID), ScriptedAuthenticator::hashOf(2, kChallenge),
                         expectedToken(rig_), "handle-kid-2", std::string(kUser),
                         std::vector<Transaction>{{"text/plain", "hello", std::nullopt}},
                         transactions, r.exts, std::nullopt, "Al"}));
  EXPECT_EQ(rig_.last().response.responseData,
            AsmResponse::Data(AuthenticateOut{"signed", "UAFV1TLV"}));
}

TEST_F(AsmTest, InactivePatternDeregistersOnlyTheUserThenAnswers20) {
  for (std::string_view user : {"alice", "bob"}) registerKey(rig_, *asm_, 2, "kid", user);
  rig_.putRecord("AUTHNR.data", kUser, "kid", "{}");
  rig_.keys.host.setInfo(kSdkConfigKey, kPatternSwitch, "N");
  asm_->authenticate(authentication({"kid"}));
  EXPECT_EQ(rig_.last().error, error(20, "authenticator not active."));
  EXPECT_EQ(rig_.record("AUTHNR.data", kUser, "kid"), "-");
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid"), "-");
  EXPECT_NE(rig_.record("ASMKH.data", "bob", "kid"), "-");
}

TEST_F(AsmTest, GetInfoReportsEachUserVerification) {
  rig_.authenticator(1).supportStatus = 6;
  const AsmRequest info = request(AsmRequestType::kGetInfo, {});
  AsmResponse response = asm_->getInfo(info);
  ASSERT_EQ(response.statusCode, 0u);
  const auto& infos = *std::get<GetInfoOut>(response.responseData).authenticators;
  ASSERT_EQ(infos.size(), 2u);
  AuthenticatorInfo expected = GenericAuthenticator::getBasicAuthenticatorInfo();
  expected.uvs = {"biometry", "pattern"};
  expected.uv = "biometry";
  expected.status = 6;
  EXPECT_EQ(infos[0], expected);
  EXPECT_EQ(infos[1].uv, "pattern");
  response = rig_.make(kFacet, {2})->getInfo(info);  // No authenticator reads as unsupported.
  EXPECT_EQ(std::get<GetInfoOut>(response.responseData).authenticators->at(0).status, 1u);
}

TEST_F(AsmTest, GetRegistrationsReportsTheNewestOfTheCaller) {
  const auto get = [&](Asm& a, std::string_view user, int64_t index = 8) {
    AsmRequest r =
        request(AsmRequestType::kGetRegistrations, GetRegistrationsIn{std::string(user)});
    r.authenticatorIndex = index;
    return a.getRegistrations(r);
  };
  EXPECT_EQ(get(*asm_, kUser), status(14));
  registerKey(rig_, *asm_, 1, "kid-old");
  registerKey(rig_, *asm_, 2, "kid-new");
  EXPECT_EQ(get(*asm_, kUser, 0), status(1));
  AsmResponse expected = status(0);
  expected.responseData = GetRegistrationOut{std::vector<AppRegistration>{
      {std::string(kAppID), std::vector<std::string>{"kid-new"}, "pattern"}}};
  EXPECT_EQ(get(*asm_, kUser), expected);
  EXPECT_EQ(asm_->getRegistrations(request(AsmRequestType::kGetRegistrations, DeregisterIn{})),
            status(1));
  registerKey(rig_, *rig_.make("other-facet"), 2, "kid-other");
  EXPECT_EQ(get(*asm_, kUser), status(12));
  rig_.putRecord("ASMKH.data", "bob", "kid", "not json");
  EXPECT_EQ(get(*asm_, "bob"), status(1));
}

TEST(AsmDeregister, DeletesExactlyWhatItsArgumentsName) {
  const std::vector<std::array<std::string, 3>> items = {{"ASMKH.data", "alice", "k1"},
                                                         {"AUTHNR.data", "alice", "k1"},
                                                         {"ASMKH.data", "alice", "k2"},
                                                         {"ASMKH.data", "bob", "k1"},
                                                         {"ASMKH.data", "bob", "k3"}};
  using Name = std::optional<std::string>;
  const struct {
    Name user, keyID;
    std::vector<size_t> deleted;
    bool all;
  } cases[] = {{"alice", "k1", {0, 1}, false}, {"alice", "", {0, 1, 2}, false},
               {"", "k1", {0, 1, 3}, false},   {{}, "k3", {4}, false},
               {"carol", "k1", {}, false},     {"", "", {}, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user.value_or("(none)") + "/" + c.keyID.value_or("(none)"));
    AsmRig rig;
    auto a = rig.make();
    for (const auto& [prefix, user, keyID] : items) rig.putRecord(prefix, user, keyID, "v");
    EXPECT_EQ(
        a->deregister(request(AsmRequestType::kDeregister, DeregisterIn{c.user, "", c.keyID})),
        status(0));
    for (size_t i = 0; i < items.size(); ++i) {
      const bool gone = c.all || std::count(c.deleted.begin(), c.deleted.end(), i) == 1;
      EXPECT_EQ(rig.record(items[i][0], items[i][1], items[i][2]), gone ? "-" : "v") << i;
    }
    EXPECT_EQ(rig.storedToken() == "-", c.all);
  }
  AsmRig rig;
  rig.putRecord("ASMKH.data", "alice", "k1", "v");
  EXPECT_EQ(rig.make()->deregister(request(AsmRequestType::kDeregister, {})), status(1));
  EXPECT_EQ(rig.record("ASMKH.data", "alice", "k1"), "v");
}

// With an appID every form keeps to the registrations whose ASM record names it: alice holds a key
// under each of two applications, bob one under the first, and dave's record cannot be read, so it
// names no application. A key pair goes only with its user's last registration.
TEST(AsmDeregister, AnAppIDNarrowsEveryForm) {
  const std::string x = "https://x.example/app";
  const std::string y = "https://y.example/app";
  struct Item {
    std::string user, keyID, record;
  };
  const std::vector<Item> items = {{"alice", "k1", R"({"appID":")" + x + R"("})"},
                                   {"alice", "k2", R"({"appID":")" + y + R"("})"},
                                   {"bob", "k3", R"({"appID":")" + x + R"("})"},
                                   {"dave", "k4", "not json"}};
  const auto tag = [](std::string_view user) {
    return "ios:bundle-id:com.example.host.0F3D#0002.PRI." + Utils::sha256(user);
  };
  using Name = std::optional<std::string>;
  const struct {
    Name user, keyID;
    std::string appID;
    std::vector<std::string> left;
  } cases[] = {
      {"alice", "", x, {"alice/k2", "bob/k3", "dave/k4", "key alice", "key bob"}},
      {"alice", "", y, {"alice/k1", "bob/k3", "dave/k4", "key alice", "key bob"}},
      {"alice", "k1", y, {"alice/k1", "alice/k2", "bob/k3", "dave/k4", "key alice", "key bob"}},
      {{}, "k3", x, {"alice/k1", "alice/k2", "dave/k4", "key alice"}},
      {"", "", x, {"alice/k2", "dave/k4", "key alice"}},
      {"", "", y, {"alice/k1", "bob/k3", "dave/k4", "key alice", "key bob"}},
      {"carol", "", x, {"alice/k1", "alice/k2", "bob/k3", "dave/k4", "key alice", "key bob"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user.value_or("(none)") + "/" + c.keyID.value_or("(none)") + "/" + c.appID);
    AsmRig rig;
    auto a = rig.make();
    for (const Item& item : items) {
      ASSERT_TRUE(rig.putRecord("ASMKH.data", item.user, item.keyID, item.record));
      ASSERT_TRUE(rig.putRecord("AUTHNR.data", item.user, item.keyID, "v"));
    }
    for (std::string_view user : {"alice", "bob"}) {
      ASSERT_TRUE(rig.keys.keychain->generate256EcKeyPair("PUB", tag(user)));
    }
    EXPECT_EQ(
        a->deregister(request(AsmRequestType::kDeregister, DeregisterIn{c.user, c.appID, c.keyID})),
        status(0));
    std::vector<std::string> left;
    for (const Item& item : items) {
      const bool asmRecord = rig.record("ASMKH.data", item.user, item.keyID) != "-";
      const bool authenticatorRecord = rig.record("AUTHNR.data", item.user, item.keyID) != "-";
      EXPECT_EQ(asmRecord, authenticatorRecord) << item.keyID;
      if (asmRecord) left.push_back(item.user + "/" + item.keyID);
    }
    for (std::string user : {"alice", "bob"}) {
      if (rig.keys.keychain->signWithECDSASignatureMessageX962SHA256(asBytes("m"), tag(user))) {
        left.push_back("key " + user);
      }
    }
    EXPECT_EQ(left, c.left);
    EXPECT_NE(rig.storedToken(), "-");
  }
  // A store that cannot be read is a failure, not an empty match.
  AsmRig rig;
  auto a = rig.make();
  ASSERT_TRUE(rig.putRecord("ASMKH.data", "alice", "k1", items[0].record));
  rig.keys.fake()->failAllReads(true);
  EXPECT_EQ(a->deregister(request(AsmRequestType::kDeregister, DeregisterIn{"", x, ""})),
            status(1));
  rig.keys.fake()->failAllReads(false);
  EXPECT_NE(rig.record("ASMKH.data", "alice", "k1"), "-");
}

// The public entry points dispatch each request type to the operation of that name, and run
// nothing for "openSettings" or a type past the list. Each path runs in a fresh rig holding one
// registration of alice; what it returns, what the delegate hears, which commands the
// authenticators get and whether the record survives must match the direct call.
TEST(AsmDispatch, EveryEntryPointRunsTheOperationOfTheRequestType) {
  struct Seen {
    std::optional<AsmResponse> returned;
    std::vector<std::pair<bool, AsmResponse>> answers;
    std::vector<std::optional<Error>> errors;
    size_t registerCommands = 0;
    size_t signCommands = 0;
    bool recordKept = false;
    bool operator==(const Seen&) const = default;
  };
  enum class Path { direct, execute, thenResponse, runner };
  const auto run = [](const AsmRequest& r, Path path) {
    AsmRig rig;
    auto a = rig.make();
    registerKey(rig, *a, 2, "kid");
    rig.delegate.answers.clear();
    rig.authenticator(2).registerCommands.clear();
    rig.authenticator(2).registerAnswer = {true, registered(2, "kid-new"), std::nullopt};
    rig.authenticator(2).signAnswer = {true, {0, "signed"}, std::nullopt};
    Seen seen;
    switch (path) {
      case Path::direct:
        switch (r.requestType) {
          case 0:
            seen.returned = a->getInfo(r);
            break;
          case 1:
            a->registration(r);
            break;
          case 2:
            a->authenticate(r);
            break;
          case 3:
            seen.returned = a->deregister(r);
            break;
          case 4:
            seen.returned = a->getRegistrations(r);
            break;
          default:
            break;
        }
        break;
      case Path::execute:
        a->executeWithAsmRequest(r);
        break;
      case Path::thenResponse:
        seen.returned = a->executeWithAsmRequestThenResponse(r);
        break;
      case Path::runner:
        seen.returned = a->runner()(r);
        break;
    }
    for (const auto& answer : rig.delegate.answers) {
      seen.answers.emplace_back(answer.authenticate, answer.response);
      seen.errors.push_back(answer.error);
    }
    for (uint64_t index : {1, 2}) {
      seen.registerCommands += rig.authenticator(index).registerCommands.size();
      seen.signCommands += rig.authenticator(index).signCommands.size();
    }
    seen.recordKept = rig.record("ASMKH.data", kUser, "kid") != "-";
    return seen;
  };
  const auto typed = [](uint64_t type, AsmRequest r) {
    r.requestType = type;
    return r;
  };
  struct Case {
    std::string name;
    AsmRequest request;
    // What the direct call does: the status it returns (absent: returns nothing), the status the
    // delegate hears (absent: hears nothing), and whether alice's record is left.
    std::optional<uint64_t> returned, answered;
    bool recordKept;
  };
  const std::vector<Case> cases = {
      {"getInfo", request(AsmRequestType::kGetInfo, {}), 0, std::nullopt, true},
      {"registration", registration(), std::nullopt, 0, true},
      {"authenticate", authentication({"kid"}), std::nullopt, 0, true},
      {"deregister",
       request(AsmRequestType::kDeregister, DeregisterIn{std::string(kUser), "", "kid"}), 0,
       std::nullopt, false},
      {"getRegistrations",
       request(AsmRequestType::kGetRegistrations, GetRegistrationsIn{std::string(kUser)}), 0,
       std::nullopt, true},
      {"openSettings", request(AsmRequestType::kOpenSettings, DeregisterIn{}), std::nullopt,
       std::nullopt, true},
      // Arguments that would wipe everything, were a type past the list taken for deregister.
      {"type 6", typed(6, request(AsmRequestType::kDeregister, DeregisterIn{})), std::nullopt,
       std::nullopt, true},
      {"type 2^64-1", typed(UINT64_MAX, registration()), std::nullopt, std::nullopt, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Seen direct = run(c.request, Path::direct);
    EXPECT_EQ(direct.returned ? std::optional(direct.returned->statusCode) : std::nullopt,
              c.returned);
    ASSERT_EQ(direct.answers.size(), c.answered ? 1u : 0u);
    if (c.answered) {
      EXPECT_EQ(direct.answers[0].second.statusCode, *c.answered);
    }
    EXPECT_EQ(direct.registerCommands + direct.signCommands, c.answered ? 1u : 0u);
    EXPECT_EQ(direct.recordKept, c.recordKept);

    Seen dropped = direct;
    dropped.returned.reset();
    EXPECT_EQ(run(c.request, Path::execute), dropped);
    Seen answered = direct;
    answered.returned = direct.returned.value_or(status(1));
    EXPECT_EQ(run(c.request, Path::thenResponse), answered);
    EXPECT_EQ(run(c.request, Path::runner), answered);
  }
}

}  // namespace
}  // namespace corvane
