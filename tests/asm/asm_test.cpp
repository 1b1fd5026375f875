#include "asm/asm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
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

using testing::KeychainRig;
using testing::ScriptedAuthenticator;
using testing::StoreKind;

constexpr std::string_view kFacet = "ios:bundle-id:com.example.host";
constexpr std::string_view kAppID = "https://rp.example/app";
constexpr std::string_view kUser = "alice";
constexpr std::string_view kChallenge = "eyJmY1BhcmFtcyI6MX0";
constexpr std::string_view kPatternSwitch = "zandrel_fido_pattern_lock_active";

// An Asm over the Keychain rig with scripted authenticators and a recording client delegate.
struct AsmRig {
  explicit AsmRig(StoreKind kind = StoreKind::fake) : keys(kind) {}

  std::unique_ptr<Asm> make(std::string_view facet = kFacet, std::set<uint64_t> indices = {1, 2}) {
    return std::make_unique<Asm>(
        delegate, *keys.keychain, keys.configuration, std::string(facet),
        [this, indices](AsmDelegate& asmDelegate) {
          Asm::Authenticators made;
          for (uint64_t index : indices) {
            made[index] = std::make_unique<ScriptedAuthenticator>(asmDelegate, index);
            doubles[index] = static_cast<ScriptedAuthenticator*>(made[index].get());
          }
          return made;
        });
  }
  ScriptedAuthenticator& authenticator(uint64_t index) { return *doubles.at(index); }
  Keychain& keychain() { return *keys.keychain; }
  void setSwitch(std::string_view key, std::string_view value) {
    keys.host.setInfo(kSdkConfigKey, key, std::string(value));
  }
  // The stored ASM token of `facet` in hex, or "-".
  std::string storedToken(std::string_view facet = kFacet) {
    auto value = keychain().findGenericPasswordWithAccount(
        "CORVANE", std::string(facet) + ".asmToken", std::nullopt);
    return value ? hexadecimalString(value->exposeSecret()) : "-";
  }
  // The record of `prefix` ("ASMKH.data" or "AUTHNR.data") for (user, keyID), or "-".
  std::string record(std::string_view prefix, std::string_view user, std::string_view keyID) {
    auto value = keychain().findGenericPasswordWithAccount(
        Utils::sha256(user) + ".0F3D#0002", std::string(prefix) + "." + std::string(keyID),
        std::string(prefix) + "." + Utils::sha256(user));
    return value ? std::string(value->exposeSecretText()) : "-";
  }
  bool putRecord(std::string_view prefix, std::string_view user, std::string_view keyID,
                 std::string_view text) {
    return keychain().insertOrUpdateGenericPasswordWithAccount(
        Utils::sha256(user) + ".0F3D#0002", std::string(prefix) + "." + std::string(keyID),
        std::string(prefix) + "." + Utils::sha256(user), testing::secret(text));
  }
  const testing::RecordingCorvaneDelegate::Answer& last() const { return delegate.answers.back(); }

  KeychainRig keys;
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
// Registers `keyID` for `user` with authenticator `index` through the whole flow.
void registerKey(AsmRig& rig, Asm& a, uint64_t index, const std::string& keyID,
                 std::string_view user = kUser) {
  rig.authenticator(index).registerAnswer = {true, registered(index, keyID), std::nullopt};
  a.registration(registration(index, user));
  ASSERT_EQ(rig.last().response.statusCode, 0u);
}

class AsmTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  AsmRig rig_{GetParam()};
  std::unique_ptr<Asm> asm_ = rig_.make();
};
INSTANTIATE_TEST_SUITE_P(AsmStores, AsmTest, ::testing::Values(StoreKind::fake, StoreKind::sqlite),
                         [](const auto& info) { return testing::storeKindName(info.param); });

