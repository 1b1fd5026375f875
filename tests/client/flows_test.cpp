// Discovery, registration and authentication through the facade, over the real Linux stores in a
// temporary data directory, with the scripted presenter and the manual queue: the host's view of
// every outcome, success and failure, with its exact code and text.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <openssl/evp.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "client/discovery.h"
#include "corvane-rp/core/verify_command.h"
#include "crypto/aes_wb_helper.h"
#include "facade_host.h"
#include "fakes/fake_key_store.h"
#include "foundation/byte_io.h"
#include "foundation/utils.h"
#include "json/json_text.h"
#include "linux/openssl_key_store.h"
#include "storage/core_data_manager.h"
#include "tablegen/whitebox_generator.h"

namespace corvane {
namespace {

using namespace facade;

// The TLV elements of one level, by tag (the last of a tag wins).
std::map<uint16_t, Bytes> elements(ByteView data) {
  std::map<uint16_t, Bytes> out;
  ByteReader reader(data);
  while (std::optional<TlvElement> element = reader.readElement()) {
    out[element->tag] = Bytes(element->value.rest().begin(), element->value.rest().end());
  }
  return out;
}

// The key registration data of a registration assertion, by tag.
std::map<uint16_t, Bytes> keyRegistration(ByteView reg) {
  return elements(elements(elements(reg).at(0x3E01)).at(0x3E03));
}

Bytes digest(std::string_view text) {
  const std::array<uint8_t, 32> d = Utils::sha256BackData(text);
  return Bytes(d.begin(), d.end());
}

// The fields of an authentication assertion's signed data, whose signature must verify under
// `publicKey`.
std::map<uint16_t, Bytes> signedFields(ByteView auth, ByteView publicKey) {
  ByteReader top(auth);
  std::optional<ByteReader> body = top.readElement(0x3E02);
  std::optional<TlvElement> signedData = body ? body->readElement() : std::nullopt;
  std::optional<ByteReader> signature = body ? body->readElement(0x2E06) : std::nullopt;
  EXPECT_TRUE(signedData && signature);
  if (!signedData || !signature) return {};
  EXPECT_TRUE(testing::verifies(publicKey, signedData->whole, signature->rest()));
  return elements(signedData->value.rest());
}

// The one message of a response, checked for the request's header and fcParams; returns the
// decoded assertion.
Bytes readResponse(const Outcome& outcome, std::string_view challenge) {
  EXPECT_EQ(outcome.error.code(), 0) << outcome.error.localizedDescription();
  if (!outcome.response) return {};
  const json array = json::parse(*outcome.response);
  EXPECT_TRUE(array.is_array() && array.size() == 1);
  const json& message = array.at(0);
  EXPECT_EQ(message.at("header").at("serverData"), "sd-1");
  const std::string fcParams = message.at("fcParams");
  const json fc = json::parse(asText(Utils::decodeBase64Url(fcParams).value()));
  EXPECT_EQ(fc,
            json::parse(std::string(R"({"appID":"ios:bundle-id:com.example.host","challenge":")") +
                        std::string(challenge) +
                        R"(","facetID":"ios:bundle-id:com.example.host","channelBinding":{}})"));
  EXPECT_EQ(message.at("assertions").at(0).at("assertionScheme"), "UAFV1TLV");
  const Bytes assertion =
      Utils::decodeBase64Url(message.at("assertions").at(0).at("assertion").get<std::string>())
          .value();
  // The final challenge hash inside is SHA-256 of the fcParams text.
  const auto top = elements(assertion);
  const Bytes& body = top.begin()->second;
  const auto inner = elements(body);
  const Bytes& signedPart = inner.count(0x3E03) ? inner.at(0x3E03) : inner.at(0x3E04);
  EXPECT_EQ(elements(signedPart).at(0x2E0A), digest(fcParams));
  return assertion;
}

// The relying party's offline verifier on one request and its response; `registration` is the
// record written by the registration's verification and read by an authentication's.
void expectVerifies(const testing::TempDir& dir, const std::string& request,
                    const std::string& response, bool isRegistration) {
  testing::writeFile(dir.path() / "request.json", request);
  testing::writeFile(dir.path() / "response.json", response);
  const std::string registration = (dir.path() / "registration.json").string();
  std::vector<std::string> args = {"--request",  (dir.path() / "request.json").string(),
                                   "--response", (dir.path() / "response.json").string(),
                                   "--facet-id", std::string(kFacet)};
  args.insert(args.end(), {isRegistration ? "--out" : "--registration", registration});
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(rp::runVerifyCommand(
                args, (testing::resourcesDir() / "attestation" / "root.pem").string(), out, err),
            0)
      << out.str() << err.str();
  EXPECT_NE(out.str().find(" passed, 0 failed"), std::string::npos) << out.str();
}

// The supported-authenticator answer to an authentication request naming `user`.
std::optional<GetSupportedAuthenticatorResponse> supportedFor(Host& host, std::string_view user) {
  json question = json::parse(authenticationRequest());
  question[0]["username"] = user;
  Error error;
  auto supported = host.corvane->getSupportedAuthenticator(question.dump(), &error);
  EXPECT_TRUE(supported) << error.localizedDescription();
  return supported;
}
uint64_t enrolment(Host& host, std::string_view user) {
  const auto supported = supportedFor(host, user);
  return supported ? supported->status : 0;
}

TEST(FlowsTest, DiscoverRegisterAuthenticate) {
  Host host;
  Error error;
  const json discovered = json::parse(host.corvane->discover(&error).value());
  EXPECT_EQ(discovered.at("clientVendor"), "0F3D");
  EXPECT_EQ(discovered.at("supportedUAFVersions"), json::parse(R"([{"major":1,"minor":1}])"));
  ASSERT_EQ(discovered.at("availableAuthenticators").size(), 1u);
  EXPECT_EQ(discovered.at("availableAuthenticators").at(0).at("aaid"), "0F3D#0002");
  EXPECT_EQ(discovered.at("availableAuthenticators").at(0).at("supportedExtensionIDs"),
            json::array());

  host.corvane->doRegistration(DoRegReq{registrationRequest("alice"), "pattern", "Alice", {}});
  EXPECT_TRUE(host.recorder->outcomes.empty()) << "answered before the user was asked";
  host.draw(2);
  ASSERT_EQ(host.recorder->outcomes.size(), 1u);
  const auto krd = keyRegistration(readResponse(host.last(), "Y2hhbGxlbmdl"));
  testing::TempDir saved;
  expectVerifies(saved, registrationRequest("alice"), host.last().response.value_or(""), true);
  const Bytes publicKey = krd.at(0x2E0C);
  ASSERT_EQ(publicKey.size(), 91u);
  const std::string keyID = Utils::base64URLSafeStringFromData(krd.at(0x2E09));

  // An authentication request: a registration request whose policy does not name the key would
  // take the user's registration for stale.
  const auto supported = supportedFor(host, "alice");
  ASSERT_TRUE(supported);
  EXPECT_EQ(supported->status, 4u);
  EXPECT_EQ(supported->userVerifications, std::vector<std::string>{"pattern"});

  const json text = json::array({{{"contentType", "text/plain"}, {"content", "UGF5IDEwIEVVUg"}}});
  for (uint32_t counter : {1u, 2u}) {
    const std::string request = authenticationRequest(
        json::object(), counter == 2 ? std::optional<json>(text) : std::nullopt);
    host.corvane->doAuthentication(DoAuthReq{request, "alice", {}, "Alice"});
    if (counter == 2) host.presenter->transaction()->pressConfirm();
    host.draw();
    ASSERT_EQ(host.recorder->outcomes.size(), 1u + counter);
    expectVerifies(saved, request, host.last().response.value_or(""), false);
    const auto fields = signedFields(readResponse(host.last(), "YXV0aC1jaGFsbGVuZ2U"), publicKey);
    EXPECT_EQ(fields.at(0x2E0D), (Bytes{static_cast<uint8_t>(counter), 0, 0, 0}));
    if (counter == 2) {
      EXPECT_EQ(fields.at(0x2E10), digest("Pay 10 EUR"));
    }
  }

  // The server lists the key it holds: the user is enrolled.
  const json knownKey = {
      {"accepted", json::array({json::array({{{"aaid", {"0F3D#0002"}}}})})},
      {"disallowed", json::array({{{"aaid", {"0F3D#0002"}}, {"keyIDs", {keyID}}}})}};
  host.corvane->doRegistration(
      DoRegReq{registrationRequest("alice", json::object(), knownKey), "pattern", "Alice", {}});
  EXPECT_EQ(host.last().error, Error::corvane(20003, "user already enrolled this aaid."));

  // One request at a time: a second one is refused at once, the first still gets its answer.
  host.corvane->doRegistration(DoRegReq{registrationRequest("bob"), "pattern", "Bob", {}});
  host.scheduler->drain();
  const size_t before = host.recorder->outcomes.size();
  host.corvane->doAuthentication(DoAuthReq{authenticationRequest(), "alice", {}, "Alice"});
  ASSERT_EQ(host.recorder->outcomes.size(), before + 1);
  EXPECT_EQ(host.last().error, Error::corvane(20005, "another request is in progress."));
  host.presenter->pattern()->pressButton();
  host.scheduler->drain();
  ASSERT_EQ(host.recorder->outcomes.size(), before + 2);
  EXPECT_TRUE(host.last().registration);
  EXPECT_EQ(host.last().error, Error::corvane(30000, "user canceled register action"));
}

// Every refusal of a registration, an authentication and a supported-authenticator question, with
// its code and text (none for an empty one), and no screen for any of them.
TEST(FlowsTest, RequestFailures) {
  enum Kind { reg, auth, supported };
  const json other = {{"appID", "https://127.0.0.1:1/app"}};
  const json bad = json::array({{{"contentType", "text/plain"}, {"content", "not base64!"}}});
  const struct {
    const char* name;
    Kind kind;
    std::string request;
    int64_t code;
    std::string text;
    std::string userVerification = "pattern";
  } rows[] = {
      {"two messages of one version", reg,
       json::array(
           {json::parse(registrationRequest("a"))[0], json::parse(registrationRequest("b"))[0]})
           .dump(),
       60001, "Multiple UAF Messages with the same version."},
      {"no user verification", reg, registrationRequest("a"), 60000,
       "Missing Required Fields: userVerification ", ""},
      {"no message", reg, "[]", 60000, "Missing Required Fields: registrationRequest "},
      {"accepted not lists, op wrong", reg,
       json::array({{{"header", header("Auth")},
                     {"challenge", "c"},
                     {"username", "a"},
                     {"policy", {{"accepted", json::array({1, json::array({2})})}}}}})
           .dump(),
       60000, "Missing Required Fields: accepted accepted op "},
      {"unknown critical extension", reg,
       registrationRequest(
           "a",
           {{"exts", json::array({{{"id", "nope"}, {"data", ""}, {"fail_if_unknown", true}}})}}),
       10000, "Unknown Extension.id value."},
      {"version 1.0", reg,
       json::array({{{"header", {{"upv", {{"major", 1}, {"minor", 0}}}, {"op", "Reg"}}},
                     {"challenge", "c"},
                     {"username", "a"},
                     {"policy", acceptPattern()}}})
           .dump(),
       50001, "Version Error."},
      {"policy disallows the aaid", reg,
       registrationRequest("a", json::object(),
                           {{"accepted", json::array({json::array({{{"aaid", {"0F3D#0002"}}}})})},
                            {"disallowed", json::array({{{"aaid", {"0F3D#0002"}}}})}}),
       40000, "aaid:0F3D#0002 policy not allowed. aaid:0F3D#0002 policy not allowed. "},
      {"untrusted facet", reg, registrationRequest("a", other), 50000,
       "facetID:ios:bundle-id:com.example.host is not trusted under https://127.0.0.1:1/app"},
      {"auth: no message", auth, "[]", 60000, "Missing Required Fields: authenticationRequest "},
      {"auth: op Reg", auth,
       json::array({{{"header", header("Reg")}, {"challenge", "c"}, {"policy", acceptPattern()}}})
           .dump(),
       60000, "Missing Required Fields: op "},
      {"auth: bad transaction", auth, authenticationRequest(json::object(), bad), 60000,
       "Missing Required Fields: transaction "},
      {"auth: not enrolled", auth, authenticationRequest(), 20001, ""},
      {"supported: not JSON", supported, "{", 60001, "JSON Serialization error."},
      {"supported: no message of version 1.1", supported, "[{}]", 60001,
       "JSON Serialization error."},
      {"supported: fields", supported,
       json::array({{{"header", header("Dereg")},
                     {"policy", {{"accepted", json::array({1, json::array({2})})}}}}})
           .dump(),
       60000, "Missing Required Fields: username accepted accepted op "},
  };
  Host host;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const size_t before = host.recorder->outcomes.size();
    Error error;
    if (row.kind == reg) {
      host.corvane->doRegistration(DoRegReq{row.request, row.userVerification, "", {}});
    } else if (row.kind == auth) {
      host.corvane->doAuthentication(DoAuthReq{row.request, "alice", {}, ""});
    } else {
      EXPECT_FALSE(host.corvane->getSupportedAuthenticator(row.request, &error));
    }
    ASSERT_EQ(host.recorder->outcomes.size(), before + (row.kind == supported ? 0 : 1));
    if (row.kind != supported) {
      EXPECT_FALSE(host.last().response);
      error = host.last().error;
    }
    EXPECT_EQ(error,
              Error::corvane(row.code, row.text.empty() ? std::nullopt
                                                        : std::optional<std::string>(row.text)));
  }
  // Not JSON: the parser's own description.
  host.corvane->doRegistration(DoRegReq{"[{", "pattern", "", {}});
  EXPECT_EQ(host.last().error.code(), 60001);
  EXPECT_FALSE(host.last().error.localizedDescription().empty());
  EXPECT_EQ(host.presenter->presentedCount(), 0u);

