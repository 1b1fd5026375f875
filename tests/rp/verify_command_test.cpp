// `corvane-rp verify` on saved messages: the program itself, run on files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "corvane-rp/core/relying_party.h"
#include "rp/rp_driver.h"
#include "test_files.h"

namespace corvane::rp {
namespace {

#ifdef CORVANE_RP_PATH

using ::testing::HasSubstr;

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
  // Saves the messages as request.json and response.json and runs the command on them, with the
  // trusted facet unless `facet` is false.
  CommandRun verify(const std::string& request, const std::string& response,
                    const std::string& args, bool facet = true) {
    testing::writeFile(dir_.path() / "request.json", request);
    testing::writeFile(dir_.path() / "response.json", response);
    return run("--request " + path("request.json") + " --response " + path("response.json") +
               (facet ? " --facet-id " + std::string(testing::kRpFacetID) : "") + args);
  }
  CommandRun run(const std::string& args) {
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
  const std::string regResponse = driver_.registrationResponse(regRequest);
  const std::string registration = " --registration " + path("alice.reg");
  CommandRun reg = verify(regRequest, regResponse,
                          " --attestation-root " +
                              (testing::resourcesDir() / "attestation" / "root.pem").string() +
                              " --out " + path("alice.reg"));
  EXPECT_EQ(reg.status, 0) << reg.out;
  EXPECT_THAT(reg.out, HasSubstr("ok fcParams.facetID\n"));
  EXPECT_THAT(reg.out, HasSubstr("ok attestation.chain\n"));
  EXPECT_THAT(reg.out, HasSubstr("\n21 passed, 0 failed\n"));

  // Two authentications, each against the record the previous step wrote.
  std::string authRequest, authResponse;
  for (uint64_t counter : {2, 3}) {
    authRequest = rp_->authenticationRequest({}).value();
    authResponse = driver_.signResponse(authRequest, counter);
    const CommandRun auth =
        verify(authRequest, authResponse, registration + " --out " + path("alice.reg"));
    EXPECT_EQ(auth.status, 0) << auth.out;
    EXPECT_THAT(auth.out, HasSubstr("ok signCounter\n"));
    EXPECT_THAT(auth.out, HasSubstr("\n23 passed, 0 failed\n"));
  }
  EXPECT_NE(testing::readFile(path("alice.reg")).find("\"signCounter\":3"), std::string::npos);

  // The same response again: the counter no longer rises.
  const CommandRun replay = verify(authRequest, authResponse, registration);
  EXPECT_EQ(replay.status, 1);
  EXPECT_THAT(replay.out, HasSubstr("FAIL signCounter: sign counter 3 does not rise over 3"));
  EXPECT_THAT(replay.out, HasSubstr("\n22 passed, 1 failed\n"));

  // A tampered signature byte (the last one of the assertion).
  testing::Bend bend;
  bend.assertion = [](Bytes& a) { a.back() ^= 0x01; };
  authRequest = rp_->authenticationRequest({}).value();
  const CommandRun tampered =
      verify(authRequest, driver_.signResponse(authRequest, 9, bend), registration);
  EXPECT_EQ(tampered.status, 1);
  EXPECT_THAT(tampered.out, HasSubstr("FAIL signature: "));
  EXPECT_THAT(tampered.out, HasSubstr(" passed, 1 failed\n"));

  // Without the trusted facet, the registration names the facet check.
  CommandRun untrusted = verify(regRequest, regResponse, "", false);
  EXPECT_EQ(untrusted.status, 1);
  EXPECT_THAT(untrusted.out,
              HasSubstr("FAIL fcParams.facetID: facetID \"" + std::string(testing::kRpFacetID) +
                        "\" is not a trusted facet\n"));

  EXPECT_EQ(run("--request " + path("missing.json") + " --response " + path("x")).status, 2);
  EXPECT_EQ(run("--bogus").status, 2);
}

#endif

}  // namespace
}  // namespace corvane::rp