TEST_P(AsmTest, TokenIsMadeOnceAndReusedByTheNextAsm) {
  ScriptedAuthenticator& first = rig_.authenticator(2);
  EXPECT_EQ(asm_->asmTokenTag(), std::string(kFacet) + ".asmToken");
  const std::string token = rig_.storedToken();
  EXPECT_EQ(token.size(), 32u);
  auto again = rig_.make();
  again->registration(registration());
  EXPECT_EQ(rig_.storedToken(), token);
  EXPECT_EQ(rig_.authenticator(2).registerCommands.at(0).khAccessToken, expectedToken(rig_));
  auto other = rig_.make("other-facet");
  EXPECT_NE(rig_.storedToken("other-facet"), token);
  // After a wipe of all data the next registration makes, stores and uses a new token.
  again->deregister(request(AsmRequestType::kDeregister, DeregisterIn{}));
  EXPECT_EQ(rig_.storedToken(), "-");
  asm_->registration(registration());
  EXPECT_NE(rig_.storedToken(), token);
  EXPECT_EQ(first.registerCommands.at(0).khAccessToken, expectedToken(rig_));
}

TEST_P(AsmTest, RegistrationFillsTheCommandAndStoresTheRecord) {
  registerKey(rig_, *asm_, 2, "kid-1");
  const RegisterCommand& command = rig_.authenticator(2).registerCommands.at(0);
  EXPECT_EQ(command,
            (RegisterCommand{std::nullopt, std::nullopt, std::string(kAppID),
                             ScriptedAuthenticator::hashOf(2, kChallenge), std::string(kUser),
                             expectedToken(rig_), std::nullopt, registration().exts, "Al"}));
  EXPECT_TRUE(rig_.authenticator(1).registerCommands.empty());
  EXPECT_EQ(rig_.last().error, std::nullopt);
  EXPECT_EQ(rig_.last().response.responseData,
            AsmResponse::Data(RegisterOut{"assertion-kid-1", "UAFV1TLV"}));
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid-1"),
            R"({"callerId":"ios:bundle-id:com.example.host","appID":"https://rp.example/app",)"
            R"("keyHandle":"handle-kid-1","keyID":"kid-1","asmToken":")" +
                rig_.storedToken() + R"(","userVerification":2})");
  EXPECT_EQ(rig_.keychain().findGenericPasswordServicesDescWithAccount(
                Utils::sha256(kUser) + ".0F3D#0002", "ASMKH.data." + Utils::sha256(kUser)),
            std::vector<std::string>{"ASMKH.data.kid-1"});
}

// One row: how to prepare the rig and the request, and the answer expected.
struct Case {
  std::string name;
  std::function<void(AsmRig&, AsmRequest&)> arrange;
  uint64_t status;
  std::optional<Error> error;
  bool commandSent;
};
using Arrange = std::function<void(AsmRig&, AsmRequest&)>;
Arrange switchOff(std::string_view key, std::string_view value = "N") {
  return [=](AsmRig& rig, AsmRequest&) { rig.setSwitch(key, value); };
}
Arrange edit(std::function<void(AsmRequest&)> change) {
  return [=](AsmRig&, AsmRequest& r) { change(r); };
}
Arrange registerAnswer(ScriptedAuthenticator::Answer<RegisterResponseCommand> answer) {
  return [=](AsmRig& rig, AsmRequest&) { rig.authenticator(2).registerAnswer = answer; };
}
Arrange signAnswer(ScriptedAuthenticator::Answer<SignResponseCommand> answer) {
  return [=](AsmRig& rig, AsmRequest&) { rig.authenticator(2).signAnswer = answer; };
}
Arrange storedRecord(std::string text) {
  return [=](AsmRig& rig, AsmRequest&) { rig.putRecord("ASMKH.data", kUser, "kid", text); };
}
RegisterResponseCommand failure(uint64_t code) {
  return {code, std::nullopt, std::nullopt, 0, std::nullopt};
}

