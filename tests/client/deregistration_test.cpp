// Deregistration through the facade, over the real Linux stores: every refusal with its exact code
// and text, and, with users registered under two application IDs (the caller's facet ID and an
// https appID whose trusted-facets document a local server serves), exactly which registrations
// and keys each operation leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/flow_support.h"
#include "facade_host.h"
#include "fakes/fake_key_store.h"
#include "foundation/utils.h"
#include "support/test_https_server.h"

namespace corvane {
namespace {

using namespace facade;
constexpr std::string_view kAaid = "0F3D#0002";

// A test CA the client trusts and a server whose "/facets" document lists the caller.
struct FacetServer {
  FacetServer() {
    testing::TestHttpServer::Canned document;
    document.body = std::string(R"({"trustedFacets":[{"version":{"major":1,"minor":0},"ids":[")") +
                    std::string(kFacet) + R"("]}]})";
    server.serve("/facets", document);
    ca.writePem(dir.path() / "ca.pem");
  }
  std::string appID() const { return server.url("/facets"); }

  testing::TempDir dir;
  testing::TestCa ca{"Corvane Test CA"};
  testing::TestHttpServer server{testing::TestHttpServer::Kind::https, &ca};
};

class Device : public Host {
 public:
  explicit Device(const FacetServer& facets, std::function<void(Platform&)> adjust = {})
      : Host(Setup{.extraCaFile = facets.dir.path() / "ca.pem", .adjust = std::move(adjust)}) {}

  // Registers `user` under `appID` (absent: no header appID), drawing the pattern twice; the
  // registration's key ID is kept under "<user>@<label>".
  void enrol(const std::string& user, std::optional<std::string> appID, const std::string& label) {
    const json extra = appID ? json{{"appID", *appID}} : json::object();
    corvane->doRegistration(DoRegReq{registrationRequest(user, extra), "pattern", user, {}});
    ASSERT_NO_FATAL_FAILURE(draw(2)) << user;
    ASSERT_EQ(last().error, Error::corvane(0)) << user;
    std::vector<std::string> services;
    ASSERT_EQ(items->listServices({Utils::sha256(user) + ".0F3D#0002", std::nullopt,
                                   "ASMKH.data." + Utils::sha256(user)},
                                  &services),
              StoreStatus::ok);
    ASSERT_EQ(services.size(), 1u);
    const std::string keyID = services.front().substr(std::string("ASMKH.data.").size());
    names[keyID] = user + "@" + label;
    keyIDs[user] = keyID;
    users.push_back(user);
  }

  // What is left: "<user>@<app>" for each registration whose ASM and authenticator records are
  // both there ("...: ASMKH.data only" and so on otherwise), then "key <user>" for each key pair.
  std::vector<std::string> left() {
    std::map<std::string, std::vector<std::string>> records;
    std::vector<std::string> services;
    const StoreStatus listed = items->listServices({}, &services);
    EXPECT_TRUE(listed == StoreStatus::ok || listed == StoreStatus::notFound);
    for (const std::string& service : services) {
      for (std::string_view prefix : {"ASMKH.data.", "AUTHNR.data."}) {
        if (!service.starts_with(prefix)) continue;
        const std::string keyID = service.substr(prefix.size());
        const std::string name = names.count(keyID) ? names.at(keyID) : "unknown " + keyID;
        records[name].push_back(std::string(prefix.substr(0, prefix.size() - 1)));
      }
    }
    std::vector<std::string> out;
    for (auto& [name, kinds] : records) {
      std::sort(kinds.begin(), kinds.end());
      out.push_back(kinds.size() == 2 ? name : name + ": " + kinds.front() + " only");
    }
    for (const std::string& user : users) {
      const std::string tag = std::string(kFacet) + ".0F3D#0002.PRI." + Utils::sha256(user);
      const uint8_t message[] = {'m'};
      if (keys->sign(tag, message, nullptr) == StoreStatus::ok) out.push_back("key " + user);
    }
    return out;
  }

  std::map<std::string, std::string> names;   // key ID to "<user>@<app>"
  std::map<std::string, std::string> keyIDs;  // user to key ID
  std::vector<std::string> users;
};

json entry(std::string_view aaid, std::string_view keyID) {
  return {{"aaid", aaid}, {"keyID", keyID}};
}
std::string deregistrationRequest(json header, json authenticators) {
  return json::array(
             {{{"header", std::move(header)}, {"authenticators", std::move(authenticators)}}})
      .dump();
}

