// The test relying party against assertions the library makes: a registration and two
// authentications verify, and every response it must refuse is refused by the check named in the
// table.
#include "corvane-rp/core/relying_party.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>

#include "rp/rp_driver.h"
#include "support/test_https_server.h"
#include "test_files.h"

namespace corvane::rp {
namespace {

using testing::Bend;
using testing::RpDriver;

std::string names(const Report& report) {
  std::string out;
  for (const CheckResult& c : report.checks()) out += (out.empty() ? "" : " ") + c.name;
  return out;
}

// A root that signed nothing the library carries.
std::string otherRootPem() {
  testing::TempDir dir;
  testing::TestCa("Other Root").writePem(dir.path() / "root.pem");
  return testing::readFile(dir.path() / "root.pem");
}

class RelyingPartyTest : public ::testing::Test {
 public:
  void SetUp() override {
    ASSERT_TRUE(driver_.ready());
    Result<std::unique_ptr<RpStore>> opened = RpStore::open(":memory:");
    ASSERT_TRUE(opened);
    store_ = std::move(*opened);
    rp_ = std::make_unique<RelyingParty>(*store_, config());
  }

  RelyingPartyConfig config(std::string roots = "") {
    RelyingPartyConfig c;
    c.appID = std::string(testing::kRpAppID);
    c.trust.trustedFacetIds = {std::string(testing::kRpFacetID)};
    c.trust.attestationRootsPem =
        roots.empty() ? testing::readFile(testing::resourcesDir() / "attestation" / "root.pem")
                      : roots;
    c.clock = [this] { return now_; };
    return c;
  }

  std::string regRequest() { return rp_->registrationRequest("alice").value(); }
  std::string authRequest(AuthenticationOptions options = {}) {
    options.username = "alice";
    return rp_->authenticationRequest(options).value();
  }
  void registerAlice() {
    const Report report = receive(driver_.registrationResponse(regRequest()));
    ASSERT_TRUE(report.ok()) << report.text();
  }
  // The report on a registration or an authentication response, after its operation.
  Report receive(const std::string& response) {
    return response.find("\"op\":\"Reg\"") != std::string::npos
               ? rp_->receiveRegistration(response).report
               : rp_->receiveAuthentication(response).report;
  }