void runCases(StoreKind kind, const std::vector<Case>& cases, bool authenticate) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AsmRig rig(kind);
    auto a = rig.make();
    rig.authenticator(2).registerAnswer = {true, registered(2, "kid"), std::nullopt};
    rig.putRecord("ASMKH.data", kUser, "kid", R"({"keyHandle":"h","userVerification":2})");
    AsmRequest r = authenticate ? authentication({"kid"}) : registration();
    c.arrange(rig, r);
    authenticate ? a->authenticate(r) : a->registration(r);
    ASSERT_EQ(rig.delegate.answers.size(), 1u);
    EXPECT_EQ(rig.last().authenticate, authenticate);
    EXPECT_EQ(rig.last().response.statusCode, c.status);
    EXPECT_EQ(rig.last().error, c.error);
    if (c.status != 0 || c.name == "NotSupportedReadsAsZero") {
      EXPECT_EQ(rig.last().response.responseData, AsmResponse::Data());
    }
    const auto& doubles = rig.doubles;
    const size_t sent = doubles.at(1)->registerCommands.size() +
                        doubles.at(1)->signCommands.size() +
                        doubles.at(2)->registerCommands.size() + doubles.at(2)->signCommands.size();
    EXPECT_EQ(sent, c.commandSent ? 1u : 0u);
  }
}

TEST_P(AsmTest, RegistrationStatusPaths) {
  RegisterResponseCommand noKrd = registered(2, "k"), badHandle = registered(2, "k");
  noKrd.krd.reset();
  badHandle.keyHandle = "\xff";
  runCases(
      GetParam(),
      {
          {"PatternOff", switchOff(kPatternSwitch), 20, error(20, "no active authenticator."),
           false},
          {"LowerCaseNKeepsItOn", switchOff(kPatternSwitch, "n"), 0, std::nullopt, true},
          {"NoAuthenticator", edit([](AsmRequest& r) { r.userVerification = 3; }), 10,
           error(10, "no matched authenticator."), false},
          {"WrongArguments", edit([](AsmRequest& r) { r.args = AuthenticateIn{}; }), 1,
           error(1, Asm::kInvalidArguments), false},
          {"AppIDNotUtf8",
           edit([](AsmRequest& r) { std::get<RegisterIn>(r.args).appID = "\xc0\xaf"; }), 1,
           error(1, Asm::kInvalidText), false},
          {"NullResponse", registerAnswer({false, {}, std::nullopt}), 1, std::nullopt, true},
          {"NullResponseWithError", registerAnswer({false, {}, error(5, "user canceled")}), 1,
           error(3, "user canceled"), true},
          {"TempLockout", registerAnswer({true, failure(17), error(17, "wait (30) s.")}), 18,
           error(18, "wait (30) s."), true},
          {"CodeAbove18", registerAnswer({true, failure(19), error(19, "odd")}), 1, error(1, "odd"),
           true},
          {"NotSupportedReadsAsZero", registerAnswer({true, failure(6), {}}), 0, std::nullopt,
           true},
          {"NoKrd", registerAnswer({true, noKrd, {}}), 1, error(1, Asm::kIncompleteResponse), true},
          {"HandleNotUtf8", registerAnswer({true, badHandle, {}}), 1, error(1, Asm::kInvalidText),
           true},
      },
      false);
}

TEST_P(AsmTest, AuthenticationUsesTheFirstStoredKeyID) {
  registerKey(rig_, *asm_, 2, "kid-2");
  AsmRequest r = authentication({"kid-1", "kid-2", "kid-3"});
  const std::vector<Transaction> transactions = {
      {"image/png", "iVBORw0", std::nullopt},
      {"text/plain", Utils::base64URLSafeStringFromData(asBytes("hello")), std::nullopt}};
  std::get<AuthenticateIn>(r.args).transaction = transactions;
  rig_.authenticator(2).signAnswer = {true, {0, "signed"}, std::nullopt};
  asm_->authenticate(r);
  SignCommand expected{
      std::string(kAppID), ScriptedAuthenticator::hashOf(2, kChallenge),
      expectedToken(rig_), "handle-kid-2",
      std::string(kUser),  std::vector<Transaction>{{"text/plain", "hello", std::nullopt}},
      transactions,        r.exts,
      std::nullopt,        "Al"};
  EXPECT_EQ(rig_.authenticator(2).signCommands.at(0), expected);
  EXPECT_EQ(rig_.last().error, std::nullopt);
  EXPECT_EQ(rig_.last().response.responseData,
            AsmResponse::Data(AuthenticateOut{"signed", "UAFV1TLV"}));
  // Without transactions both lists stay unset.
  asm_->authenticate(authentication({"kid-2"}));
  expected.transaction = expected.originalTc = std::nullopt;
  EXPECT_EQ(rig_.authenticator(2).signCommands.at(1), expected);
}

