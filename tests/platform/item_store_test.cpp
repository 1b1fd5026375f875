// The ItemStore contract, run against the SQLite store and the fake alike, then what only the
// SQLite store promises: private files, index use, persistence and crash safety.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fakes/fake_item_store.h"
#include "linux/sqlite_item_store.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

using linux::SqliteItemStore;
using testing::FakeItemStore;
using testing::modeOf;
using testing::TempDir;
namespace fs = std::filesystem;

std::vector<uint8_t> bytes(std::string_view text) {
  return {text.begin(), text.end()};
}
SecretBytes secret(std::string_view text) {
  return SecretBytes::fromText(text);
}

ItemAttributes item(std::optional<std::string> account, std::optional<std::string> service,
                    std::optional<std::string> generic = std::nullopt,
                    std::optional<std::string> group = "G", std::string_view label = "L") {
  ItemAttributes a;
  a.account = std::move(account);
  a.service = std::move(service);
  a.generic = std::move(generic);
  a.label = bytes(label);
  a.accessGroup = std::move(group);
  a.accessibility = "WhenPasscodeSetThisDeviceOnly";
  return a;
}

struct Backend {
  const char* name;
  std::function<std::unique_ptr<ItemStore>(const fs::path&, std::function<int64_t()>)> make;
};

const Backend kBackends[] = {
    {"sqlite",
     [](const fs::path& dir, std::function<int64_t()> clock) -> std::unique_ptr<ItemStore> {
       SqliteItemStore::Options options;
       options.clock = std::move(clock);
       return SqliteItemStore::open(dir / "items.sqlite", options, nullptr);
     }},
    {"fake",
     [](const fs::path&, std::function<int64_t()> clock) -> std::unique_ptr<ItemStore> {
       auto fake = std::make_unique<FakeItemStore>();
       if (clock) fake->setClock(std::move(clock));
       return fake;
     }},
};

class ItemStoreContract : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    store_ = GetParam().make(dir_.path(), [this] { return now_; });
    ASSERT_NE(store_, nullptr);
  }
  std::optional<std::string> find(const ItemQuery& query) {
    SecretBytes value;
    if (store_->findFirst(query, &value) != StoreStatus::ok) return std::nullopt;
    return std::string(value.exposeSecretText());
  }
  std::vector<std::string> services(const ItemQuery& query) {
    std::vector<std::string> out;
    store_->listServices(query, &out);
    return out;
  }
  std::vector<std::string> accounts(const ItemQuery& query) {
    std::vector<std::string> out;
    store_->listAccounts(query, &out);
    return out;
  }

  TempDir dir_;
  int64_t now_ = 1000;
  std::unique_ptr<ItemStore> store_;
};

TEST_P(ItemStoreContract, IdentityIsAccountServiceAndAccessGroup) {
  ASSERT_EQ(store_->add(item("a", "s", "g"), secret("v")), StoreStatus::ok);
  struct Case {
    const char* what;
    ItemAttributes candidate;
    StoreStatus expected;
  };
  const Case cases[] = {
      {"same identity", item("a", "s", "g"), StoreStatus::duplicate},
      {"other generic only", item("a", "s", "other"), StoreStatus::duplicate},
      {"no generic", item("a", "s", std::nullopt), StoreStatus::duplicate},
      {"other label only", item("a", "s", "g", "G", "L2"), StoreStatus::duplicate},
      {"other account", item("b", "s", "g"), StoreStatus::ok},
      {"other service", item("a", "t", "g"), StoreStatus::ok},
      {"other access group", item("a", "s", "g", "H"), StoreStatus::ok},
      {"absent access group", item("a", "s", "g", std::nullopt), StoreStatus::ok},
      {"absent access group again", item("a", "s", "x", std::nullopt), StoreStatus::duplicate},
      {"absent account", item(std::nullopt, "s"), StoreStatus::ok},
      {"absent account again", item(std::nullopt, "s", "x"), StoreStatus::duplicate},
      {"empty account is not absent", item("", "s"), StoreStatus::ok},
      {"empty account again", item("", "s"), StoreStatus::duplicate},
      {"absent service", item("a", std::nullopt), StoreStatus::ok},
      {"empty service", item("a", ""), StoreStatus::ok},
      {"nothing set", item(std::nullopt, std::nullopt, std::nullopt, std::nullopt),
       StoreStatus::ok},
      {"nothing set again", item(std::nullopt, std::nullopt, "g", std::nullopt),
       StoreStatus::duplicate},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(store_->add(c.candidate, secret(c.what)), c.expected) << c.what;
  }
  // A failed add leaves the first value in place.
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v");
}

