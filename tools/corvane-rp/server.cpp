#include "corvane-rp/server.h"

#include <httplib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>

#include "corvane-rp/core/relying_party.h"
#include "corvane-rp/dev_tls.h"
#include "crypto/whitebox_tables.h"
#include "json/json_text.h"
#include "tablegen/whitebox_generator.h"
#include "wbgen/bundle.h"

namespace corvane::rp {

const char* const kServeUsage =
    "Usage: corvane-rp serve --state-dir DIR [--host HOST] [--port N] [--app-id URL]\n"
    "                        [--facet-id ID]... [--attestation-root PEM]\n"
    "                        [--challenge-lifetime SECONDS]\n"
    "\n"
    "Serves the relying party over HTTPS. On first start it makes a development CA (ca.pem)\n"
    "and a server certificate for localhost and 127.0.0.1 (server.pem, server.key) in DIR;\n"
    "clients trust ca.pem. State (requests, registrations, counters, user keys) is kept in\n"
    "DIR/state.sqlite. The first line of standard output is the port it listens on.\n"
    "\n"
    "  --state-dir DIR            where the TLS files and the state live (made 0700)\n"
    "  --host HOST                address to listen on (default 127.0.0.1, loopback only)\n"
    "  --port N                   port (default 8443; 0 picks a free one)\n"
    "  --app-id URL               the appID (default https://127.0.0.1:PORT/uaf/facets);\n"
    "                             the trusted-facets document is served at its path\n"
    "  --facet-id ID              a trusted facet ID (repeatable)\n"
    "  --attestation-root PEM     attestation root certificate(s)\n"
    "  --challenge-lifetime SECS  how long a request may be answered (default 300)\n"
    "\n"
    "Endpoints (JSON bodies):\n"
    "  GET  /uaf/reg/request?username=U         a registration request (policy: AAID 0F3D#0002)\n"
    "  POST /uaf/reg/response                   verify a registration response\n"
    "  GET  /uaf/auth/request[?username=U][&transaction=TEXT][&wb=1]\n"
    "                                           an authentication request\n"
    "  POST /uaf/auth/response                  verify an authentication response\n"
    "  GET  /uaf/dereg/request?aaid=A&keyID=K   a deregistration request (forgets the key)\n"
    "  GET  <appID path>                        the trusted-facets document\n"
    "  GET  /wb/bundle?username=U               the user's white-box table bundle\n"
    "A verification answers 200 when every check passed, else 400, with\n"
    "{\"ok\": bool, \"passed\": N, \"failed\": M, \"checks\": [{\"name\", \"ok\", \"reason\"}]}.\n";

namespace {

using nlohmann::json;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr const char* kJson = "application/json";

struct ServeOptions {
  std::optional<std::string> stateDir;
  std::string host = "127.0.0.1";
  int port = 8443;
  std::optional<std::string> appID;
  std::vector<std::string> facetIds;
  std::string rootPath;
  int64_t challengeLifetime = 300;
};

int usage(const std::string& message) {
  std::cerr << "corvane-rp serve: " << message << "\n" << kServeUsage;
  return kExitUsage;
}

std::optional<int64_t> number(const std::string& text) {
  if (text.empty() || text.size() > 9) return std::nullopt;
  int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

// The path of an https URL ("/" when it has none).
std::string urlPath(const std::string& url) {
  const size_t scheme = url.find("://");
  const size_t slash = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  return slash == std::string::npos ? "/" : url.substr(slash);
}

// The path as a pattern that matches only itself (httplib patterns are regular expressions).
std::string literalPattern(const std::string& path) {
  std::string out;
  for (char c : path) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

json reportJson(const Report& report) {
  json checks = json::array();
  for (const CheckResult& c : report.checks()) {
    checks.push_back({{"name", c.name}, {"ok", c.ok}, {"reason", c.reason}});
  }
  return {{"ok", report.ok()},
          {"passed", report.passed()},
          {"failed", report.failed()},
          {"checks", checks}};
}

void answerJson(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(jsonmodel::dumpJson(body), kJson);
}

void answerError(httplib::Response& response, int status, const std::string& message) {
  answerJson(response, status, {{"error", message}});
}

// data1 and data2 for the user's key and external encoding, made with the table generator for the
// authXor set of the built-in tables the client library carries.
std::optional<json> makeBundle(const WbUserSecret& secret) {
  namespace wb = whitebox;
  const auto authXor = wb::authXorFromBlob(wb::builtinBlob());
  const auto codebook = authXor ? wb::XorCodebook::recover(*authXor) : std::nullopt;
  const auto tables = codebook ? wb::generateRoundTables(secret.key, *codebook) : std::nullopt;
  if (!tables) return std::nullopt;
  const auto network =
      wb::WhiteboxNetwork::make(*authXor, tables->tyboxes, tables->tboxesLast, tables->mbl);
  if (!network || !wb::networkMatchesAes256(*network, secret.key, 4)) return std::nullopt;
  std::string json1 = wbgen::data1Json(tables->tyboxes, tables->tboxesLast, tables->mbl);
  std::string json2 = wbgen::data2Json(secret.externalEncoding);
  const auto data1 = wbgen::packBundleField(json1);
  const auto data2 = wbgen::packBundleField(json2);
  OPENSSL_cleanse(json1.data(), json1.size());
  OPENSSL_cleanse(json2.data(), json2.size());
  if (!data1 || !data2) return std::nullopt;
  return json{{"data1", *data1}, {"data2", *data2}};
}

void route(httplib::Server& server, RelyingParty& rp, RpStore& store, std::mutex& lock,
           const std::string& facetsPath) {
  server.Get("/uaf/reg/request", [&](const httplib::Request& req, httplib::Response& res) {
    const std::string username = req.get_param_value("username");
    if (username.empty()) return answerError(res, 400, "username is required");
    std::lock_guard<std::mutex> guard(lock);
    Result<std::string> request = rp.registrationRequest(username);
    if (!request) return answerError(res, 500, request.error().localizedDescription());
    res.set_content(*request, kJson);
  });
  server.Post("/uaf/reg/response", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard<std::mutex> guard(lock);
    const RegistrationOutcome outcome = rp.receiveRegistration(req.body);
    json body = reportJson(outcome.report);
    json keys = json::array();
    for (const Registration& r : outcome.registrations) {
      keys.push_back({{"aaid", r.aaid}, {"keyID", r.keyID}});
    }
    body["registrations"] = keys;
    answerJson(res, outcome.report.ok() ? 200 : 400, body);
  });
  server.Get("/uaf/auth/request", [&](const httplib::Request& req, httplib::Response& res) {
    AuthenticationOptions options;
    if (req.has_param("username")) options.username = req.get_param_value("username");
    if (req.has_param("transaction")) options.transactionText = req.get_param_value("transaction");
    if (req.get_param_value("wb") == "1") {
      std::optional<Bytes> random = Utils::randomBytesWithLength(16);
      if (!random) return answerError(res, 500, "no random bytes");
      options.wbEncryptionData = Utils::base64URLSafeStringFromData(*random);
    }
    std::lock_guard<std::mutex> guard(lock);
    Result<std::string> request = rp.authenticationRequest(options);
    if (!request) return answerError(res, 400, request.error().localizedDescription());
    res.set_content(*request, kJson);
  });
  server.Post("/uaf/auth/response", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard<std::mutex> guard(lock);
    const AuthenticationOutcome outcome = rp.receiveAuthentication(req.body);
    json body = reportJson(outcome.report);
    if (!outcome.updated.empty()) body["username"] = outcome.updated.front().username;
    answerJson(res, outcome.report.ok() ? 200 : 400, body);
  });
  server.Get("/uaf/dereg/request", [&](const httplib::Request& req, httplib::Response& res) {
    const std::string aaid = req.get_param_value("aaid");
    const std::string keyID = req.get_param_value("keyID");
    if (aaid.empty() || keyID.empty()) return answerError(res, 400, "aaid and keyID are required");
    std::lock_guard<std::mutex> guard(lock);
    Result<std::string> request = rp.deregistrationRequest(aaid, keyID);
    if (!request) return answerError(res, 500, request.error().localizedDescription());
    res.set_content(*request, kJson);
  });
  server.Get(facetsPath, [&](const httplib::Request&, httplib::Response& res) {
    json ids = rp.config().trust.trustedFacetIds;
    const json document = {
        {"trustedFacets",
         json::array({{{"version", {{"major", 1}, {"minor", 0}}}, {"ids", ids}}})}};
    res.set_content(jsonmodel::dumpJson(document), "application/fido.trusted-apps+json");
  });
  server.Get("/wb/bundle", [&](const httplib::Request& req, httplib::Response& res) {
    const std::string username = req.get_param_value("username");
    std::lock_guard<std::mutex> guard(lock);
    Result<std::vector<Registration>> known = store.registrations();
    if (!known) return answerError(res, 500, known.error().localizedDescription());
    const bool registered = std::any_of(known->begin(), known->end(), [&](const Registration& r) {
      return !username.empty() && r.username == username;
    });
    if (!registered) return answerError(res, 404, "no registered user of that name");
    Result<WbUserSecret> secret = rp.userSecret(username);
    if (!secret) return answerError(res, 500, secret.error().localizedDescription());
    std::optional<json> bundle = makeBundle(*secret);
    if (!bundle) return answerError(res, 500, "the white-box tables could not be made");
    answerJson(res, 200, {{"username", username}, {"regData1", *bundle}});
  });
}

}  // namespace

int runServeCommand(const std::vector<std::string>& args, const std::string& defaultRootPath) {
  ServeOptions options;
  options.rootPath = defaultRootPath;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& option = args[i];
    if (option == "--help" || option == "-h") {
      std::cout << kServeUsage;
      return 0;
    }
    if (i + 1 >= args.size()) return usage("missing value or unknown option " + option);
    const std::string& value = args[++i];
    if (option == "--state-dir") {
      options.stateDir = value;
    } else if (option == "--host") {
      options.host = value;
    } else if (option == "--port") {
      const std::optional<int64_t> port = number(value);
      if (!port || *port > 65535) return usage("--port takes 0 to 65535");
      options.port = static_cast<int>(*port);
    } else if (option == "--app-id") {
      options.appID = value;
    } else if (option == "--facet-id") {
      options.facetIds.push_back(value);
    } else if (option == "--attestation-root") {
      options.rootPath = value;
    } else if (option == "--challenge-lifetime") {
      const std::optional<int64_t> seconds = number(value);
      if (!seconds || *seconds == 0) return usage("--challenge-lifetime takes a positive number");
      options.challengeLifetime = *seconds;
    } else {
      return usage("unknown option " + option);
    }
  }
  if (!options.stateDir) return usage("--state-dir is required");
  const std::filesystem::path dir(*options.stateDir);
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  ::chmod(dir.c_str(), 0700);
  std::ifstream rootFile(options.rootPath, std::ios::binary);
  const std::string roots((std::istreambuf_iterator<char>(rootFile)), {});
  if (roots.empty()) return usage("cannot read the attestation root " + options.rootPath);