TEST_P(AsmTest, AuthenticationStatusPaths) {
  const auto noData = error(14, "no registration data");
  runCases(
      GetParam(),
      {
          {"NoKeyIDs", edit([](AsmRequest& r) { std::get<AuthenticateIn>(r.args).keyIDs.reset(); }),
           14, noData, false},
          {"NoneStored", edit([](AsmRequest& r) {
             r = authentication({"x", "y"});
           }),
           14, noData, false},
          {"OtherUser", edit([](AsmRequest& r) { r = authentication({"kid"}, "bob"); }), 14, noData,
           false},
          {"NotAnObject", storedRecord("[1]"), 1, error(1, Asm::kInvalidRecord), false},
          {"NoKeyHandle", storedRecord(R"({"userVerification":2})"), 1,
           error(1, Asm::kInvalidRecord), false},
          {"NegativeIndex", storedRecord(R"({"keyHandle":"h","userVerification":-2})"), 1,
           error(1, Asm::kInvalidRecord), false},
          {"NoAuthenticator", storedRecord(R"({"keyHandle":"h","userVerification":3})"), 10,
           error(10, "no matched authenticator with index:3"), false},
          {"WrongArguments", edit([](AsmRequest& r) { r.args = RegisterIn{}; }), 1,
           error(1, Asm::kInvalidArguments), false},
          {"NullResponse", signAnswer({false, {}, std::nullopt}), 1, std::nullopt, true},
          {"Lockout", signAnswer({true, {13, {}}, error(13, "user lockout")}), 13,
           error(13, "user lockout"), true},
          {"UnknownCode", signAnswer({true, {42, {}}, error(-7, "x")}), 1, error(1, "x"), true},
      },
      true);
  // Text that is not JSON answers with the parser's own error.
  rig_.putRecord("ASMKH.data", kUser, "kid", "{not json");
  asm_->authenticate(authentication({"kid"}));
  EXPECT_EQ(rig_.last().response.statusCode, 1u);
  EXPECT_EQ(rig_.last().error->domain(), kJSONModelErrorDomain);
}

TEST_P(AsmTest, InactivePatternDeregistersTheUserThenAnswers20) {
  for (std::string_view user : {"alice", "bob", ""}) {
    registerKey(rig_, *asm_, 2, "kid-" + std::string(user), user);
    rig_.putRecord("AUTHNR.data", user, "kid-x", "{}");
  }
  rig_.setSwitch(kPatternSwitch, "N");
  for (std::string_view user : {"alice", ""}) {
    asm_->authenticate(authentication({"kid-alice", "kid-"}, user));
    EXPECT_EQ(rig_.last().response.statusCode, 20u);
    EXPECT_EQ(rig_.last().error, error(20, "authenticator not active."));
    EXPECT_EQ(rig_.record("AUTHNR.data", user, "kid-x"), "-");
    EXPECT_EQ(rig_.record("ASMKH.data", user, "kid-" + std::string(user)), "-");
  }
  // Only the user's own records go, even for the empty user name.
  EXPECT_NE(rig_.record("ASMKH.data", "bob", "kid-bob"), "-");
  EXPECT_EQ(rig_.record("AUTHNR.data", "bob", "kid-x"), "{}");
  EXPECT_TRUE(rig_.authenticator(2).signCommands.empty());
}

TEST_P(AsmTest, GetInfoReportsEachUserVerification) {
  rig_.authenticator(1).supportStatus = 6;
  rig_.authenticator(2).supportStatus = 4;
  const AsmRequest info = request(AsmRequestType::kGetInfo, {});
  AsmResponse response = asm_->getInfo(info);
  ASSERT_EQ(response.statusCode, 0u);
  const auto& infos = *std::get<GetInfoOut>(response.responseData).authenticators;
  ASSERT_EQ(infos.size(), 2u);
  const std::vector<std::string> all = {"biometry", "pattern"};
  for (size_t i = 0; i < infos.size(); ++i) {
    AuthenticatorInfo expected = GenericAuthenticator::getBasicAuthenticatorInfo();
    expected.uv = all[i];
    expected.status = i == 0 ? 6 : 4;
    expected.uvs = all;
    EXPECT_EQ(infos[i], expected) << i;
  }
  // An index without an authenticator reads as not supported.
  response = rig_.make(kFacet, {2})->getInfo(info);
  EXPECT_EQ(std::get<GetInfoOut>(response.responseData).authenticators->at(0).status, 1u);
}

