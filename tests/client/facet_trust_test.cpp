#include "client/facet_trust.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configuration/configuration.h"
#include "fakes/fake_host_bundle.h"
#include "fakes/fake_http_client.h"
#include "fakes/fake_user_defaults.h"
#include "linux/curl_http_client.h"
#include "support/test_https_server.h"
#include "test_support.h"

namespace corvane {
namespace {

using testing::TestHttpServer;

constexpr char kFacet[] = "ios:bundle-id:com.example.host";

const std::string kTrusting =
    R"({"trustedFacets":[{"version":{"major":1,"minor":0},)"
    R"("ids":["ios:bundle-id:com.other","ios:bundle-id:com.example.host"]}]})";

// The trusting document padded with blanks to exactly `size` bytes: still a valid document.
std::string padded(size_t size) {
  return kTrusting + std::string(size - kTrusting.size(), ' ');
}

// The host's configuration over fakes.
struct HostConfig {
  testing::FakeHostBundle host, framework;
  testing::FakeUserDefaults defaults;
  Configuration configuration{host, framework, defaults};
};

// Everything the rows share: a test CA the client trusts and one it does not, a server of each
// kind, the real libcurl client behind a recording fake, and the host's configuration.
struct Rig : HostConfig {
  // The client trusts the system store and `trustedCa`.
  std::shared_ptr<HttpClient> makeCurl() {
    trustedCa.writePem(dir.path() / "ca.pem");
    linux_platform::CurlHttpClient::Options options;
    options.extraCaFile = dir.path() / "ca.pem";
    return linux_platform::CurlHttpClient::open(options, nullptr);
  }
  void setDevMode(bool on) { host.setInfo(kSdkConfigKey, "zandrel_fido_dev", on); }

