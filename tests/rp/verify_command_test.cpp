// `corvane-rp verify` on saved messages: the program itself, run on files.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "corvane-rp/core/relying_party.h"
#include "rp/rp_driver.h"
#include "test_files.h"

namespace corvane::rp {
namespace {

#ifdef CORVANE_RP_PATH

struct CommandRun {
  int status = -1;
  std::string out;
};

class VerifyCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(driver_.ready());
    store_ = std::move(RpStore::open(":memory:").value());
    RelyingPartyConfig config;
    config.appID = std::string(testing::kRpAppID);
    rp_ = std::make_unique<RelyingParty>(*store_, config);
  }

  std::string path(std::string_view name) const { return (dir_.path() / name).string(); }
  void save(std::string_view name, const std::string& text) {
    testing::writeFile(dir_.path() / name, text);
  }
  CommandRun verify(const std::string& args) {
    const std::string out = path("stdout.txt");
    const int status = std::system(
        (std::string(CORVANE_RP_PATH) + " verify " + args + " >" + out + " 2>/dev/null").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testing::readFile(out)};
  }

  testing::TempDir dir_;
  testing::RpDriver driver_;
  std::unique_ptr<RpStore> store_;
  std::unique_ptr<RelyingParty> rp_;
};

TEST_F(VerifyCommandTest, SavedRegistrationAndAuthenticationPassAndTamperingNamesTheCheck) {
  const std::string regRequest = rp_->registrationRequest("alice").value();
  save("reg-request.json", regRequest);
  save("reg-response.json", driver_.registrationResponse(regRequest));
  const std::string facet = std::string(" --facet-id ") + std::string(testing::kRpFacetID);
  CommandRun reg = verify("--request " + path("reg-request.json") + " --response " +
                          path("reg-response.json") + facet + " --attestation-root " +
                          (testing::resourcesDir() / "attestation" / "root.pem").string() +
                          " --out " + path("alice.reg"));
  EXPECT_EQ(reg.status, 0) << reg.out;
  EXPECT_NE(reg.out.find("ok fcParams.facetID\n"), std::string::npos) << reg.out;
  EXPECT_NE(reg.out.find("ok attestation.chain\n"), std::string::npos) << reg.out;
  EXPECT_NE(reg.out.find("\n21 passed, 0 failed\n"), std::string::npos) << reg.out;

  // Two authentications, each against the record the previous step wrote.
  for (uint64_t counter : {2, 3}) {
    const std::string authRequest = rp_->authenticationRequest({}).value();
    save("auth-request.json", authRequest);
    save("auth-response.json", driver_.signResponse(authRequest, counter));
    const CommandRun auth = verify("--request " + path("auth-request.json") + " --response " +
                                   path("auth-response.json") + " --registration " +
                                   path("alice.reg") + facet + " --out " + path("alice.reg"));
    EXPECT_EQ(auth.status, 0) << auth.out;
    EXPECT_NE(auth.out.find("ok signCounter\n"), std::string::npos) << auth.out;
    EXPECT_NE(auth.out.find("\n23 passed, 0 failed\n"), std::string::npos) << auth.out;
  }
  EXPECT_NE(testing::readFile(path("alice.reg")).find("\"signCounter\":3"), std::string::npos);

  // The same response again: the counter no longer rises.
  const CommandRun replay =
      verify("--request " + path("auth-request.json") + " --response " +
             path("auth-response.json") + " --registration " + path("alice.reg") + facet);
  EXPECT_EQ(replay.status, 1);
  EXPECT_NE(replay.out.find("FAIL signCounter: sign counter 3 does not rise over 3"),
            std::string::npos)
      << replay.out;
  EXPECT_NE(replay.out.find("\n22 passed, 1 failed\n"), std::string::npos) << replay.out;

  // A tampered signature byte (the last one of the assertion).
  testing::Bend bend;
  bend.assertion = [](Bytes& a) { a.back() ^= 0x01; };
  const std::string authRequest = rp_->authenticationRequest({}).value();
  save("auth-request.json", authRequest);
  save("auth-response.json", driver_.signResponse(authRequest, 9, bend));
  const CommandRun tampered =
      verify("--request " + path("auth-request.json") + " --response " +
             path("auth-response.json") + " --registration " + path("alice.reg") + facet);
  EXPECT_EQ(tampered.status, 1);
  EXPECT_NE(tampered.out.find("FAIL signature: "), std::string::npos) << tampered.out;
  EXPECT_NE(tampered.out.find(" passed, 1 failed\n"), std::string::npos) << tampered.out;

  // Without the trusted facet, the registration names the facet check.
  CommandRun untrusted =
      verify("--request " + path("reg-request.json") + " --response " + path("reg-response.json"));
  EXPECT_EQ(untrusted.status, 1);
  EXPECT_NE(untrusted.out.find("FAIL fcParams.facetID: facetID \"" +
                               std::string(testing::kRpFacetID) + "\" is not a trusted facet\n"),
            std::string::npos)
      << untrusted.out;

  EXPECT_EQ(verify("--request " + path("missing.json") + " --response " + path("x")).status, 2);
  EXPECT_EQ(verify("--bogus").status, 2);
}

#endif

}  // namespace
}  // namespace corvane::rp