TEST_P(AsmTest, GetRegistrationsReportsTheNewestOfTheCaller) {
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

  auto other = rig_.make("other-facet");
  registerKey(rig_, *other, 2, "kid-other");
  EXPECT_EQ(get(*asm_, kUser), status(12));
  EXPECT_EQ(get(*other, kUser).statusCode, 0u);
  rig_.putRecord("ASMKH.data", "bob", "kid", "not json");
  EXPECT_EQ(get(*asm_, "bob"), status(1));
  rig_.putRecord("ASMKH.data", "carol", "kid", R"({"callerId":"ios:bundle-id:com.example.host"})");
  EXPECT_EQ(get(*asm_, "carol"), status(1));
}

TEST_P(AsmTest, DeregisterDeletesExactlyWhatItsArgumentsName) {
  struct Item {
    std::string prefix, user, keyID;
  };
  const std::vector<Item> items = {
      {"ASMKH.data", "alice", "k1"},         {"AUTHNR.data", "alice", "k1"},
      {"ASMKH.data", "alice", "k2"},         {"AUTHNR.data", "alice", "k2"},
      {"ASMKH.data", "bob", "k3"},           {"AUTHNR.data", "bob", "k3"},
      {"ASMKH.data", "bob", "k1"},           {"AUTHNR.data", "bob", "k1"},
      {"AUTHNR.patternlock", "alice", "k1"},
  };
  using Name = std::optional<std::string>;
  const struct {
    Name user, keyID;
    std::vector<size_t> deleted;  // indices into `items`; empty with `all`
    bool all;
  } cases[] = {
      {"alice", "k1", {0, 1}, false},
      {"alice", "", {0, 1, 2, 3}, false},
      {"alice", {}, {0, 1, 2, 3}, false},
      {"", "k1", {0, 1, 6, 7}, false},
      {{}, "k3", {4, 5}, false},
      {"carol", "k1", {}, false},
      {"", "", {}, true},
      {{}, {}, {}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user.value_or("(none)") + "/" + c.keyID.value_or("(none)"));
    AsmRig rig(GetParam());
    auto a = rig.make();
    for (const Item& item : items)
      ASSERT_TRUE(rig.putRecord(item.prefix, item.user, item.keyID, "v"));
    ASSERT_TRUE(rig.keychain().insertGenericPasswordWithAccount(
        "a", "AUTHNR.last_patternlock", std::nullopt, testing::secret("l")));
    EXPECT_EQ(
        a->deregister(request(AsmRequestType::kDeregister, DeregisterIn{c.user, "", c.keyID})),
        status(0));
    for (size_t i = 0; i < items.size(); ++i) {
      const bool gone = c.all || std::count(c.deleted.begin(), c.deleted.end(), i) == 1;
      EXPECT_EQ(rig.record(items[i].prefix, items[i].user, items[i].keyID), gone ? "-" : "v") << i;
    }
    EXPECT_EQ(rig.storedToken() == "-", c.all);
    // The previous pattern carries its own label and survives even the full wipe.
    EXPECT_TRUE(rig.keychain().findGenericPasswordWithAccount("a", "AUTHNR.last_patternlock", {}));
  }
  // Arguments of another kind delete nothing.
  rig_.putRecord("ASMKH.data", "alice", "k1", "v");
  EXPECT_EQ(asm_->deregister(request(AsmRequestType::kDeregister, {})), status(1));
  EXPECT_EQ(rig_.record("ASMKH.data", "alice", "k1"), "v");
}