  RpDriver driver_;
  int64_t now_ = 1'800'000'000;
  std::unique_ptr<RpStore> store_;
  std::unique_ptr<RelyingParty> rp_;
};

TEST_F(RelyingPartyTest, RegistrationAndTwoAuthenticationsVerify) {
  const RegistrationOutcome reg =
      rp_->receiveRegistration(driver_.registrationResponse(regRequest()));
  ASSERT_TRUE(reg.report.ok()) << reg.report.text();
  const std::string common =
      "challenge.known challenge.unexpired challenge.unused request.json response.json "
      "header.upv header.op header.appID header.serverData fcParams.decode fcParams.appID "
      "fcParams.challenge fcParams.facetID fcParams.channelBinding assertion.scheme "
      "assertion.decode tlv.structure finalChallengeHash aaid assertionInfo keyID ";
  EXPECT_EQ(names(reg.report), common + "publicKey attestation.signature attestation.chain");
  ASSERT_EQ(reg.registrations.size(), 1u);
  EXPECT_EQ(reg.registrations[0].aaid, "0F3D#0002");
  EXPECT_EQ(reg.registrations[0].keyID, driver_.keyID());
  EXPECT_EQ(reg.registrations[0].username, "alice");

  // The second one confirms a transaction; its sign counter is remembered across both.
  const Report first = receive(driver_.signResponse(authRequest(), 2));
  ASSERT_TRUE(first.ok()) << first.text();
  AuthenticationOptions withText;
  withText.transactionText = "Pay 10 EUR to Bob";
  withText.wbEncryptionData = "c2VjcmV0LWRhdGEtZm9yLWFsaWNl";
  const std::string request = authRequest(withText);
  Bend bend;
  bend.wbEncryptionData =
      RpDriver::wbCipher(rp_->userSecret("alice").value(), request, *withText.wbEncryptionData);
  ASSERT_FALSE(bend.wbEncryptionData->empty());
  const Report second = receive(driver_.signResponse(request, 3, bend));
  ASSERT_TRUE(second.ok()) << second.text();
  EXPECT_EQ(names(second), common +
                               "registration.known signature signCounter "
                               "authenticatorNonce transactionHash extension.wb_encryption");
  EXPECT_EQ(store_->registrations()->at(0).signCounter, 3u);
}

// One row per refusal: how the response is made, and the check that must name it.
struct Refusal {
  const char* name;
  const char* failingCheck;
  std::function<std::string(RelyingPartyTest&)> respond;
};

// A registration, or a sign with `counter`, over a fresh request and bent by `bend`.
auto reg(Bend bend = {}) {
  return
      [bend](RelyingPartyTest& t) { return t.driver_.registrationResponse(t.regRequest(), bend); };
}
auto sign(uint64_t counter, Bend bend = {}, AuthenticationOptions options = {}) {
  return [=](RelyingPartyTest& t) {
    return t.driver_.signResponse(t.authRequest(options), counter, bend);
  };
}
// The response `make` makes, once it was accepted (so that sending it again is a replay).
auto accepted(std::function<std::string(RelyingPartyTest&)> make) {
  return [make](RelyingPartyTest& t) {
    const std::string response = make(t);
    EXPECT_TRUE(t.receive(response).ok());
    return response;
  };
}

TEST_F(RelyingPartyTest, RefusesEachBadResponseByTheNamedCheck) {
  registerAlice();
  RpDriver stranger;
  auto append = [](Bytes& a) { a.insert(a.end(), {0x0B, 0x2E, 0x00, 0x00}); };
  // Trailing bytes inside the outer element: its length grows to cover them.
  auto appendInside = [append](Bytes& a) {
    append(a);
    const size_t length = a.size() - 4;
    a[2] = static_cast<uint8_t>(length);
    a[3] = static_cast<uint8_t>(length >> 8);
  };
  AuthenticationOptions payBob, sent;
  payBob.transactionText = "Pay 10 EUR to Bob";
  sent.wbEncryptionData = "c2VudA";
  const std::vector<Refusal> rows = {
      {"replayed registration", "challenge.unused", accepted(reg())},
      {"replayed authentication", "challenge.unused", accepted(sign(10))},
      {"unknown challenge", "challenge.known",
       [](RelyingPartyTest& t) {
         std::string request = t.regRequest();
         const size_t at = request.find("\"challenge\":\"") + 13;
         request[at] = request[at] == 'A' ? 'B' : 'A';
         return t.driver_.registrationResponse(request);
       }},
      {"expired challenge", "challenge.unexpired",
       [](RelyingPartyTest& t) {
         const std::string request = t.authRequest();
         t.now_ += 301;
         return t.driver_.signResponse(request, 11);
       }},
      {"counter that does not rise", "signCounter",
       [](RelyingPartyTest& t) {
         accepted(sign(20))(t);
         return sign(20)(t);
       }},
      {"counter that falls", "signCounter", sign(1)},
      {"other facet ID", "fcParams.facetID", reg({.facetID = "android:apk-key-hash:someone-else"})},
      {"other appID", "fcParams.appID",
       sign(30, {.appID = "https://evil.example.test/facets.json"})},
      {"attestation not chaining to the root", "attestation.chain",
       [](RelyingPartyTest& t) {
         t.rp_ = std::make_unique<RelyingParty>(*t.store_, t.config(otherRootPem()));
         return reg()(t);
       }},
      {"bytes after the registration assertion", "tlv.structure", reg({.assertion = append})},
      {"bytes after the last element of a registration", "tlv.structure",
       reg({.assertion = appendInside})},
      {"bytes after the last element of a sign assertion", "tlv.structure",
       sign(40, {.assertion = appendInside})},
      {"transaction hash over other text", "transactionHash",
       sign(50, {.transactionText = "Pay 10000 EUR to Mallory"}, payBob)},
      {"transaction hash without a transaction", "assertionInfo",
       sign(51, {.transactionText = "Pay 10 EUR to Bob"})},
      {"wb_encryption enciphering other data", "extension.wb_encryption",
       [&](RelyingPartyTest& t) {
         const std::string request = t.authRequest(sent);
         const std::string other =
             RpDriver::wbCipher(t.rp_->userSecret("alice").value(), request, "b3RoZXI");
         return t.driver_.signResponse(request, 52, {.wbEncryptionData = other});
       }},
      {"wb_encryption sent back in clear", "extension.wb_encryption",
       sign(53, {.wbEncryptionData = "c2VudA"}, sent)},
      {"key that was never registered", "registration.known",
       [&](RelyingPartyTest& t) { return stranger.signResponse(t.authRequest(), 60); }},
      {"another user's key", "registration.known",
       [&](RelyingPartyTest& t) {
         const std::string request = t.rp_->registrationRequest("bob").value();
         EXPECT_TRUE(t.receive(stranger.registrationResponse(request)).ok());
         return stranger.signResponse(t.authRequest(), 61);
       }},
  };
  for (const Refusal& row : rows) {
    SCOPED_TRACE(row.name);
    const Report report = receive(row.respond(*this));
    EXPECT_FALSE(report.ok());
    EXPECT_EQ(report.firstFailure().value_or("none"), row.failingCheck) << report.text();
    rp_ = std::make_unique<RelyingParty>(*store_, config());
  }
}

// A flipped bit anywhere in an assertion is refused, and nothing is stored or raised for it.
TEST_F(RelyingPartyTest, RefusesAFlippedBitInEveryBytePosition) {
  registerAlice();
  const Bytes reg = RpDriver::assertionOf(driver_.registrationResponse(regRequest()));
  const Bytes sign = RpDriver::assertionOf(driver_.signResponse(authRequest(), 70));
  ASSERT_GT(reg.size(), 700u);
  ASSERT_GT(sign.size(), 200u);
  std::map<std::string, size_t> failing;
  for (const auto& [size, isReg] : {std::pair{reg.size(), true}, std::pair{sign.size(), false}}) {
    for (size_t position = 0; position < size; ++position) {
      // Each response is fresh (its own challenge); the flip goes into its assertion. A DER
      // signature may come out a byte shorter, so a position past the end flips the last byte.
      Bend bend;
      bend.assertion = [&](Bytes& a) {
        const size_t at = std::min(position, a.size() - 1);
        a[at] ^= static_cast<uint8_t>(1u << (position % 8));
      };
      const Report report = receive(isReg ? driver_.registrationResponse(regRequest(), bend)
                                          : driver_.signResponse(authRequest(), 71, bend));
      ASSERT_FALSE(report.ok()) << (isReg ? "registration" : "sign") << " byte " << position;
      ++failing[report.firstFailure().value_or("none")];
    }
  }
  // The flips land in the framing, the signed fields and the signatures alike.
  for (const char* check : {"tlv.structure", "attestation.signature", "signature"}) {
    EXPECT_GT(failing[check], 0u) << check;
  }
  ASSERT_EQ(store_->registrations()->size(), 1u);
  EXPECT_EQ(store_->registrations()->at(0).signCounter, 0u) << "no authentication was accepted";
}

TEST(SignCounterTest, RisesInSixteenBits) {
  struct Row {
    uint32_t last, next;
    bool rises;
  } rows[] = {{1, 2, true},           {1, 1, false},           {2, 1, false},
              {0, 0x7FFF, true},      {0, 0x8000, false},      {0xFFFF, 0, true},
              {0xFFFE, 0x0003, true}, {0x10005, 0x0006, true}, {5, 0x10005, false},
              {0x0003, 0xFFFE, false}};
  for (const Row& row : rows) {
    EXPECT_EQ(signCounterRises(row.last, row.next), row.rises) << row.last << " -> " << row.next;
  }
}

}  // namespace
}  // namespace corvane::rp