// An error slot that no operation has written yet.
Error untouched() {
  return Error::corvane(-1, "untouched");
}

TEST(DeregistrationTest, RequestRefusals) {
  FacetServer facets;
  auto items = fakeItemStore();
  Device host(facets, withStores(items, std::make_shared<testing::FakeKeyStore>()).adjust);
  const json valid = json::array({entry(kAaid, "a2V5")});
  json strict = header("Dereg");
  strict["exts"] =
      json::array({{{"id", "register_limit"}, {"data", "1"}, {"fail_if_unknown", true}}});
  json badFields = header("Dereg", {{"appID", std::string(513, 'a')}});
  badFields["op"] = "Reg";
  badFields["serverData"] = "";
  badFields["exts"] = json::array({{{"id", ""}, {"data", "x"}, {"fail_if_unknown", false}}});
  json oldVersion = header("Dereg");
  oldVersion["upv"]["minor"] = 0;
  const struct {
    const char* name;
    std::string request;
    Error error;
  } rows[] = {
      {"not JSON", "[{", Error::corvane(60001, "Json Serialization error.")},
      {"message without authenticators", json::array({{{"header", header("Dereg")}}}).dump(),
       Error::corvane(60001, "Json Serialization error.")},
      {"mistyped header appID",
       json::array(
           {{{"header", {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", "Dereg"}, {"appID", 7}}},
             {"authenticators", valid}}})
           .dump(),
       Error::corvane(60001, "")},
      {"two messages of one version",
       json::array({json::parse(deregistrationRequest(header("Dereg"), valid))[0],
                    json::parse(deregistrationRequest(header("Dereg"), valid))[0]})
           .dump(),
       Error::corvane(60001, "Multiple UAF Messages with the same version.")},
      {"no message", "[]",
       Error::corvane(60000,
                      "Missing Required Fields: DeregistrationRequest upv op authenticators ")},
      {"fields in check order", deregistrationRequest(badFields, json::array({entry("", "a2V5")})),
       Error::corvane(60000,
                      "Missing Required Fields: appID serverData op authenticators exts.id ")},
      {"empty list", deregistrationRequest(header("Dereg"), json::array()),
       Error::corvane(60000, "Missing Required Fields: authenticators ")},
      // An absent keyID in a longer list is already a missing field.
      {"first entry without keyID",
       deregistrationRequest(header("Dereg"),
                             json::array({{{"aaid", kAaid}, {"keyID", 5}}, entry(kAaid, "a2V5")})),
       Error::corvane(60000, "Missing Required Fields: authenticators ")},
      {"supported extension marked critical", deregistrationRequest(strict, valid),
       Error::corvane(10000, "The property [fail_if_unknown] is set to true.")},
      {"version 1.0", deregistrationRequest(oldVersion, valid),
       Error::corvane(50001, "Version Error.")},
      {"untrusted appID",
       deregistrationRequest(header("Dereg", {{"appID", "https://127.0.0.1:1/app"}}), valid),
       Error::corvane(50000,
                      "facetID:ios:bundle-id:com.example.host is not trusted under "
                      "https://127.0.0.1:1/app")},
  };
  for (const auto& row : rows) {
    Error error = untouched();
    EXPECT_FALSE(host.corvane->doDeregistrationReq(row.request, &error)) << row.name;
    EXPECT_EQ(error, row.error) << row.name;
  }

  // The ASM's failure arrives translated, without a text.
  items->failAllReads(true);
  items->failAllWrites(true);
  Error error = untouched();
  EXPECT_FALSE(
      host.corvane->doDeregistrationReq(deregistrationRequest(header("Dereg"), valid), &error));
  EXPECT_EQ(error, Error::corvane(10000));
  error = untouched();
  EXPECT_FALSE(host.corvane->doDeregistrationUsername("alice", &error));
  EXPECT_EQ(error, Error::corvane(10000));
  error = untouched();
  EXPECT_FALSE(host.corvane->doDeregistrationWithAaid(kAaid, "", "", "alice", &error));
  EXPECT_EQ(error, Error::corvane(10000));
  error = untouched();
  host.corvane->doDeregistration(facets.appID(), {{"alice", "", ""}}, &error);
  EXPECT_EQ(error, Error::corvane(10000));
}

// The two steps no request of the built-in catalogue reaches through the facade.
TEST(DeregistrationTest, EntryAndIndexRules) {
  using Entries = std::vector<DeregisterAuthenticator>;
  const Error empty =
      Error::corvane(40002,
                     "Empty string values for aaid or keyID must occur in the first and only "
                     "DeregisterAuthenticator object.");
  const DeregisterAuthenticator one{std::string(kAaid), "a2V5"};
  const DeregisterAuthenticator noKeyID{std::string(kAaid), std::nullopt};
  const DeregisterAuthenticator blank{"", ""};
  const struct {
    const char* name;
    Entries entries;
    std::optional<DeregisterAuthenticator> chosen;
  } rows[] = {
      {"one valid", {one}, one},
      {"two valid: the first", {one, blank}, one},
      {"empty strings first in a longer list", {blank, one}, blank},
      {"absent keyID alone", {noKeyID}, noKeyID},
      {"absent keyID first of two", {noKeyID, one}, std::nullopt},
      {"absent aaid first of two", {{std::nullopt, ""}, one}, std::nullopt},
      {"none", {}, std::nullopt},
  };
  for (const auto& row : rows) {
    Result<DeregisterAuthenticator> first = firstDeregisterEntry(row.entries);
    if (row.chosen) {
      ASSERT_TRUE(first.ok()) << row.name;
      EXPECT_EQ(*first, *row.chosen) << row.name;
    } else {
      ASSERT_FALSE(first.ok()) << row.name;
      EXPECT_EQ(first.error(), empty) << row.name;
    }
  }

  AuthenticatorInfo builtIn;
  builtIn.authenticatorIndex = 8;
  EXPECT_EQ(*deregistrationIndexFor(builtIn, "FFFF#FFFF"), std::optional<int64_t>(8));
  EXPECT_EQ(*deregistrationIndexFor(builtIn, std::nullopt), std::nullopt);
  builtIn.authenticatorIndex = 0;
  EXPECT_EQ(*deregistrationIndexFor(builtIn, std::nullopt), std::nullopt);
  Result<std::optional<int64_t>> none = deregistrationIndexFor(builtIn, "0F3D#0002");
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error(), Error::corvane(40002, "no matched authenticator for aaid:0F3D#0002"));
  builtIn.authenticatorIndex.reset();
  EXPECT_FALSE(deregistrationIndexFor(builtIn, "").ok());
}

// alice and bob registered under the caller's facet ID ("A"), carol under the https appID ("B");
// each row runs one operation on a fresh device and lists what is left.
TEST(DeregistrationTest, EachOperationRemovesExactlyWhatItNames) {
  FacetServer facets;
  const std::string b = facets.appID();
  using Keys = std::map<std::string, std::string>;
  using Action = std::function<bool(Corvane&, const Keys&, Error*)>;
  const std::string aaid(kAaid);
  const std::vector<std::string> everything = {"alice@A",   "bob@A",   "carol@B",
                                               "key alice", "key bob", "key carol"};
  const std::vector<std::string> withoutCarol = {"alice@A", "bob@A", "key alice", "key bob"};
  // A registration under B whose policy names no key: the user's key there is taken for stale.
  const auto registerAgain = [&](std::string user) -> Action {
    return [=](Corvane& c, const Keys&, Error*) {
      c.doRegistration(DoRegReq{registrationRequest(user, {{"appID", b}}), "pattern", "", {}});
      return true;
    };
  };
  // A request with these header fields and the entries made of the key IDs.
  const auto request = [](json headerExtra, auto entries) -> Action {
    return [=](Corvane& c, const Keys& k, Error* e) {
      return c.doDeregistrationReq(deregistrationRequest(header("Dereg", headerExtra), entries(k)),
                                   e);
    };
  };
  // Keys pushed under `appID`; the push answers nothing, its rows expect true.
  const auto push = [](std::string appID, auto entries) -> Action {
    return [=](Corvane& c, const Keys& k, Error* e) {
      c.doDeregistration(appID, entries(k), e);
      return true;
    };
  };
  using Pushed = std::vector<PushedAuthenticator>;
  const struct {
    const char* name;
    Error error;
    std::vector<std::string> left;
    Action action;
    bool result = true;
  } rows[] = {
      {"user name: every application",
       untouched(),
       {"bob@A", "carol@B", "key bob", "key carol"},
       [](Corvane& c, const Keys&, Error* e) { return c.doDeregistrationUsername("alice", e); }},
      {"one key",
       untouched(),
       {"alice@A", "carol@B", "key alice", "key carol"},
       [&](Corvane& c, const Keys& k, Error* e) {
         return c.doDeregistrationWithAaid(aaid, k.at("bob"), kFacet, "bob", e);
       }},
      {"every key of one application, no AAID", untouched(), withoutCarol,
       [&](Corvane& c, const Keys&, Error* e) {
         return c.doDeregistrationWithAaid(std::nullopt, "", b, "", e);
       }},
      {"one key named under the other application", untouched(), everything,
       [&](Corvane& c, const Keys& k, Error* e) {
         return c.doDeregistrationWithAaid(aaid, k.at("alice"), b, "alice", e);
       }},
      {"request: first entry with an empty key ID, of two", Error::corvane(0), withoutCarol,
       request({{"appID", b}},
               [](const Keys& k) {
                 return json::array({entry(kAaid, ""), entry(kAaid, k.at("alice"))});
               })},
      {"request: two valid entries, only the first",
       Error::corvane(0),
       {"bob@A", "carol@B", "key bob", "key carol"},
       request(json::object(),
               [](const Keys& k) {
                 return json::array({entry(kAaid, k.at("alice")), entry(kAaid, k.at("bob"))});
               })},
      {"request without appID: both empty, within the caller's application",
       Error::corvane(0),
       {"carol@B", "key carol"},
       request(json::object(), [](const Keys&) { return json::array({entry("", "")}); })},
      {"request: a key of another application", Error::corvane(0), everything,
       request({{"appID", b}},
               [](const Keys& k) { return json::array({entry(kAaid, k.at("alice"))}); })},
      {"push: empty list, one application", untouched(), withoutCarol,
       push(b, [](const Keys&) { return Pushed{}; })},
      {"push: empty AAID acted on", untouched(), withoutCarol,
       push(b,
            [](const Keys& k) {
              return Pushed{{"carol", "", k.at("carol")}};
            })},
      {"push: another AAID skipped, another application untouched", untouched(), everything,
       push(b,
            [&](const Keys& k) {
              return Pushed{{"carol", "0F3D#0001", k.at("carol")}, {"alice", aaid, ""}};
            })},
      // Pushed keys need an appID, which must trust the caller even when it is the caller's own.
      {"push: no appID", Error::corvane(60000, "Missing Required Fields: appID"), everything,
       push("", [](const Keys&) { return Pushed{}; })},
      {"push: untrusted application",
       Error::corvane(50000,
                      "facetID:ios:bundle-id:com.example.host is not trusted under "
                      "ios:bundle-id:com.example.host"),
       everything, push(std::string(kFacet), [](const Keys&) { return Pushed{}; })},
      {"empty user name refused", Error::corvane(60000, "Missing Required Fields: username "),
       everything,
       [](Corvane& c, const Keys&, Error* e) { return c.doDeregistrationUsername("", e); }, false},
      // A registration whose server does not list the user's key takes the user's registration
      // under that appID for stale; the user's registration under the other one stays.
      {"stale clean-up at registration, other application", untouched(), everything,
       registerAgain("alice")},
      {"stale clean-up at registration, same application", untouched(), withoutCarol,
       registerAgain("carol")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Device host(facets);
    host.enrol("alice", std::string(kFacet), "A");
    host.enrol("bob", std::nullopt, "A");
    host.enrol("carol", b, "B");
    ASSERT_EQ(host.left(), everything);
    const size_t outcomes = host.recorder->outcomes.size();
    Error error = untouched();
    EXPECT_EQ(row.action(*host.corvane, host.keyIDs, &error), row.result);
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(host.left(), row.left);
    // Deregistration never calls the delegate; the registrations answer once, refused.
    if (std::string_view(row.name).starts_with("stale")) {
      ASSERT_EQ(host.recorder->outcomes.size(), outcomes + 1);
      EXPECT_EQ(host.last().error, Error::corvane(20003, "user already enrolled this aaid."));
    } else {
      EXPECT_EQ(host.recorder->outcomes.size(), outcomes);
    }
  }
}

}  // namespace
}  // namespace corvane
