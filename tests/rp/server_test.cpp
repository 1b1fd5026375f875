// `corvane-rp serve` over HTTPS: the program is started on a free port, trusted through the
// development CA it made, and driven through registration, the white-box bundle, an
// authentication with a transaction and the wb_encryption extension, a replay, the trusted-facets
// document and a deregistration.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef CORVANE_RP_PATH
#include <httplib.h>
#endif

#include <nlohmann/json.hpp>

#include "crypto/aes_wb_helper.h"
#include "crypto/whitebox_tables.h"
#include "rp/rp_driver.h"
#include "test_files.h"

namespace corvane::rp {
namespace {

#ifdef CORVANE_RP_PATH

using nlohmann::json;

// The server process; stopped (SIGTERM) at scope end.
class ServerProcess {
 public:
  explicit ServerProcess(const std::filesystem::path& stateDir) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], STDOUT_FILENO);
      close(fds[0]);
      close(fds[1]);
      const std::string dir = stateDir.string();
      const std::string facet(testing::kRpFacetID);
      execl(CORVANE_RP_PATH, CORVANE_RP_PATH, "serve", "--state-dir", dir.c_str(), "--port", "0",
            "--facet-id", facet.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    // The first line is the port.
    std::string line;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') line += c;
    close(fds[0]);
    port_ = line.empty() ? 0 : std::atoi(line.c_str());
  }
  ~ServerProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  int port() const { return port_; }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

TEST(ServerTest, RegistersAuthenticatesWithTransactionAndWhiteboxAndRefusesAReplay) {
  testing::TempDir dir;
  ServerProcess server(dir.path() / "state");
  ASSERT_GT(server.port(), 0);
  EXPECT_EQ(testing::modeOf(dir.path() / "state") & 0777, 0700u);
  EXPECT_EQ(testing::modeOf(dir.path() / "state" / "server.key") & 0777, 0600u);
  httplib::SSLClient client("localhost", server.port());
  client.set_ca_cert_path((dir.path() / "state" / "ca.pem").string());
  client.enable_server_certificate_verification(true);
  testing::RpDriver driver;
  ASSERT_TRUE(driver.ready());

  auto get = [&](const std::string& path) {
    httplib::Result result = client.Get(path.c_str());
    EXPECT_TRUE(result) << path << ": " << httplib::to_string(result.error());
    return result ? std::pair{result->status, result->body} : std::pair{0, std::string()};
  };
  auto post = [&](const std::string& path, const std::string& body) {
    httplib::Result result = client.Post(path.c_str(), body, "application/json");
    EXPECT_TRUE(result) << path;
    return result ? std::pair{result->status, json::parse(result->body)} : std::pair{0, json()};
  };

  // Registration: the policy accepts the Corvane AAID.
  const auto [regStatus, regRequest] = get("/uaf/reg/request?username=alice");
  ASSERT_EQ(regStatus, 200);
  EXPECT_EQ(json::parse(regRequest)[0]["policy"]["accepted"][0][0]["aaid"][0], "0F3D#0002");
  const auto [registered, regReport] =
      post("/uaf/reg/response", driver.registrationResponse(regRequest));
  EXPECT_EQ(registered, 200) << regReport.dump();
  EXPECT_EQ(regReport["registrations"][0]["keyID"], driver.keyID());

  // The user's white-box tables, as the data-sync path receives them.
  const auto [bundleStatus, bundleText] = get("/wb/bundle?username=alice");
  ASSERT_EQ(bundleStatus, 200);
  const json bundle = json::parse(bundleText);
  const std::optional<whitebox::WhiteboxUserTables> tables =
      whitebox::WhiteboxUserTables::fromBundle(bundle["regData1"]["data1"].get<std::string>(),
                                               bundle["regData1"]["data2"].get<std::string>());
  ASSERT_TRUE(tables);
  EXPECT_EQ(get("/wb/bundle?username=mallory").first, 404);

  // An authentication with a transaction and the wb_encryption extension.
  const auto [authStatus, authRequest] =
      get("/uaf/auth/request?username=alice&transaction=Pay%2010%20EUR&wb=1");
  ASSERT_EQ(authStatus, 200);
  const json message = json::parse(authRequest)[0];
  const std::string sent = message["header"]["exts"][0]["data"];
  const std::optional<Bytes> cipher = AesWBHelper::encryptAesWB(
      asBytes(sent), AesWBHelper::generateIV(message["challenge"].get<std::string>()), *tables);
  ASSERT_TRUE(cipher);
  testing::Bend bend;
  bend.wbEncryptionData = Utils::base64URLSafeStringFromData(*cipher);
  const std::string response = driver.signResponse(authRequest, 2, bend);
  const auto [authenticated, authReport] = post("/uaf/auth/response", response);
  EXPECT_EQ(authenticated, 200) << authReport.dump();
  EXPECT_EQ(authReport["failed"], 0);
  EXPECT_EQ(authReport["username"], "alice");

  const auto [replayed, replayReport] = post("/uaf/auth/response", response);
  EXPECT_EQ(replayed, 400);
  EXPECT_EQ(replayReport["checks"][2]["name"], "challenge.unused");
  EXPECT_EQ(replayReport["checks"][2]["ok"], false);

  // The trusted facets at the appID, and a deregistration that forgets the key.
  const std::string appID = message["header"]["appID"];
  EXPECT_EQ(appID, "https://127.0.0.1:" + std::to_string(server.port()) + "/uaf/facets");
  const auto [facetsStatus, facets] = get("/uaf/facets");
  EXPECT_EQ(facetsStatus, 200);
  EXPECT_EQ(json::parse(facets)["trustedFacets"][0]["ids"][0], testing::kRpFacetID);
  const auto [deregStatus, dereg] =
      get("/uaf/dereg/request?aaid=0F3D%230002&keyID=" + driver.keyID());
  EXPECT_EQ(deregStatus, 200);
  EXPECT_EQ(json::parse(dereg)[0]["authenticators"][0]["keyID"], driver.keyID());
  EXPECT_EQ(get("/uaf/auth/request?username=alice").first, 400);
}

#endif

}  // namespace
}  // namespace corvane::rp