  // With the pattern lock switched off nothing is active.
  Host inactive(false);
  Error error;
  EXPECT_FALSE(inactive.corvane->getSupportedAuthenticator(registrationRequest("a"), &error));
  EXPECT_EQ(error, Error::corvane(40004, "no active authenticator."));
}

TEST(FlowsTest, AaidLookUps) {
  std::vector<AuthenticatorInfo> infos(2);  // one supported, one enrolled
  infos[0].aaid = "0F3D#0001";
  infos[0].status = 2;
  infos[1].aaid = "0F3D#0002";
  infos[1].status = 4;
  EXPECT_TRUE(isAaidInAuthenticatorInfoArray("0F3D#0001", infos));
  EXPECT_FALSE(isAaidInAuthenticatorInfoArray("0f3d#0001", infos));
  EXPECT_TRUE(isAaidInAuthenticatorInfoArrayAndRegistered("0F3D#0002", infos));
  EXPECT_FALSE(isAaidInAuthenticatorInfoArrayAndRegistered("0F3D#0001", infos));
}

// --- All or nothing ---

// Registers `user` through the facade, drawing the pattern on both screens.
const Outcome& registerUser(Host& host, std::string_view user) {
  host.corvane->doRegistration(DoRegReq{registrationRequest(user), "pattern", "", {}});
  host.draw(2);
  return host.last();
}

const Outcome& authenticateUser(Host& host, std::string_view user) {
  host.corvane->doAuthentication(DoAuthReq{authenticationRequest(), std::string(user), {}, ""});
  host.draw(1);
  return host.last();
}

// Every item of the fake store, attributes and value, in insertion order.
std::vector<std::string> everyItem(const testing::FakeItemStore& store) {
  std::vector<std::string> out;
  for (const testing::FakeItemStore::Item& item : store.items()) {
    const ItemAttributes& a = item.attributes;
    out.push_back(a.account.value_or("-") + "|" + a.service.value_or("-") + "|" +
                  a.generic.value_or("-") + "|" +
                  (a.label ? std::string(a.label->begin(), a.label->end()) : "-") + "|" +
                  a.accessGroup.value_or("-") + "|" + hexadecimalString(item.value.exposeSecret()));
  }
  return out;
}

// For every write a registration (then an authentication) makes, the commit included: when that
// write fails the host gets a failure and the store holds exactly what it held before, and the
// next attempt succeeds. The loop ends at the first N beyond the operation's writes.
TEST(AllOrNothingTest, AFailedWriteAnywhereLeavesTheStoresAsTheyWere) {
  // What the host is told when the Nth write fails. Registration: "AUTHNR.data", pattern, fail
  // record, ASM record, commit. Authentication: fail record, counter, sign time, commit.
  const std::vector<std::string> registrationTexts = {
      "the item store failed.", "cannot store the pattern.", "the item store failed.",
      "cannot store registration data.", "the item store failed."};
  const std::vector<std::string> authenticationTexts = {
      "the item store failed.", "cannot update authenticator data",
      "cannot update authenticator data", "cannot update authenticator data"};
  for (const bool authentication : {false, true}) {
    const std::vector<std::string>& texts =
        authentication ? authenticationTexts : registrationTexts;
    int succeededAt = 0;
    for (int n = 1; n < 20 && succeededAt == 0; ++n) {
      SCOPED_TRACE(::testing::Message()
                   << (authentication ? "authentication" : "registration") << ", write " << n);
      auto items = fakeItemStore();
      auto keys = std::make_shared<testing::FakeKeyStore>();
      Host host(withStores(items, keys));
      // Another user first: the installation's own items (the authenticators' key, the ASM
      // token) exist before the operation under test.
      ASSERT_EQ(registerUser(host, "bob").error.code(), 0);
      if (authentication) {
        ASSERT_EQ(registerUser(host, "alice").error.code(), 0);
      }
      const std::vector<std::string> before = everyItem(*items);
      const std::vector<std::string> keysBefore = keys->tags();
      const int commits = items->commitCount();

      items->failWriteNumber(n);
      const Outcome outcome =
          authentication ? authenticateUser(host, "alice") : registerUser(host, "alice");
      items->failWriteNumber(0);
      if (outcome.error.code() == 0) {
        succeededAt = n;
        EXPECT_EQ(items->commitCount(), commits + 1);
        break;
      }
      EXPECT_FALSE(outcome.response);
      ASSERT_LE(static_cast<size_t>(n), texts.size());
      EXPECT_EQ(outcome.error, Error::corvane(10000, texts[static_cast<size_t>(n - 1)]));
      EXPECT_EQ(everyItem(*items), before);
      EXPECT_EQ(keys->tags(), keysBefore);
      EXPECT_FALSE(items->inTransaction());
      // Nothing half-written stands in the way (no record answering 20003, no stale counter).
      const Outcome again =
          authentication ? authenticateUser(host, "alice") : registerUser(host, "alice");
      EXPECT_EQ(again.error.code(), 0) << again.error.localizedDescription();
    }
    EXPECT_EQ(static_cast<size_t>(succeededAt), texts.size() + 1);
  }
}

// A lockout wipe is one commit. The key store keeps its keys in the same fake item store, as the
// Linux one does in items.sqlite, so when any write from the last try on fails, alice keeps every
// item, her key included; when none fails, only her sealed pattern is left.
TEST(AllOrNothingTest, AFailedLockoutWipeKeepsTheRegistration) {
  const std::initializer_list<uint32_t> wrong = {6, 3, 0, 1, 2, 5};
  const auto names = [](const testing::FakeItemStore& store) {
    std::vector<std::string> out = everyItem(store);
    for (std::string& item : out) item.erase(item.rfind('|'));  // the value goes
    return out;
  };
  const std::string alice = Utils::sha256("alice");
  int wipedAt = 0;
  for (int n = 1; n < 12 && wipedAt == 0; ++n) {
    SCOPED_TRACE(::testing::Message() << "write " << n);
    auto items = fakeItemStore();
    testing::TempDir keyDir;
    Host host(withStores(
        items, std::make_shared<linux_platform::OpenSslKeyStore>(items, keyDir.path() / "k.key")));
    ASSERT_EQ(registerUser(host, "alice").error.code(), 0);
    std::vector<std::string> before;
    // "2-3|3-lock": two rounds of three wrong tries, then the lockout round's three.
    for (int round = 0; round < 3; ++round) {
      host.corvane->doAuthentication(DoAuthReq{authenticationRequest(), "alice", {}, ""});
      host.scheduler->drain();
      for (int i = 0; i < 3; ++i) {
        if (round == 2 && i == 2) {
          before = names(*items);
          items->failWriteNumber(n);
        }
        ASSERT_TRUE(host.presenter->draw(wrong));
        host.scheduler->drain();
      }
      host.scheduler->advance(std::chrono::seconds(3));  // the screen closes
    }
    items->failWriteNumber(0);
    const bool aliceLeft = std::any_of(before.begin(), before.end(), [&](const std::string& row) {
      return row.find(alice) != std::string::npos;
    });
    ASSERT_TRUE(aliceLeft);
    if (host.last().error != Error::corvane(10000, "the item store failed.")) {
      wipedAt = n;
      EXPECT_EQ(host.last().error.localizedDescription(),
                "Reached the maximum number of attempts. For the security reasons, we will delete "
                "your registeration data immediately.");
      // Only the sealed pattern stays; a new registration replaces it.
      for (const std::string& row : names(*items)) {
        EXPECT_TRUE(row.find(alice) == row.npos || row.find("|AUTHNR.patternlock|") != row.npos)
            << row;
      }
      break;
    }
    EXPECT_EQ(names(*items), before);
    EXPECT_FALSE(items->inTransaction());
  }
  // The try's count, the three records, the key, the fail record and the commit.
  EXPECT_EQ(wipedAt, 8);
}

// The rows of items.sqlite: account, service, generic, label and access group, sorted.
std::vector<std::string> storedRows(const std::filesystem::path& file) {
  std::vector<std::string> rows;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
  const auto add = [](void* out, int, char** values, char**) {
    static_cast<std::vector<std::string>*>(out)->push_back(values[0]);
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(db,
                         "SELECT ifnull(account, '-') || ' | ' || ifnull(service, '-') || ' | ' || "
                         "ifnull(generic, '-') || ' | ' || ifnull(CAST(label AS TEXT), '-') || "
                         "' | ' || ifnull(access_group, '-') FROM items",
                         add, &rows, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  std::sort(rows.begin(), rows.end());
  return rows;
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// A killed registration leaves all of it or none of it: a child process registers "alice" over
// the SQLite store and is killed at a random moment, 50 times; afterwards alice has either every
// item of a registration or none, the file is sound, and a last registration succeeds.
TEST(AllOrNothingTest, AKilledRegistrationLeavesAllOrNothing) {
  testing::TempDir dir;
  writeHostBundle(dir.path());
  Host::Setup setup;
  setup.root = dir.path();
  setup.durableWrites = true;
  const std::filesystem::path file = dir.path() / "data" / "items.sqlite";
  const std::string aliceHash = Utils::sha256("alice");
  {
    Host warm(setup);
    ASSERT_EQ(registerUser(warm, "bob").error.code(), 0);
  }
  const auto aliceRows = [&] {
    size_t count = 0;
    for (const std::string& row : storedRows(file)) count += row.find(aliceHash) != row.npos;
    return count;
  };
  const auto forget = [&] {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    const std::string sql = "DELETE FROM items WHERE account LIKE '%" + aliceHash + "%'";
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
  };
  // A child that registers alice; it writes one byte to the pipe just before it asks.
  const auto start = [&](int pipeEnds[2]) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::close(pipeEnds[0]);
    int status = 1;
    {
      Host child(setup);
      // The host's own temporary folder is unused here; a killed child could not remove it.
      std::error_code ignored;
      std::filesystem::remove_all(child.dir.path(), ignored);
      const char byte = 1;
      if (child.corvane && ::write(pipeEnds[1], &byte, 1) == 1) {
        status = registerUser(child, "alice").error.code() == 0 ? 0 : 1;
      }
      ::_exit(status);
    }
  };
  const auto run = [&](std::optional<std::chrono::microseconds> killAfter) {
    int pipeEnds[2];
    EXPECT_EQ(::pipe(pipeEnds), 0);
    const pid_t pid = start(pipeEnds);
    ::close(pipeEnds[1]);
    char byte = 0;
    EXPECT_EQ(::read(pipeEnds[0], &byte, 1), 1);
    const auto asked = std::chrono::steady_clock::now();
    if (killAfter) {
      std::this_thread::sleep_for(*killAfter);
      ::kill(pid, SIGKILL);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    ::close(pipeEnds[0]);
    return std::pair(status, std::chrono::steady_clock::now() - asked);
  };

  // One whole registration, to learn its items and how long it takes.
  const auto [status, took] = run(std::nullopt);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const size_t complete = aliceRows();
  ASSERT_EQ(complete, 5u);  // pattern, "AUTHNR.data", fail record, ASM record, key
  forget();

  std::mt19937 random(std::random_device{}());
  const auto span = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
  std::uniform_int_distribution<int64_t> moment(0, span + span / 4);
  int whole = 0;
  for (int i = 0; i < 50; ++i) {
    run(std::chrono::microseconds(moment(random)));
    const size_t rows = aliceRows();
    ASSERT_TRUE(rows == 0 || rows == complete) << "after kill " << i << ": " << rows << " items";
    if (rows == complete) {
      ++whole;
      forget();
    }
  }
  std::cout << "[ killed  ] " << whole << " of 50 registrations had committed\n";

  Host last(setup);
  ASSERT_EQ(registerUser(last, "alice").error.code(), 0);
  EXPECT_EQ(authenticateUser(last, "alice").error.code(), 0);
  EXPECT_EQ(aliceRows(), complete + 1);  // and the sign time
}

// The persisted layout after one registration and one authentication: a renamed constant would
// orphan every user's data, so the names are pinned here as literals.
TEST(PersistedLayoutTest, OneRegistrationAndOneAuthentication) {
  Host host;
  const Outcome& registered = registerUser(host, "alice");
  const std::string keyID(
      asText(keyRegistration(readResponse(registered, "Y2hhbGxlbmdl")).at(0x2E09)));
  ASSERT_EQ(authenticateUser(host, "alice").error.code(), 0);

  // {H}: SHA-256 hex of "alice"; {B}: the key ID in base64url.
  const std::string rows[] = {
      "0F3D#0002 | AUTHNR.authKeyTag | - | com.example.host.Corvane | CORVANELNX.com.example.host",
      "AUTHNR.patternLock.{H}.0F3D#0002 | AUTHNR.patternLock | AUTHNR.patternLock.{H} | "
      "com.example.host.Corvane | CORVANELNX.com.example.host",
      "CORVANE | ios:bundle-id:com.example.host.asmToken | - | com.example.host.Corvane | "
      "CORVANELNX.com.example.host",
      "Corvane.installed | corvane.installation | - | - | CORVANELNX.com.example.host",
      "{H}.0F3D#0002 | ASMKH.data.{B} | ASMKH.data.{H} | com.example.host.Corvane | "
      "CORVANELNX.com.example.host",
      "{H}.0F3D#0002 | AUTHNR.data.{B} | AUTHNR.data.{H} | com.example.host.Corvane | "
      "CORVANELNX.com.example.host",
      "{H}.0F3D#0002 | AUTHNR.patternlock | - | com.example.host.Corvane | "
      "CORVANELNX.com.example.host",
      "{H}.0F3D#0002 | AUTHNR.signtime.{B} | AUTHNR.signtime.{H} | com.example.host.Corvane | "
      "CORVANELNX.com.example.host",
      "bundleSeedID |  | - | - | CORVANELNX.com.example.host",
      "ios:bundle-id:com.example.host.0F3D#0002.PRI.{H} | corvane.keystore | - | "
      "corvane.keystore | -",
  };
  std::vector<std::string> expected;
  for (const std::string& row : rows) {
    expected.push_back(replaced(
        replaced(row, "{H}", "2bd806c97f0e00af1a1fc3328fa763a9269723c8db8fac4f93af71db186d6e90"),
        "{B}", Utils::base64URLSafeStringFromData(asBytes(keyID))));
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(storedRows(host.root / "data" / "items.sqlite"), expected);
}

// ----- data sync and the white-box extension -----

// base64url of a gzip member of `text`, as the server (wbgen user-tables) packs a bundle half.
std::string pack(std::string_view text) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes out(deflateBound(&stream, static_cast<uLong>(text.size())));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return Utils::base64URLSafeStringFromData(out);
}

// A flat array as nested JSON arrays of the given dimensions.
template <typename T>
json nested(const T* flat, std::vector<size_t> dims) {
  json out = json::array();
  const size_t stride = std::accumulate(dims.begin() + 1, dims.end(), size_t{1}, std::multiplies());
  for (size_t i = 0; i < dims[0]; ++i) {
    out.push_back(dims.size() == 1 ? json(flat[i])
                                   : nested(flat + i * stride, {dims.begin() + 1, dims.end()}));
  }
  return out;
}

// A user's bundle for `key`, made by the table generator the way `wbgen user-tables` makes it,
// with the external encoding it carries.
struct Bundle {
  std::string data1, data2;
  std::vector<uint8_t> encoding;
};
Bundle makeBundle(const SecretBytes& key) {
  using namespace whitebox;
  const std::optional<XorCodebook> book = XorCodebook::recover(*builtinAuthXor());
  std::optional<RoundTables> round = generateRoundTables(key, *book);
  std::optional<std::vector<uint8_t>> encoding = generateExternalEncoding(false);
  EXPECT_TRUE(round && encoding);
  const json data1 = {{"Tyboxes", nested(round->tyboxes.data(), {13, 16, 256})},
                      {"TboxesLast", nested(round->tboxesLast.data(), {16, 256})},
                      {"MBL", nested(round->mbl.data(), {13, 16, 256})}};
  const json data2 = {{"permutations", nested(encoding->data(), {16, 256})}};
  return {pack(data1.dump()), pack(data2.dump()), *encoding};
}

// The external encoding a bundle carries, read back from its data2.
std::vector<uint8_t> encodingOf(std::string_view data2) {
  const Bytes text = Utils::uncompressGZip(Utils::decodeBase64Url(data2).value()).value();
  std::vector<uint8_t> flat;
  const json parsed = json::parse(asText(text));
  for (const json& row : parsed.at("permutations")) {
    for (const json& entry : row) flat.push_back(entry.get<uint8_t>());
  }
  return flat;
}

#ifdef CORVANE_WBGEN_PATH
// The bundle `wbgen user-tables --key HEX` prints, as a server would hand it out.
Bundle wbgenBundle(std::string_view keyHex) {
  const std::string command =
      std::string(CORVANE_WBGEN_PATH) + " user-tables --key " + std::string(keyHex);
  FILE* pipe = ::popen(command.c_str(), "r");
  EXPECT_NE(pipe, nullptr);
  std::string out;
  for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
  EXPECT_EQ(pipe != nullptr ? ::pclose(pipe) : -1, 0);
  const json printed = json::parse(out);
  Bundle bundle{printed.at("data1"), printed.at("data2"), {}};
  bundle.encoding = encodingOf(bundle.data2);
  return bundle;
}
#endif

std::optional<SyncRegDataRequest> syncRequest(std::optional<std::string> user,
                                              std::optional<std::string> data1,
                                              std::optional<std::string> data2) {
  return SyncRegDataRequest{std::move(user), RegData1{std::move(data1), std::move(data2)}};
}

// The user's "WBTable" records, read from the store file itself.
std::vector<WBTable> storedTables(const Host& host, std::string_view user) {
  CoreDataManager records(host.dir.path() / "data");
  return records.fetchRecordsFromTable("WBTable", RecordPredicate::usernameEquals(user)).value();
}

TEST(SyncTest, TablesEncipherTheWhiteboxExtension) {
  Host host;
  ASSERT_EQ(registerUser(host, "alice").error.code(), 0);
  const Bytes publicKey = keyRegistration(readResponse(host.last(), "Y2hhbGxlbmdl")).at(0x2E0C);
  ASSERT_EQ(registerUser(host, "bob").error.code(), 0);

  Bytes keyBytes(32);
  for (size_t i = 0; i < keyBytes.size(); ++i) keyBytes[i] = static_cast<uint8_t>(0xA0 + 7 * i);
#ifdef CORVANE_WBGEN_PATH
  const Bundle bundle = wbgenBundle(hexadecimalString(keyBytes));
#else
  const Bundle bundle = makeBundle(SecretBytes{std::span<const uint8_t>(keyBytes)});
#endif
  // Sixteen permutations, not all identities (the encoding must be undone, not ignored).
  ASSERT_EQ(bundle.encoding.size(), 16u * 256u);
  bool identity = true;
  for (size_t i = 0; i < bundle.encoding.size(); ++i) identity &= bundle.encoding[i] == i % 256;
  ASSERT_FALSE(identity);
  Error error = Error::corvane(1, "untouched");
  ASSERT_TRUE(host.corvane->syncRegData(syncRequest("alice", bundle.data1, bundle.data2), &error));
  EXPECT_EQ(error, Error::corvane(1, "untouched"));
  // Stored exactly as received, still packed.
  const std::vector<WBTable> stored = storedTables(host, "alice");
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].wbTable->exposeSecretText(), bundle.data1);
  EXPECT_EQ(stored[0].permutations->exposeSecretText(), bundle.data2);
  // A second sync replaces the user's row.
  ASSERT_TRUE(host.corvane->syncRegData(syncRequest("alice", bundle.data1, bundle.data2), &error));
  EXPECT_EQ(storedTables(host, "alice").size(), 1u);

  // 37 bytes: two whole CFB blocks and a partial one.
  const std::string sent = "transfer 100 EUR to bob, ref 2026-11";
  const json wb = {
      {"exts",
       json::array({{{"id", "wb_encryption"}, {"data", sent}, {"fail_if_unknown", false}}})}};
  host.corvane->doAuthentication(DoAuthReq{authenticationRequest(wb), "alice", {}, "Alice"});
  host.draw();
  // The extension inside the signed data: non-critical, id and enciphered data.
  const auto extension = elements(
      signedFields(readResponse(host.last(), "YXV0aC1jaGFsbGVuZ2U"), publicKey).at(0x3E12));
  EXPECT_EQ(asText(extension.at(0x2E13)), "wb_encryption");
  Bytes cipher = Utils::decodeBase64Url(asText(extension.at(0x2E14))).value();
  ASSERT_EQ(cipher.size(), sent.size());
  // Undo the external encoding, then plain AES-256-CFB128 with the key and the challenge's IV.
  for (size_t i = 0; i < cipher.size(); ++i) {
    const auto row = bundle.encoding.begin() + static_cast<std::ptrdiff_t>((i % 16) * 256);
    cipher[i] = static_cast<uint8_t>(std::find(row, row + 256, cipher[i]) - row);
  }
  const Bytes iv = Utils::hexString2NSData(AesWBHelper::generateIV("YXV0aC1jaGFsbGVuZ2U"));
  ASSERT_EQ(iv.size(), 16u);
  Bytes plain(cipher.size());
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int written = 0;
  ASSERT_EQ(EVP_DecryptInit_ex(ctx, EVP_aes_256_cfb128(), nullptr, keyBytes.data(), iv.data()), 1);
  ASSERT_EQ(EVP_DecryptUpdate(ctx, plain.data(), &written, cipher.data(),
                              static_cast<int>(cipher.size())),
            1);
  EVP_CIPHER_CTX_free(ctx);
  EXPECT_EQ(asText(plain), sent);

  // Without tables, or with tables that no longer decode, the extension cannot be made.
  const size_t screens = host.presenter->presentedCount();
  const std::pair<std::optional<std::pair<std::string, std::string>>, std::string> broken[] = {
      {std::nullopt, "user has no WB table data."},
      {std::pair(pack(R"({"Tyboxes":[],"TboxesLast":[],"MBL":[]})"), bundle.data2),
       "Invalid WB table data."},
      {std::pair(bundle.data1, pack(R"({"permutations":[[0,0]]})")), "Invalid permutations data."},
  };
  for (const auto& [tables, text] : broken) {
    if (tables) {
      WBTable row;
      row.username = "bob";
      row.wbTable = SecretBytes::fromText(tables->first);
      row.permutations = SecretBytes::fromText(tables->second);
      ASSERT_TRUE(
          CoreDataManager(host.dir.path() / "data").insertRecordWithRecordValues(row, "WBTable"));
    }
    host.corvane->doAuthentication(DoAuthReq{authenticationRequest(wb), "bob", {}, "Bob"});
    EXPECT_EQ(host.last().error, Error::corvane(40001, text));
  }
  EXPECT_EQ(host.presenter->presentedCount(), screens) << "no screen for a refused request";

  // The marker stores nothing and succeeds.
  EXPECT_TRUE(host.corvane->syncRegData(syncRequest("carol", "ZANDREL_FIDO_NO_DATA", "x"), &error));
  EXPECT_TRUE(storedTables(host, "carol").empty());

  // A failed sync for alice drops her tables and registration; bob's stay.
  EXPECT_FALSE(host.corvane->syncRegData(syncRequest("alice", "%", bundle.data2), &error));
  EXPECT_EQ(error, Error::corvane(60001, "data1 Decompress Error."));
  EXPECT_TRUE(storedTables(host, "alice").empty());
  EXPECT_EQ(enrolment(host, "alice"), 2u);
  EXPECT_EQ(enrolment(host, "bob"), 4u);
  EXPECT_EQ(storedTables(host, "bob").size(), 1u);
  // Without a user name nobody's data goes.
  EXPECT_FALSE(host.corvane->syncRegData(syncRequest("", "%", bundle.data2), &error));
  EXPECT_FALSE(host.corvane->syncRegData(syncRequest(std::nullopt, "%", "%"), &error));
  EXPECT_EQ(enrolment(host, "bob"), 4u);
  EXPECT_EQ(storedTables(host, "bob").size(), 1u);
}

TEST(SyncTest, EveryFailureHasItsCodeAndText) {
  Bytes keyBytes(32, 0x5A);
  const Bundle good = makeBundle(SecretBytes{std::span<const uint8_t>(keyBytes)});
  Error parseError;
  EXPECT_FALSE(jsonmodel::parseJson("{\"a\":", &parseError));
  const std::string parserText = parseError.localizedDescription();
  const struct {
    const char* name;
    std::optional<SyncRegDataRequest> request;
    int64_t code;
    std::string text;
  } rows[] = {
      {"no request", std::nullopt, 60000, "Missing Required Fields: syncRegDataRequest "},
      {"no user, no data1", syncRequest(std::nullopt, std::nullopt, "x"), 60000,
       "Missing Required Fields: username data1 "},
      {"empty user, no regData1", SyncRegDataRequest{"", std::nullopt}, 60000,
       "Missing Required Fields: username regData1 "},
      {"empty data2", syncRequest("carol", "x", ""), 60000, "Missing Required Fields: data2"},
      {"both data empty", syncRequest("carol", "", std::nullopt), 60000,
       "Missing Required Fields: data1 data2"},
      {"data1 not base64url", syncRequest("carol", "a+b/", good.data2), 60001,
       "data1 Decompress Error."},
      {"data1 not gzip", syncRequest("carol", "aGVsbG8", good.data2), 60001,
       "data1 Decompress Error."},
      {"data1 not JSON", syncRequest("carol", pack("{\"a\":"), good.data2), 10000, parserText},
      {"data1 without MBL",
       syncRequest("carol", pack(R"({"Tyboxes":[],"TboxesLast":[]})"), good.data2), 60001,
       "Invalid data1 data. Missing Required Fields: MBL "},
      {"data1 tables not arrays",
       syncRequest("carol", pack(R"({"Tyboxes":{},"TboxesLast":1,"MBL":[]})"), good.data2), 60001,
       "Invalid data1 data. Missing Required Fields: Tyboxes TboxesLast "},
      {"data1 an array", syncRequest("carol", pack("[]"), good.data2), 60001,
       "Invalid data1 data. Missing Required Fields: Tyboxes TboxesLast MBL "},
      {"data2 not gzip", syncRequest("carol", good.data1, "aGVsbG8"), 60001,
       "data2 Decompress Error."},
      {"data2 not JSON", syncRequest("carol", good.data1, pack("{\"a\":")), 10000, parserText},
      {"no permutations", syncRequest("carol", good.data1, pack(R"({"permutation":[]})")), 60001,
       "Missing Required Fields: permutations"},
      {"permutations not an array",
       syncRequest("carol", good.data1, pack(R"({"permutations":"x"})")), 60001,
       "Missing Required Fields: permutations"},
      {"tables of the wrong shape",
       syncRequest("carol", pack(R"({"Tyboxes":[],"TboxesLast":[],"MBL":[]})"), good.data2), 60001,
       "Invalid WB table data."},
      {"permutations not bijections",
       syncRequest("carol", good.data1, pack(R"({"permutations":[[1,1]]})")), 60001,
       "Invalid permutations data."},
  };
  Host host;
  for (const auto& row : rows) {
    Error error;
    EXPECT_FALSE(host.corvane->syncRegData(row.request, &error)) << row.name;
    EXPECT_EQ(error, Error::corvane(row.code, row.text))
        << row.name << ": " << error.localizedDescription();
    EXPECT_TRUE(storedTables(host, "carol").empty()) << row.name;
  }
  Error error;
  for (std::optional<std::string> appID :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    host.corvane->syncServerData(SyncServerData{appID, {}}, &error);
    EXPECT_EQ(error, Error::corvane(60000, "Missing Required Fields: appID"));
    error = Error();
  }
  // A store that cannot be written.
  ASSERT_TRUE(host.corvane->syncRegData(syncRequest("carol", good.data1, good.data2), nullptr));
  testing::writeFile(host.dir.path() / "data" / "Database" / "Model.sqlite",
                     std::string(8192, 'x'));
  EXPECT_FALSE(host.corvane->syncRegData(syncRequest("carol", good.data1, good.data2), &error));
  EXPECT_EQ(error, Error::corvane(10000, "Fail to insert data into CoreData."));
}

TEST(SyncTest, ServerDataRemovesTheNamedRegistrations) {
  Host host;
  for (const char* user : {"alice", "bob", "carol"}) {
    ASSERT_EQ(registerUser(host, user).error.code(), 0) << user;
  }
  Error error = Error::corvane(1, "untouched");
  host.corvane->syncServerData(SyncServerData{"ios:bundle-id:com.example.host",
                                              {{"alice", "0F3D#0001", ""},
                                               {"alice", "", ""},
                                               {"", "", ""},
                                               {"bob", "0F3D#0002", std::nullopt}}},
                               &error);
  EXPECT_EQ(error, Error::corvane(1, "untouched"));
  EXPECT_EQ(enrolment(host, "alice"), 2u);
  EXPECT_EQ(enrolment(host, "bob"), 2u);
  EXPECT_EQ(enrolment(host, "carol"), 4u);
  host.corvane->syncServerData(SyncServerData{"ios:bundle-id:com.example.host", {}}, &error);
  EXPECT_EQ(enrolment(host, "carol"), 4u);
}

}  // namespace
}  // namespace corvane