  testing::TempDir dir;
  testing::TestCa trustedCa{"Corvane Test CA"};
  testing::TestCa strangerCa{"Unknown CA"};
  TestHttpServer https{TestHttpServer::Kind::https, &trustedCa};
  TestHttpServer plain{TestHttpServer::Kind::http, nullptr};
  TestHttpServer stranger{TestHttpServer::Kind::https, &strangerCa};
  TestHttpServer legacy{TestHttpServer::Kind::legacyTls, &trustedCa};
  testing::SilentServer silent;
  std::shared_ptr<HttpClient> curl = makeCurl();
  std::shared_ptr<testing::FakeHttpClient> http = std::make_shared<testing::FakeHttpClient>(curl);
  FacetTrust trust{configuration, *http};
};

// The requests each server saw during one row: https, plain http, stranger CA, legacy TLS.
using Counts = std::array<int, 4>;
Counts counts(const Rig& rig) {
  return {rig.https.requests(), rig.plain.requests(), rig.stranger.requests(),
          rig.legacy.requests()};
}

TEST(FacetTrustTest, FacetIdIsThePrefixAndTheBundleIdentifier) {
  HostConfig o;
  testing::FakeHttpClient http;
  o.host.identifier = "com.Example.App-2";
  EXPECT_EQ(FacetTrust(o.configuration, http).facetID(), "ios:bundle-id:com.Example.App-2");
}

// The redirect rule alone: the header's value is read as a loose boolean; the target must be
// https outside development mode.
TEST(FacetTrustTest, RedirectRule) {
  struct Row {
    int status;
    std::optional<std::string> header;
    const char* target;
    bool devMode;
    bool follow;
  };
  const Row rows[] = {
      {302, "true", "https://b.example/x", false, true},
      {301, "YES", "https://b.example/x", false, true},
      {307, " 1", "https://b.example/x", false, true},
      {302, "false", "https://b.example/x", false, false},
      {302, "0", "https://b.example/x", false, false},
      {302, "", "https://b.example/x", false, false},
      {302, std::nullopt, "https://b.example/x", true, false},
      {302, "true", "http://b.example/x", false, false},
      {302, "true", "http://b.example/x", true, true},
      {200, "true", "https://b.example/x", false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.status << " " << row.header.value_or("-") << " "
                                      << row.target << " " << row.devMode);
    HttpClient::Response response;
    response.status = row.status;
    response.redirectUrl = row.target;
    // Header names are matched without regard to case.
    if (row.header) response.headers.emplace_back("fido-appid-redirect-authorized", *row.header);
    EXPECT_EQ(FacetTrust::shouldFollowRedirect(response, row.devMode), row.follow);
  }
}

// A transport failure is untrusted whatever the server would have sent.
TEST(FacetTrustTest, TransportFailureIsUntrusted) {
  HostConfig o;
  testing::FakeHttpClient http;
  HttpClient::Response response;
  response.status = 200;
  response.body = kTrusting;
  http.setResponse("https://a.example/facets", response);
  const FacetTrust trust(o.configuration, http);
  EXPECT_TRUE(trust.checkTrustedFacetID("https://a.example/facets"));
  http.failAll(true);
  EXPECT_FALSE(trust.checkTrustedFacetID("https://a.example/facets"));
  EXPECT_EQ(http.calls().size(), 2u);
}

// Each row prepares the servers, names the appID and says what the check answers and which
// servers saw how many requests.
TEST(FacetTrustTest, CheckAgainstLocalServers) {
  Rig rig;
  ASSERT_TRUE(rig.curl);
  ASSERT_TRUE(rig.https.running() && rig.plain.running() && rig.stranger.running() &&
              rig.legacy.running());
  ASSERT_EQ(rig.trust.facetID(), kFacet);

  // Every path is distinct, so all the servers are set up before the first row.
  TestHttpServer& https = rig.https;
  for (
      const auto& [path, body] :
      {std::pair{"/v10", kTrusting},
       {"/v11",
        R"({"trustedFacets":[{"version":{"major":1,"minor":1},"ids":["ios:bundle-id:com.example.host"]},)"
        R"({"version":{"major":1,"minor":0},"ids":["ios:bundle-id:x"]}]})"},
       {"/case",
        R"({"trustedFacets":[{"version":{"major":1,"minor":0},"ids":["ios:bundle-id:com.example.Host"]}]})"},
       {"/long", kTrusting},
       {"/target", kTrusting},
       {"/mib", padded(1 << 20)},
       {"/mib1", padded((1 << 20) + 1)},
       {"/text", "trustedFacets " + std::string(kFacet)}}) {
    https.serve(path, {200, {}, body, false});
  }
  https.serve("/2mib", {200, {}, padded(2 << 20), true});  // chunked, without a length
  https.serve("/gone", {404, {}, kTrusting, false});
  for (TestHttpServer* server : {&rig.plain, &rig.stranger, &rig.legacy}) {
    server->serve("/doc", {200, {}, kTrusting, false});
  }
  https.redirect("/moved", "/target", "true");  // relative, resolved by the client
  https.redirect("/bare", https.url("/target"), std::nullopt);
  https.redirect("/no", https.url("/target"), "false");
  https.redirect("/loop", "/loop", "true");
  https.redirect("/down", rig.plain.url("/doc"), "true");
  const std::string down = https.url("/down");
  const std::string legacy = "https://127.0.0.1:" + std::to_string(rig.legacy.port()) + "/doc";
  const std::string exactly512 = [&] {
    std::string url = https.url("/long?pad=");
    return url + std::string(512 - url.size(), 'a');
  }();
  const struct Row {
    const char* name;
    std::string appID;
    bool devMode;
    bool trusted;
    Counts requests;
  } rows[] = {
      {"listed under 1.0", https.url("/v10"), false, true, {1, 0, 0, 0}},
      {"listed only under 1.1", https.url("/v11"), false, false, {1, 0, 0, 0}},
      {"listed with another case", https.url("/case"), false, false, {1, 0, 0, 0}},
      {"appID of 512 characters", exactly512, false, true, {1, 0, 0, 0}},
      {"appID of 513 characters", exactly512 + "a", false, false, {0, 0, 0, 0}},
      {"http appID", rig.plain.url("/doc"), false, false, {0, 0, 0, 0}},
      {"http appID in development mode", rig.plain.url("/doc"), true, true, {0, 1, 0, 0}},
      {"302 authorised with \"true\"", https.url("/moved"), false, true, {2, 0, 0, 0}},
      {"302 without the header", https.url("/bare"), false, false, {1, 0, 0, 0}},
      {"302 with \"false\"", https.url("/no"), false, false, {1, 0, 0, 0}},
      {"redirect loop", https.url("/loop"), false, false, {6, 0, 0, 0}},
      {"authorised redirect to http", down, false, false, {1, 0, 0, 0}},
      {"authorised redirect to http in development mode", down, true, true, {1, 1, 0, 0}},
      {"certificate from an unknown CA", rig.stranger.url("/doc"), false, false, {0, 0, 0, 0}},
      {"server limited to TLS 1.0 and 1.1", legacy, false, false, {0, 0, 0, 0}},
      {"body of exactly 1 MiB", https.url("/mib"), false, true, {1, 0, 0, 0}},
      {"body of 1 MiB and one byte", https.url("/mib1"), false, false, {1, 0, 0, 0}},
      {"body of 2 MiB sent without a length", https.url("/2mib"), false, false, {1, 0, 0, 0}},
      {"404 carrying a valid document", https.url("/gone"), false, true, {1, 0, 0, 0}},
      {"not JSON", https.url("/text"), false, false, {1, 0, 0, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    rig.setDevMode(row.devMode);
    const Counts before = counts(rig);
    EXPECT_EQ(rig.trust.checkTrustedFacetID(row.appID), row.trusted);
    const Counts after = counts(rig);
    for (size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(after[i] - before[i], row.requests[i]) << "server " << i;
    }
  }
  // The loop was cut after the initial request and five redirects, all to the same path.
  const std::vector<std::string> paths = rig.https.paths();
  EXPECT_EQ(std::count(paths.begin(), paths.end(), "/loop"), 6);
  // Every exchange had the 1 MiB cap and what was left of one 10-second time-out for the whole
  // fetch: the hops of the loop got less and less.
  std::vector<std::chrono::milliseconds> loopTimeouts;
  for (const testing::FakeHttpClient::Call& call : rig.http->calls()) {
    SCOPED_TRACE(call.url);
    EXPECT_LE(call.limits.timeout, std::chrono::milliseconds(10000));
    EXPECT_GT(call.limits.timeout, std::chrono::milliseconds(5000));
    EXPECT_EQ(call.limits.maxBodyBytes, 1048576u);
    if (call.url.ends_with("/loop")) loopTimeouts.push_back(call.limits.timeout);
  }
  ASSERT_EQ(loopTimeouts.size(), 6u);
  EXPECT_LT(loopTimeouts.back(), loopTimeouts.front());
  // The refused legacy server does speak TLS 1.1 (so the refusal is about the version), though
  // its certificate comes from the trusted CA.
  EXPECT_EQ(testing::negotiatedTlsVersion(rig.legacy.port(), TLS1_VERSION, TLS1_1_VERSION),
            TLS1_1_VERSION);
  EXPECT_EQ(testing::negotiatedTlsVersion(rig.legacy.port(), TLS1_2_VERSION, TLS1_3_VERSION),
            std::nullopt);
}

// A server that accepts and never answers: untrusted once the time-out, shortened through the
// port, has passed; the check asked for ten seconds.
TEST(FacetTrustTest, SilentServerTimesOut) {
  Rig rig;
  ASSERT_TRUE(rig.curl);
  rig.http->capTimeout(std::chrono::milliseconds(400));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(rig.trust.checkTrustedFacetID(
      "https://127.0.0.1:" + std::to_string(rig.silent.port()) + "/doc"));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(400));
  EXPECT_LT(elapsed, std::chrono::seconds(5));
  EXPECT_EQ(rig.silent.accepted(), 1);
  ASSERT_EQ(rig.http->calls().size(), 1u);
  EXPECT_LE(rig.http->calls()[0].limits.timeout, std::chrono::milliseconds(10000));
  EXPECT_GT(rig.http->calls()[0].limits.timeout, std::chrono::milliseconds(9000));
}

// The document alone, without a server: what counts as a listing.
TEST(FacetTrustTest, DocumentEntriesThatCount) {
  struct Row {
    const char* document;
    bool trusted;
  };
  const Row rows[] = {
      {R"({"trustedFacets":[{"version":{"major":1,"minor":0},"ids":["ios:bundle-id:com.example.host"]}]})",
       true},
      // 1.0 written as reals still reads as version 1.0.
      {R"({"trustedFacets":[{"version":{"major":1.0,"minor":0.0},"ids":["ios:bundle-id:com.example.host"]}]})",
       true},
      // A later entry still matches after entries that are skipped.
      {R"({"trustedFacets":[7,{"version":{"major":1}},{"version":{"major":1,"minor":0},"ids":"x"},)"
       R"({"version":{"major":1,"minor":0},"ids":[3,"ios:bundle-id:com.example.host"]}]})",
       true},
      {R"({"trustedFacets":[{"version":{"major":"1","minor":0},"ids":["ios:bundle-id:com.example.host"]}]})",
       false},
      {R"({"trustedFacets":[{"version":{"major":2,"minor":0},"ids":["ios:bundle-id:com.example.host"]}]})",
       false},
      {R"({"trustedFacets":[{"ids":["ios:bundle-id:com.example.host"]}]})", false},
      {R"({"trustedFacets":[{"version":{"major":1,"minor":0},"ids":["ios:bundle-id:com.example.host "]}]})",
       false},
      {R"({"trustedFacets":{"version":{"major":1,"minor":0},"ids":["ios:bundle-id:com.example.host"]}})",
       false},
      {R"([{"trustedFacets":[]}])", false},
      {R"({"trustedFacets":[]})", false},
      {"", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.document);
    EXPECT_EQ(FacetTrust::documentTrusts(row.document, kFacet), row.trusted);
  }
}

}  // namespace
}  // namespace corvane