TEST_P(ItemStoreContract, QueriesMatchPresentAttributesOnly) {
  ASSERT_EQ(store_->add(item("a", "s", std::nullopt), secret("no generic")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("", "s", "g"), secret("empty account")), StoreStatus::ok);
  struct Case {
    ItemQuery query;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {{"a", "s", std::nullopt, bytes("L"), "G"}, "no generic"},
      {{"a", "s", "", bytes("L"), "G"}, std::nullopt},  // an empty generic is not an absent one
      {{"", "s", "g", bytes("L"), "G"}, "empty account"},
      {{std::nullopt, "s", "g", std::nullopt, std::nullopt}, "empty account"},
      {{std::nullopt, "s", std::nullopt, std::nullopt, std::nullopt}, "no generic"},  // oldest
      {{"a", "s", std::nullopt, bytes("L2"), "G"}, std::nullopt},
      {{"a", "s", std::nullopt, bytes(""), "G"}, std::nullopt},
      {{"a", "s", std::nullopt, bytes("L"), "H"}, std::nullopt},
      {{"a", "s", std::nullopt, bytes("L"), ""}, std::nullopt},
      {{"A", "s", std::nullopt, std::nullopt, std::nullopt}, std::nullopt},
      {{}, "no generic"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(find(cases[i].query), cases[i].expected) << "case " << i;
  }
}

TEST_P(ItemStoreContract, ValuesRoundTripExactly) {
  const uint8_t binary[] = {0, 1, 0xff, 0, 0x80};
  const std::vector<std::pair<std::string, SecretBytes>> values = {
      {"empty", SecretBytes()},
      {"binary", SecretBytes(binary)},
      {"large", SecretBytes(std::vector<uint8_t>(70000, 0x5a))},
  };
  for (const auto& [name, value] : values) {
    ASSERT_EQ(store_->add(item(name, "s"), value), StoreStatus::ok) << name;
    SecretBytes read(std::vector<uint8_t>{9});
    ASSERT_EQ(store_->findFirst(item(name, "s").asQuery(), &read), StoreStatus::ok) << name;
    EXPECT_EQ(read, value) << name;
  }
  EXPECT_EQ(store_->findFirst(item("absent", "s").asQuery(), nullptr), StoreStatus::notFound);
}

TEST_P(ItemStoreContract, UpdateAndUpsertReplaceValues) {
  ASSERT_EQ(store_->add(item("a", "s", "g"), secret("v1")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("b", "s", "g"), secret("w1")), StoreStatus::ok);

  EXPECT_EQ(store_->update(item("a", "s", "g").asQuery(), secret("v2")), StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v2");
  EXPECT_EQ(find(item("b", "s", "g").asQuery()), "w1");
  EXPECT_EQ(store_->update(item("c", "s", "g").asQuery(), secret("x")), StoreStatus::notFound);

  // An absent attribute widens an update to every match.
  EXPECT_EQ(store_->update({std::nullopt, "s", "g", bytes("L"), "G"}, secret("all")),
            StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "all");
  EXPECT_EQ(find(item("b", "s", "g").asQuery()), "all");

  EXPECT_EQ(store_->upsert(item("a", "s", "g"), secret("v3")), StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v3");
  EXPECT_EQ(store_->upsert(item("c", "s", "g"), secret("new")), StoreStatus::ok);
  EXPECT_EQ(find(item("c", "s", "g").asQuery()), "new");
  // The query misses (other generic) but the identity is taken: the add half reports it.
  EXPECT_EQ(store_->upsert(item("a", "s", "other"), secret("x")), StoreStatus::duplicate);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v3");
  EXPECT_EQ(accounts({}).size(), 3u);
}

TEST_P(ItemStoreContract, ListingsAreNewestFirstWithTiesInInsertionOrder) {
  // Three items in one clock tick, then one created "earlier" by a clock that went back, then one
  // later: creation time decides first, insertion order breaks ties.
  const struct {
    int64_t time;
    const char* account;
    const char* service;
  } writes[] = {
      {5, "a1", "s1"}, {5, "a2", "s2"}, {5, "a3", "s3"}, {4, "a4", "s4"}, {6, "a5", "s5"}};
  for (const auto& w : writes) {
    now_ = w.time;
    ASSERT_EQ(store_->add(item(w.account, w.service, "g"), secret("v")), StoreStatus::ok);
  }
  ASSERT_EQ(store_->add(item(std::nullopt, "s6", "g"), secret("v")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("a7", std::nullopt, "g"), secret("v")), StoreStatus::ok);

  using List = std::vector<std::string>;
  EXPECT_EQ(services({}), (List{"s6", "s5", "s3", "s2", "s1", "s4"}));
  EXPECT_EQ(services({std::nullopt, std::nullopt, "g", bytes("L"), "G"}),
            (List{"s6", "s5", "s3", "s2", "s1", "s4"}));
  EXPECT_EQ(accounts({}), (List{"a7", "a5", "a3", "a2", "a1", "a4"}));
  EXPECT_EQ(services({"a2", std::nullopt, "g", bytes("L"), "G"}), List{"s2"});
  EXPECT_EQ(accounts({std::nullopt, "s3", std::nullopt, std::nullopt, std::nullopt}), List{"a3"});

  std::vector<std::string> untouched{"keep"};
  EXPECT_EQ(store_->listServices({.account = "nobody"}, &untouched), StoreStatus::notFound);
  EXPECT_EQ(untouched, List{"keep"});
  // Items without the listed attribute do not count.
  EXPECT_EQ(store_->listAccounts({.service = "s6"}, &untouched), StoreStatus::notFound);
}

TEST_P(ItemStoreContract, RemoveWidensOverAbsentAttributes) {
  struct Case {
    const char* what;
    ItemQuery query;
    size_t removed;
  };
  const Case cases[] = {
      {"one item", {"a1", "s1", "gen-a1", bytes("L1"), "G1"}, 1},
      {"one account", {"a1", std::nullopt, std::nullopt, std::nullopt, std::nullopt}, 4},
      {"one service", {std::nullopt, "s1", std::nullopt, std::nullopt, std::nullopt}, 4},
      {"one generic", {std::nullopt, std::nullopt, "gen-a2", std::nullopt, std::nullopt}, 4},
      {"account and service", {"a1", "s2", std::nullopt, std::nullopt, std::nullopt}, 2},
      {"account and generic, any service", {"a2", std::nullopt, "gen-a2", bytes("L1"), "G1"}, 2},
      {"label and group", {std::nullopt, std::nullopt, std::nullopt, bytes("L2"), "G2"}, 4},
      {"label across groups", {.label = bytes("L1")}, 4},
      {"label of another group", {std::nullopt, std::nullopt, std::nullopt, bytes("L1"), "G2"}, 0},
      {"everything", {}, 8},
      {"nothing matches", {.account = "a3"}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    store_->remove({});
    ASSERT_TRUE(accounts({}).empty());
    for (const char* a : {"a1", "a2"}) {
      for (const char* s : {"s1", "s2"}) {
        for (int g = 1; g <= 2; ++g) {
          const std::string n = std::to_string(g);
          ASSERT_EQ(store_->add(item(a, s, std::string("gen-") + a, "G" + n, "L" + n),
                                secret(std::string(a) + s + n)),
                    StoreStatus::ok);
        }
      }
    }
    EXPECT_EQ(store_->remove(c.query), c.removed > 0 ? StoreStatus::ok : StoreStatus::notFound);
    EXPECT_EQ(accounts({}).size(), 8 - c.removed);
    EXPECT_EQ(store_->findFirst(c.query, nullptr), StoreStatus::notFound);
  }
}

TEST_P(ItemStoreContract, LabelWideWipeKeepsOtherLabelsAndGroups) {
  ASSERT_EQ(store_->add(item("a", "s1", "g", "G", "lib"), secret("1")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("b", "s2", std::nullopt, "G", "lib"), secret("2")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("c", "last", std::nullopt, "G", "last"), secret("3")),
            StoreStatus::ok);
  ASSERT_EQ(store_->add(item("d", "s1", "g", "H", "lib"), secret("4")), StoreStatus::ok);

  EXPECT_EQ(store_->removeLabeled(bytes("lib"), "G"), StoreStatus::ok);
  EXPECT_EQ(accounts({}), (std::vector<std::string>{"d", "c"}));
  EXPECT_EQ(store_->removeLabeled(bytes("lib"), "G"), StoreStatus::notFound);
  EXPECT_EQ(store_->removeLabeled(bytes("last"), "G"), StoreStatus::ok);
  EXPECT_EQ(accounts({}), std::vector<std::string>{"d"});
}

INSTANTIATE_TEST_SUITE_P(Backends, ItemStoreContract, ::testing::ValuesIn(kBackends),
                         [](const auto& info) { return std::string(info.param.name); });

// The fake's switches, which other suites rely on to reach their failure paths.
TEST(FakeItemStoreTest, FaultSwitchesFailWithoutChanging) {
  FakeItemStore fake;
  fake.failWriteNumber(2);
  EXPECT_EQ(fake.add(item("a", "s"), secret("1")), StoreStatus::ok);
  EXPECT_EQ(fake.add(item("b", "s"), secret("2")), StoreStatus::storeError);
  EXPECT_EQ(fake.add(item("b", "s"), secret("2")), StoreStatus::ok);
  fake.failAllReads(true);
  EXPECT_EQ(fake.findFirst(item("a", "s").asQuery(), nullptr), StoreStatus::storeError);
  EXPECT_EQ(fake.listAccounts({}, nullptr), StoreStatus::storeError);
  fake.failAllReads(false);
  fake.failAllWrites(true);
  EXPECT_EQ(fake.remove({}), StoreStatus::storeError);
  EXPECT_EQ(fake.items().size(), 2u);
  ASSERT_EQ(fake.calls().size(), 6u);
  EXPECT_EQ(fake.calls()[1].op, FakeItemStore::Op::add);
  EXPECT_EQ(fake.calls()[1].query.account, "b");
  EXPECT_EQ(fake.calls()[1].status, StoreStatus::storeError);
  EXPECT_EQ(fake.writeCount(), 4);
}

// --- SQLite store only ---

TEST(SqliteItemStoreTest, FilesArePrivateWhateverTheUmask) {
  TempDir dir;
  const fs::path existing = dir.path() / "wide";
  ASSERT_EQ(::mkdir(existing.c_str(), 0777), 0);
  ASSERT_EQ(::chmod(existing.c_str(), 0777), 0);
  const fs::path created = dir.path() / "new" / "nested";
  const mode_t saved = ::umask(0);
  auto inExisting = SqliteItemStore::open(existing / "items.sqlite", nullptr);
  auto inCreated = SqliteItemStore::open(created / "items.sqlite", nullptr);
  ::umask(saved);
  ASSERT_NE(inExisting, nullptr);
  ASSERT_NE(inCreated, nullptr);
  ASSERT_EQ(inCreated->add(item("a", "s"), secret("v")), StoreStatus::ok);
  ASSERT_EQ(inExisting->add(item("a", "s"), secret("v")), StoreStatus::ok);

  EXPECT_EQ(modeOf(existing), 0700u);
  EXPECT_EQ(modeOf(dir.path() / "new"), 0700u);
  EXPECT_EQ(modeOf(created), 0700u);
  for (const fs::path& folder : {existing, created}) {
    for (const char* name : {"items.sqlite", "items.sqlite-wal", "items.sqlite-shm"}) {
      EXPECT_EQ(modeOf(folder / name), 0600u) << folder / name;
    }
  }
}

TEST(SqliteItemStoreTest, RefusesFilesItCannotTrust) {
  TempDir dir;
  Error error;
  const fs::path garbage = dir.path() / "garbage.sqlite";
  testing::writeFile(garbage, "this is not a database, just some text long enough to matter .....");
  EXPECT_EQ(SqliteItemStore::open(garbage, &error), nullptr);
  EXPECT_NE(error.localizedDescription().find("Unable to open item store"), std::string::npos);

  const fs::path future = dir.path() / "future.sqlite";
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(future.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "PRAGMA user_version=7", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  EXPECT_EQ(SqliteItemStore::open(future, &error), nullptr);
  EXPECT_NE(error.localizedDescription().find("unsupported store version 7"), std::string::npos);

  const fs::path link = dir.path() / "link.sqlite";
  ASSERT_EQ(::symlink("elsewhere.sqlite", link.c_str()), 0);
  EXPECT_EQ(SqliteItemStore::open(link, &error), nullptr);
  EXPECT_FALSE(fs::exists(dir.path() / "elsewhere.sqlite"));
  EXPECT_EQ(SqliteItemStore::open(dir.path(), &error), nullptr);  // a folder
}

TEST(SqliteItemStoreTest, ItemsPersistAndAreSharedBetweenConnections) {
  TempDir dir;
  const fs::path file = dir.path() / "items.sqlite";
  auto writer = SqliteItemStore::open(file, nullptr);
  auto reader = SqliteItemStore::open(file, nullptr);
  ASSERT_NE(writer, nullptr);
  ASSERT_NE(reader, nullptr);
  ASSERT_EQ(writer->add(item("a", "s"), secret("v")), StoreStatus::ok);
  SecretBytes value;
  EXPECT_EQ(reader->findFirst(item("a", "s").asQuery(), &value), StoreStatus::ok);
  EXPECT_EQ(reader->add(item("a", "s"), secret("other")), StoreStatus::duplicate);
  writer.reset();
  reader.reset();
  EXPECT_FALSE(fs::exists(dir.path() / "items.sqlite-wal"));  // checkpointed on close

  auto reopened = SqliteItemStore::open(file, nullptr);
  ASSERT_NE(reopened, nullptr);
  EXPECT_TRUE(reopened->checkIntegrity());
  EXPECT_EQ(reopened->findFirst(item("a", "s").asQuery(), &value), StoreStatus::ok);
  EXPECT_EQ(value, secret("v"));
}

TEST(SqliteItemStoreTest, QueriesOnAccountServiceOrLabelUseAnIndex) {
  TempDir dir;
  auto store = SqliteItemStore::open(dir.path() / "items.sqlite", nullptr);
  ASSERT_NE(store, nullptr);
  using Op = SqliteItemStore::Operation;
  for (Op op : {Op::findFirst, Op::listServices, Op::listAccounts, Op::update, Op::remove,
                Op::findAttributes}) {
    for (unsigned shape = 0; shape < 32; ++shape) {
      ItemQuery query;
      if (shape & 1) query.account = "";
      if (shape & 2) query.service = "";
      if (shape & 4) query.generic = "";
      if (shape & 8) query.label = bytes("");
      if (shape & 16) query.accessGroup = "";
      if (!query.account && !query.service && !query.label) continue;
      const std::vector<std::string> plan = store->queryPlan(op, query);
      ASSERT_FALSE(plan.empty());
      for (const std::string& line : plan) {
        if (line.find("items") == std::string::npos) continue;
        EXPECT_EQ(line.rfind("SEARCH items USING ", 0), 0u)
            << "operation " << static_cast<int>(op) << " shape " << shape << ": " << line;
      }
    }
  }
}

// A child process writes items and reports each one to the parent through a pipe only after the
// store call returned; the parent kills it at random moments. Every reported item must survive.
void writeUntilKilled(const fs::path& file, SqliteItemStore::Synchronous synchronous, int round,
                      int reportFd) {
  SqliteItemStore::Options options;
  options.synchronous = synchronous;
  auto store = SqliteItemStore::open(file, options, nullptr);
  if (!store) ::_exit(2);
  const std::string counter = "counter-" + std::to_string(round);
  for (uint32_t i = 0;; ++i) {
    const std::string name = std::to_string(round) + "-" + std::to_string(i);
    if (store->add(item(name, "crash", "g"), secret("value-" + name)) != StoreStatus::ok ||
        store->upsert(item(counter, "crash"), secret(std::to_string(i))) != StoreStatus::ok) {
      ::_exit(3);
    }
    if (::write(reportFd, &i, sizeof i) != sizeof i) ::_exit(4);
  }
}

class SqliteItemStoreCrashTest : public ::testing::TestWithParam<SqliteItemStore::Synchronous> {};

TEST_P(SqliteItemStoreCrashTest, KilledWriterLosesNoReportedItem) {
  constexpr int kRounds = 50;
  TempDir dir;
  const fs::path file = dir.path() / "items.sqlite";
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::map<int, std::vector<uint32_t>> reported;

  for (int round = 0; round < kRounds; ++round) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(fds[0]);
      writeUntilKilled(file, GetParam(), round, fds[1]);
    }
    ::close(fds[1]);
    uint32_t index = 0;
    // Wait for the first write, so that the kill lands among writes rather than in the opening.
    if (::read(fds[0], &index, sizeof index) == sizeof index) reported[round].push_back(index);
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 8000)(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child ended by itself, status " << status;
    while (::read(fds[0], &index, sizeof index) == sizeof index) reported[round].push_back(index);
    ::close(fds[0]);
  }

  auto store = SqliteItemStore::open(file, nullptr);
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(store->checkIntegrity());
  size_t total = 0;
  for (const auto& [round, indexes] : reported) {
    ASSERT_FALSE(indexes.empty());
    total += indexes.size();
    for (uint32_t i : indexes) {
      const std::string name = std::to_string(round) + "-" + std::to_string(i);
      SecretBytes value;
      ASSERT_EQ(store->findFirst(item(name, "crash", "g").asQuery(), &value), StoreStatus::ok)
          << name;
      EXPECT_EQ(value, secret("value-" + name));
    }
    SecretBytes counter;
    ASSERT_EQ(
        store->findFirst(item("counter-" + std::to_string(round), "crash").asQuery(), &counter),
        StoreStatus::ok);
    EXPECT_GE(std::stoul(std::string(counter.exposeSecretText())), indexes.back());
  }
  EXPECT_EQ(reported.size(), static_cast<size_t>(kRounds));
  RecordProperty("reported_writes", static_cast<int>(total));
}

INSTANTIATE_TEST_SUITE_P(Modes, SqliteItemStoreCrashTest,
                         ::testing::Values(SqliteItemStore::Synchronous::full,
                                           SqliteItemStore::Synchronous::normal),
                         [](const auto& info) {
                           return info.param == SqliteItemStore::Synchronous::full ? "Full"
                                                                                   : "Normal";
                         });

}  // namespace
}  // namespace corvane
