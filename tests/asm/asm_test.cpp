#include "asm/asm.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
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
    const auto factory = [this, indices](AsmDelegate& asmDelegate) {
      Asm::Authenticators made;
      for (uint64_t i : indices) {
        auto one = std::make_unique<ScriptedAuthenticator>(asmDelegate, i);
        doubles[i] = one.get();
        made[i] = std::move(one);
      }
      return made;
    };
    return std::make_unique<Asm>(delegate, *keys.keychain, keys.configuration, std::string(facet),
                                 factory);
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
  return {static_cast<uint64_t>(type),
          std::nullopt,
          8,
          std::move(args),
          std::vector<Extension>{{"ext-id", "ext-data", false}},
          userVerification};
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
  return {code, {}, std::nullopt};
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

// The token made by the first ASM is reused by the next one and goes into the registration record
// and, through the KHAccessToken, into both commands; authentication signs with the first of the
// requested keyIDs that is stored.
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
  AsmRequest r = authentication({"kid-0", "kid-1"});
  const std::vector<Transaction> transactions = {
      {"image/png", "iVBORw0", std::nullopt},
      {"text/plain", Utils::base64URLSafeStringFromData(asBytes("hello")), std::nullopt}};
  std::get<AuthenticateIn>(r.args).transaction = transactions;
  rig_.authenticator(2).signAnswer = {true, {0, "signed"}, std::nullopt};
  again->authenticate(r);
  EXPECT_EQ(rig_.authenticator(2).signCommands.at(0),
            (SignCommand{std::string(kAppID), ScriptedAuthenticator::hashOf(2, kChallenge),
                         expectedToken(rig_), "handle-kid-1", std::string(kUser),
                         std::vector<Transaction>{{"text/plain", "hello", std::nullopt}},
                         transactions, r.exts, std::nullopt, "Al"}));
  EXPECT_EQ(rig_.last().response.responseData,
            AsmResponse::Data(AuthenticateOut{"signed", "UAFV1TLV"}));
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