  Result<TlsFiles> tls = ensureTlsFiles(dir);
  if (!tls) {
    std::cerr << "corvane-rp serve: " << tls.error().localizedDescription() << "\n";
    return kExitFailure;
  }
  Result<std::unique_ptr<RpStore>> store = RpStore::open((dir / "state.sqlite").string());
  if (!store) {
    std::cerr << "corvane-rp serve: " << store.error().localizedDescription() << "\n";
    return kExitFailure;
  }
  httplib::SSLServer server(tls->serverCertificate.c_str(), tls->serverKey.c_str());
  if (!server.is_valid()) {
    std::cerr << "corvane-rp serve: cannot load the TLS files in " << dir << "\n";
    return kExitFailure;
  }
  int port = options.port;
  if (port == 0) {
    port = server.bind_to_any_port(options.host);
  } else if (!server.bind_to_port(options.host, port)) {
    port = -1;
  }
  if (port <= 0) {
    std::cerr << "corvane-rp serve: cannot listen on " << options.host << "\n";
    return kExitFailure;
  }

  RelyingPartyConfig config;
  config.appID =
      options.appID.value_or("https://127.0.0.1:" + std::to_string(port) + "/uaf/facets");
  config.trust.trustedFacetIds = options.facetIds;
  config.trust.attestationRootsPem = roots;
  config.challengeLifetimeSeconds = options.challengeLifetime;
  RelyingParty rp(**store, config);
  std::mutex lock;
  route(server, rp, **store, lock, literalPattern(urlPath(config.appID)));

  std::cout << port << "\n"
            << "appID " << config.appID << "\n"
            << "CA " << tls->caCertificate.string() << "\n";
  std::cout.flush();
  return server.listen_after_bind() ? 0 : kExitFailure;
}

}  // namespace corvane::rp