TEST_P(AsmTest, DispatchByRequestType) {
  registerKey(rig_, *asm_, 2, "kid");
  const AsmRequest regs =
      request(AsmRequestType::kGetRegistrations, GetRegistrationsIn{std::string(kUser)});
  EXPECT_EQ(asm_->executeWithAsmRequestThenResponse(regs).statusCode, 0u);
  EXPECT_EQ(asm_->runner()(regs), asm_->getRegistrations(regs));
  EXPECT_EQ(asm_->runner()(request(AsmRequestType::kGetInfo, {})).statusCode, 0u);
  // No operation for these types; registration and authentication answer only to the delegate.
  const size_t answers = rig_.delegate.answers.size();
  for (uint64_t type : std::vector<uint64_t>{5, 6, std::numeric_limits<uint64_t>::max()}) {
    AsmRequest r = registration();
    r.requestType = type;
    EXPECT_EQ(asm_->executeWithAsmRequestThenResponse(r), status(1));
    asm_->executeWithAsmRequest(r);
  }
  EXPECT_EQ(rig_.delegate.answers.size(), answers);
  EXPECT_EQ(asm_->executeWithAsmRequestThenResponse(registration()), status(1));
  asm_->executeWithAsmRequest(authentication({"kid"}));
  ASSERT_EQ(rig_.delegate.answers.size(), answers + 2);
  EXPECT_TRUE(rig_.last().authenticate);
  asm_->executeWithAsmRequest(
      request(AsmRequestType::kDeregister, DeregisterIn{std::string(kUser), "", "kid"}));
  EXPECT_EQ(rig_.record("ASMKH.data", kUser, "kid"), "-");
}

TEST(AsmStoreFaults, NoTokenMeansNoKeyHandleBinding) {
  AsmRig rig;
  rig.keys.fake()->failAllWrites(true);
  auto a = rig.make();
  EXPECT_EQ(rig.storedToken(), "-");
  a->registration(registration());
  a->authenticate(authentication({"kid"}));
  ASSERT_EQ(rig.delegate.answers.size(), 2u);
  for (const auto& answer : rig.delegate.answers) {
    EXPECT_EQ(answer.response, status(1));
    EXPECT_EQ(answer.error, error(1, Asm::kNoAsmToken));
  }
  EXPECT_TRUE(rig.authenticator(2).registerCommands.empty());
  // Once the store works again the token is made, kept and used.
  rig.keys.fake()->failAllWrites(false);
  registerKey(rig, *a, 2, "kid");
  EXPECT_EQ(rig.authenticator(2).registerCommands.at(0).khAccessToken, expectedToken(rig));
}

TEST(AsmStoreFaults, RecordThatCannotBeStoredFailsAndEmptyTokenIsReplaced) {
  AsmRig rig;
  auto a = rig.make();
  rig.authenticator(2).registerAnswer = {true, registered(2, "kid"), std::nullopt};
  rig.keys.fake()->failAllWrites(true);
  a->registration(registration());
  EXPECT_EQ(rig.last().response, status(1));
  EXPECT_EQ(rig.last().error, error(1, Asm::kCannotStoreRecord));

  AsmRig damaged;
  ASSERT_TRUE(damaged.keychain().insertGenericPasswordWithAccount(
      "CORVANE", std::string(kFacet) + ".asmToken", std::nullopt, SecretBytes()));
  damaged.make();
  EXPECT_EQ(damaged.storedToken().size(), 32u);
}

TEST(AsmLateAnswers, OnlyTheRegistrationInProgressIsStoredAndOnlyOnce) {
  AsmRig rig;
  auto a = rig.make();
  RegisterResponseCommand response = registered(2, "kid");
  a->authenticatorRegisterResponse(&response, std::nullopt);
  EXPECT_EQ(rig.last().error, error(1, Asm::kNoPendingRegistration));
  rig.authenticator(2).deferAnswers = true;
  rig.authenticator(2).registerAnswer = {true, response, std::nullopt};
  a->registration(registration(2, "first"));
  a->registration(registration(2, "second"));
  rig.authenticator(2).answerRegister();
  EXPECT_EQ(rig.last().response.statusCode, 0u);
  rig.authenticator(2).answerRegister();
  EXPECT_EQ(rig.last().error, error(1, Asm::kNoPendingRegistration));
  EXPECT_EQ(rig.record("ASMKH.data", "first", "kid"), "-");
  EXPECT_NE(rig.record("ASMKH.data", "second", "kid"), "-");
}

}  // namespace
}  // namespace corvane