// Neither a failing store nor a request without deregistration arguments deletes anything.
TEST_F(AsmTest, StoreFailuresAreNeverReportedAsAbsence) {
  registerKey(rig_, *asm_, 2, "kid");
  EXPECT_EQ(asm_->deregister(request(AsmRequestType::kDeregister, {})), status(1));
  rig_.keys.fake()->failAllWrites(true);
  for (const DeregisterIn& in : {DeregisterIn{std::string(kUser), std::nullopt, std::nullopt},
                                 DeregisterIn{std::string(kUser), std::nullopt, "kid"},
                                 DeregisterIn{std::nullopt, std::nullopt, "kid"}, DeregisterIn{}}) {
    EXPECT_EQ(asm_->deregister(request(AsmRequestType::kDeregister, in)).statusCode, 1u)
        << in.username.value_or("*") << "/" << in.keyID.value_or("*");
  }
  rig_.keys.fake()->failAllWrites(false);
  // A store that cannot be read is a failure, not an empty match.
  rig_.keys.fake()->failAllReads(true);
  EXPECT_EQ(asm_->deregister(
                request(AsmRequestType::kDeregister, DeregisterIn{"", std::string(kAppID), ""})),
            status(1));
  rig_.keys.fake()->failAllReads(false);
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid").substr(0, 12), R"({"callerId":)");
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
  rig_.keys.fake()->failAllReads(true);
  EXPECT_EQ(get(*asm_, kUser), status(1));  // never 14
  rig_.keys.fake()->failAllReads(false);
  registerKey(rig_, *rig_.make("other-facet"), 2, "kid-other");
  EXPECT_EQ(get(*asm_, kUser), status(12));
  rig_.putRecord("ASMKH.data", "bob", "kid", "not json");
  EXPECT_EQ(get(*asm_, "bob"), status(1));
}

// Each form deletes exactly the registrations its arguments name, the ASM record with the
// authenticator's, and with an appID keeps to the registrations whose ASM record names it. alice
// holds a key under each of two applications, bob one under the first, and dave's record (under
// alice's first keyID) cannot be read, so it names no application. A key pair goes only with its
// user's last registration; only the form naming nothing takes the token too.
TEST(AsmDeregister, DeletesExactlyWhatItsArgumentsName) {
  const std::string x = "https://x.example/app";
  const std::string y = "https://y.example/app";
  struct Item {
    std::string user, keyID, record;
  };
  const std::vector<Item> items = {{"alice", "k1", R"({"appID":")" + x + R"("})"},
                                   {"alice", "k2", R"({"appID":")" + y + R"("})"},
                                   {"bob", "k3", R"({"appID":")" + x + R"("})"},
                                   {"dave", "k1", "not json"}};
  const auto tag = [](std::string_view user) {
    return "ios:bundle-id:com.example.host.0F3D#0002.PRI." + Utils::sha256(user);
  };
  const auto none = std::nullopt;
  const std::vector<std::string> all = {"alice/k1", "alice/k2",  "bob/k3",
                                        "dave/k1",  "key alice", "key bob"};
  const struct {
    std::vector<DeregisterIn> steps;
    std::vector<std::string> left;
  } cases[] = {
      {{{"alice", x, ""}}, {"alice/k2", "bob/k3", "dave/k1", "key alice", "key bob"}},
      {{{"alice", y, ""}}, {"alice/k1", "bob/k3", "dave/k1", "key alice", "key bob"}},
      {{{"alice", y, "k1"}}, all},
      {{{none, x, "k3"}}, {"alice/k1", "alice/k2", "dave/k1", "key alice"}},
      {{{"", x, ""}}, {"alice/k2", "dave/k1", "key alice"}},
      {{{"", y, ""}}, {"alice/k1", "bob/k3", "dave/k1", "key alice", "key bob"}},
      {{{"carol", x, ""}}, all},
      {{{"alice", "", "k1"}}, {"alice/k2", "bob/k3", "dave/k1", "key alice", "key bob"}},
      {{{"alice", "", ""}}, {"bob/k3", "dave/k1", "key bob"}},
      {{{"alice", none, none}}, {"bob/k3", "dave/k1", "key bob"}},
      {{{"alice", none, "k1"}, {"alice", none, "k2"}}, {"bob/k3", "dave/k1", "key bob"}},
      {{{"", "", "k1"}}, {"alice/k2", "bob/k3", "key alice", "key bob"}},
      {{{none, "", "k3"}}, {"alice/k1", "alice/k2", "dave/k1", "key alice"}},
      {{{none, none, "k3"}}, {"alice/k1", "alice/k2", "dave/k1", "key alice"}},
      {{{"carol", "", "k1"}}, all},
      {{{"", "", ""}}, {}},
      {{{}}, {}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    AsmRig rig;
    auto a = rig.make();
    for (const Item& item : items) {
      ASSERT_TRUE(rig.putRecord("ASMKH.data", item.user, item.keyID, item.record));
      ASSERT_TRUE(rig.putRecord("AUTHNR.data", item.user, item.keyID, "v"));
    }
    for (std::string_view user : {"alice", "bob"})
      ASSERT_TRUE(rig.keys.keychain->generate256EcKeyPair("PUB", tag(user)));
    for (const DeregisterIn& step : cases[i].steps)
      EXPECT_EQ(a->deregister(request(AsmRequestType::kDeregister, step)), status(0));
    std::vector<std::string> left;
    for (const Item& item : items) {
      const bool asmRecord = rig.record("ASMKH.data", item.user, item.keyID) != "-";
      const bool authenticatorRecord = rig.record("AUTHNR.data", item.user, item.keyID) != "-";
      EXPECT_EQ(asmRecord, authenticatorRecord) << item.user << item.keyID;
      if (asmRecord) left.push_back(item.user + "/" + item.keyID);
    }
    for (std::string user : {"alice", "bob"}) {
      if (rig.keys.keychain->signWithECDSASignatureMessageX962SHA256(asBytes("m"), tag(user)))
        left.push_back("key " + user);
    }
    EXPECT_EQ(left, cases[i].left);
    EXPECT_EQ(rig.storedToken() == "-", cases[i].left.empty());
  }
}

// The public entry points dispatch each request type to the operation of that name, and run
// nothing for "openSettings" or a type past the list. Each path runs in a fresh rig holding one
// registration of alice; what it returns, what the delegate hears, which commands the
// authenticators get and whether the record survives must match the direct call.
TEST(AsmDispatch, EveryEntryPointRunsTheOperationOfTheRequestType) {
  using Call = std::function<std::optional<AsmResponse>(Asm&, const AsmRequest&)>;
  struct Seen {
    std::optional<AsmResponse> returned;
    std::vector<std::tuple<bool, AsmResponse, std::optional<Error>>> answers;
    size_t registerCommands = 0, signCommands = 0;
    bool recordKept = false;
    bool operator==(const Seen&) const = default;
  };
  const auto run = [](const AsmRequest& r, const Call& call) {
    AsmRig rig;
    auto a = rig.make();
    registerKey(rig, *a, 2, "kid");
    rig.delegate.answers.clear();
    rig.authenticator(2).registerCommands.clear();
    rig.authenticator(2).registerAnswer = {true, registered(2, "kid-new"), std::nullopt};
    rig.authenticator(2).signAnswer = {true, {0, "signed"}, std::nullopt};
    Seen seen;
    seen.returned = call(*a, r);
    for (const auto& [authenticate, response, failure] : rig.delegate.answers)
      seen.answers.emplace_back(authenticate, response, failure);
    for (uint64_t index : {1, 2}) {
      seen.registerCommands += rig.authenticator(index).registerCommands.size();
      seen.signCommands += rig.authenticator(index).signCommands.size();
    }
    seen.recordKept = rig.record("ASMKH.data", kUser, "kid") != "-";
    return seen;
  };
  const auto returning = [](AsmResponse (Asm::*op)(const AsmRequest&)) -> Call {
    return [op](Asm& a, const AsmRequest& r) { return std::optional((a.*op)(r)); };
  };
  const auto answering = [](void (Asm::*op)(const AsmRequest&)) -> Call {
    return [op](Asm& a, const AsmRequest& r) {
      if (op) (a.*op)(r);
      return std::optional<AsmResponse>();
    };
  };
  const Call nothing = answering(nullptr);
  struct Case {
    std::string name;
    AsmRequest request;
    Call direct;  // the operation of that name, called directly
    // The status the direct call returns or the delegate hears (absent: neither), and whether
    // alice's record is left.
    std::optional<uint64_t> status;
    bool recordKept;
  };
  const std::vector<Case> cases = {
      {"getInfo", request(AsmRequestType::kGetInfo, {}), returning(&Asm::getInfo), 0, true},
      {"registration", registration(), answering(&Asm::registration), 0, true},
      {"authenticate", authentication({"kid"}), answering(&Asm::authenticate), 0, true},
      {"deregister",
       request(AsmRequestType::kDeregister, DeregisterIn{std::string(kUser), "", "kid"}),
       returning(&Asm::deregister), 0, false},
      {"getRegistrations",
       request(AsmRequestType::kGetRegistrations, GetRegistrationsIn{std::string(kUser)}),
       returning(&Asm::getRegistrations), 0, true},
      {"openSettings", request(AsmRequestType::kOpenSettings, DeregisterIn{}), nothing,
       std::nullopt, true},
      // Arguments that would wipe everything, were a type past the list taken for deregister.
      {"type 6", request(AsmRequestType{6}, DeregisterIn{}), nothing, std::nullopt, true},
      {"type 2^64-1", request(AsmRequestType{UINT64_MAX}, registration().args), nothing,
       std::nullopt, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Seen direct = run(c.request, c.direct);
    std::vector<uint64_t> statuses;
    if (direct.returned) statuses.push_back(direct.returned->statusCode);
    for (const auto& answer : direct.answers) statuses.push_back(std::get<1>(answer).statusCode);
    EXPECT_EQ(statuses, c.status ? std::vector{*c.status} : std::vector<uint64_t>{});
    EXPECT_EQ(direct.registerCommands + direct.signCommands, direct.answers.size());
    EXPECT_EQ(direct.recordKept, c.recordKept);

    Seen dropped = direct;
    dropped.returned.reset();
    EXPECT_EQ(run(c.request, answering(&Asm::executeWithAsmRequest)), dropped);
    Seen answered = direct;
    answered.returned = direct.returned.value_or(status(1));
    EXPECT_EQ(run(c.request, returning(&Asm::executeWithAsmRequestThenResponse)), answered);
    EXPECT_EQ(
        run(c.request, [](Asm& a, const AsmRequest& r) { return std::optional(a.runner()(r)); }),
        answered);
  }
}

}  // namespace
}  // namespace corvane
