#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

using linux_platform::SqliteItemStore;
using testing::modeOf;
using testing::TempDir;
namespace fs = std::filesystem;

SecretBytes secret(std::string_view text) {
  return SecretBytes::fromText(text);
}

ItemAttributes item(std::optional<std::string> account, std::optional<std::string> service,
                    std::optional<std::string> generic = std::nullopt,
                    std::optional<std::string> group = "G", std::string_view label = "L") {
  return {std::move(account), std::move(service), std::move(generic),
          toBytes(label),     std::move(group),   "WhenPasscodeSetThisDeviceOnly"};
}

// A read's outcome as text: the value, "-" when nothing matched, "error" when the store failed.
std::string shown(ItemStore& store, const ItemQuery& query) {
  SecretBytes value;
  const StoreStatus status = store.findFirst(query, &value);
  return status == StoreStatus::ok         ? std::string(value.exposeSecretText())
         : status == StoreStatus::notFound ? "-"
                                           : "error";
}

class ItemStoreContract : public ::testing::Test {
 protected:
  void SetUp() override {
    SqliteItemStore::Options options;
    options.clock = [this] { return now_; };
    store_ = SqliteItemStore::open(dir_.path() / "items.sqlite", options, nullptr);
    ASSERT_NE(store_, nullptr);
  }
  std::string find(const ItemQuery& query) { return shown(*store_, query); }
  std::vector<std::string> accounts(const ItemQuery& query) {
    std::vector<std::string> out;
    EXPECT_NE(store_->listAccounts(query, &out), StoreStatus::storeError);
    return out;
  }

  TempDir dir_;
  int64_t now_ = 1000;
  std::unique_ptr<ItemStore> store_;
};

TEST_F(ItemStoreContract, IdentityIsAccountServiceAndAccessGroup) {
  ASSERT_EQ(store_->add(item("a", "s", "g"), secret("v")), StoreStatus::ok);
  struct Case {
    const char* what;
    ItemAttributes candidate;
    StoreStatus expected;
  };
  const Case cases[] = {
      {"same identity", item("a", "s", "g"), StoreStatus::duplicate},
      {"other generic only", item("a", "s", "other"), StoreStatus::duplicate},
      {"other account", item("b", "s", "g"), StoreStatus::ok},
      {"other service", item("a", "t", "g"), StoreStatus::ok},
      {"other access group", item("a", "s", "g", "H"), StoreStatus::ok},
      {"absent access group", item("a", "s", "g", std::nullopt), StoreStatus::ok},
      {"absent account", item(std::nullopt, "s"), StoreStatus::ok},
      {"empty account is not absent", item("", "s"), StoreStatus::ok},
      {"absent service", item("a", std::nullopt), StoreStatus::ok},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(store_->add(c.candidate, secret(c.what)), c.expected) << c.what;
  }
  // A failed add leaves the first value in place.
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v");
}

TEST_F(ItemStoreContract, UpdateAndUpsertReplaceValues) {
  ASSERT_EQ(store_->add(item("a", "s", "g"), secret("v1")), StoreStatus::ok);
  ASSERT_EQ(store_->add(item("b", "s", "g"), secret("w1")), StoreStatus::ok);

  EXPECT_EQ(store_->update(item("a", "s", "g").asQuery(), secret("v2")), StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v2");
  EXPECT_EQ(find(item("b", "s", "g").asQuery()), "w1");

  // An absent attribute widens an update to every match.
  EXPECT_EQ(store_->update({std::nullopt, "s", "g", toBytes("L"), "G"}, secret("all")),
            StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "all");
  EXPECT_EQ(find(item("b", "s", "g").asQuery()), "all");

  EXPECT_EQ(store_->upsert(item("a", "s", "g"), secret("v3")), StoreStatus::ok);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v3");
  // The query misses (other generic) but the identity is taken: the add half reports it.
  EXPECT_EQ(store_->upsert(item("a", "s", "other"), secret("x")), StoreStatus::duplicate);
  EXPECT_EQ(find(item("a", "s", "g").asQuery()), "v3");
  EXPECT_EQ(accounts({}).size(), 2u);
}

TEST_F(ItemStoreContract, ListingsAreNewestFirstWithTiesInInsertionOrder) {
  // Creation time decides first, insertion order breaks ties.
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
  List listed;
  EXPECT_EQ(store_->listServices({}, &listed), StoreStatus::ok);
  EXPECT_EQ(listed, (List{"s6", "s5", "s3", "s2", "s1", "s4"}));
  EXPECT_EQ(accounts({}), (List{"a7", "a5", "a3", "a2", "a1", "a4"}));

  std::vector<std::string> untouched{"keep"};
  EXPECT_EQ(store_->listServices({.account = "nobody"}, &untouched), StoreStatus::notFound);
  EXPECT_EQ(untouched, List{"keep"});
  // Items without the listed attribute do not count.
  EXPECT_EQ(store_->listAccounts({.service = "s6"}, &untouched), StoreStatus::notFound);
}

TEST_F(ItemStoreContract, RemoveWidensOverAbsentAttributes) {
  struct Case {
    const char* what;
    ItemQuery query;
    size_t removed;
  };
  const Case cases[] = {
      {"one item", {"a1", "s1", "gen-a1", toBytes("L1"), "G1"}, 1},
      {"one account", {"a1", std::nullopt, std::nullopt, std::nullopt, std::nullopt}, 4},
      {"one service", {std::nullopt, "s1", std::nullopt, std::nullopt, std::nullopt}, 4},
      {"label across groups", {.label = toBytes("L1")}, 4},
      {"everything", {}, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_NE(store_->remove({}), StoreStatus::storeError);
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

// Names are compared as exact bytes by the SQLite store and by the fake the upper layers are
// tested with: no case folding, and "%", "_" and "\" are plain characters, never patterns. A name
// that differs only in case, or that a pattern would match, reaches no item through any call.
class ItemStoreNames : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "sqlite") {
      store_ = SqliteItemStore::open(dir_.path() / "items.sqlite", nullptr);
    } else {
      store_ = std::make_unique<testing::FakeItemStore>();
    }
    ASSERT_NE(store_, nullptr);
  }
  TempDir dir_;
  std::unique_ptr<ItemStore> store_;
};

TEST_P(ItemStoreNames, CaseAndWildcardsNeverWidenAMatch) {
  using List = std::vector<std::string>;
  const List accounts = {"alice", "Alice", "a_ice", "a%", "%", "a\\%"};
  const List services = {"svc", "SVC", "s_c", "s%"};
  std::map<std::pair<std::string, std::string>, std::string> expected;
  for (const std::string& a : accounts) {
    for (const std::string& s : services) {
      ASSERT_EQ(store_->add(item(a, s), secret(a + "|" + s)), StoreStatus::ok) << a << "|" << s;
      expected[{a, s}] = a + "|" + s;
    }
  }
  const auto find = [this](const ItemQuery& query) { return shown(*store_, query); };
  const auto checkAll = [&] {
    for (const std::string& a : accounts) {
      for (const std::string& s : services) {
        auto it = expected.find({a, s});
        EXPECT_EQ(find({.account = a, .service = s}), it == expected.end() ? "-" : it->second)
            << a << "|" << s;
      }
    }
  };
  checkAll();
  const List newestServices(services.rbegin(), services.rend());
  const List newestAccounts(accounts.rbegin(), accounts.rend());
  for (const std::string& a : accounts) {
    SCOPED_TRACE(a);
    EXPECT_EQ(find({.account = a}), a + "|svc");
    List listed;
    EXPECT_EQ(store_->listServices({.account = a}, &listed), StoreStatus::ok);
    EXPECT_EQ(listed, newestServices);
  }
  for (const std::string& s : services) {
    SCOPED_TRACE(s);
    EXPECT_EQ(find({.service = s}), "alice|" + s);
    List listed;
    EXPECT_EQ(store_->listAccounts({.service = s}, &listed), StoreStatus::ok);
    EXPECT_EQ(listed, newestAccounts);
  }

  // Lookalikes: other case, and texts that a LIKE pattern or an escape would match.
  const std::pair<const char*, const char*> lookalikes[] = {
      {"ALICE", nullptr},   {"alicE", nullptr}, {"_lice", nullptr}, {"a%ice", nullptr},
      {"a\\_ice", nullptr}, {"a", nullptr},     {"%%", nullptr},    {"a\\\\%", nullptr},
      {nullptr, "Svc"},     {nullptr, "s__"},   {nullptr, "s"},     {nullptr, "%"},
      {"Alice", "Svc"},     {"_", "_"}};
  for (const auto& [account, service] : lookalikes) {
    SCOPED_TRACE(std::string(account ? account : "*") + "|" + (service ? service : "*"));
    ItemQuery query;
    if (account) query.account = account;
    if (service) query.service = service;
    List listed{"keep"};
    EXPECT_EQ(store_->findFirst(query, nullptr), StoreStatus::notFound);
    EXPECT_EQ(store_->listServices(query, &listed), StoreStatus::notFound);
    EXPECT_EQ(store_->listAccounts(query, &listed), StoreStatus::notFound);
    EXPECT_EQ(listed, List{"keep"});
    EXPECT_EQ(store_->update(query, secret("changed")), StoreStatus::notFound);
    EXPECT_EQ(store_->remove(query), StoreStatus::notFound);
  }
  checkAll();

  // Update and delete reach exactly the items named.
  EXPECT_EQ(store_->update({.account = "Alice", .service = "s_c"}, secret("new")), StoreStatus::ok);
  expected[{"Alice", "s_c"}] = "new";
  EXPECT_EQ(store_->update({.account = "a%"}, secret("a%-all")), StoreStatus::ok);
  for (const std::string& s : services) expected[{"a%", s}] = "a%-all";
  checkAll();
  EXPECT_EQ(store_->remove({.account = "a_ice"}), StoreStatus::ok);
  EXPECT_EQ(store_->remove({.service = "SVC"}), StoreStatus::ok);
  EXPECT_EQ(store_->remove({.account = "%", .service = "s%"}), StoreStatus::ok);
  std::erase_if(expected, [](const auto& entry) {
    const auto& [a, s] = entry.first;
    return a == "a_ice" || s == "SVC" || (a == "%" && s == "s%");
  });
  checkAll();
  List listed;
  EXPECT_EQ(store_->listAccounts({.service = "svc"}, &listed), StoreStatus::ok);
  EXPECT_EQ(listed, (List{"a\\%", "%", "a%", "Alice", "alice"}));
  EXPECT_EQ(store_->listServices({.account = "%"}, &listed), StoreStatus::ok);
  EXPECT_EQ(listed, (List{"s_c", "svc"}));
}

// A transaction lands whole or not at all, in both stores: a rollback, a scope left without a
// commit and (in the fake, which can fail a write) a failed write inside it leave the store as it
// was; a duplicate inside it is an answer, not a failure; transactions do not nest.
TEST_P(ItemStoreNames, TransactionsLandWholeOrNotAtAll) {
  ASSERT_EQ(store_->add(item("a", "s"), secret("1")), StoreStatus::ok);
  const auto value = [this](std::string account) {
    return shown(*store_, item(account, "s").asQuery());
  };
  const auto state = [&] { return value("a") + value("b") + value("c"); };

  EXPECT_EQ(store_->commitTransaction(), StoreStatus::storeError);  // none open
  store_->rollbackTransaction();                                    // none open: nothing

  ASSERT_EQ(store_->beginTransaction(), StoreStatus::ok);
  EXPECT_EQ(store_->beginTransaction(), StoreStatus::storeError);  // not nested
  EXPECT_EQ(store_->upsert(item("a", "s"), secret("2")), StoreStatus::ok);
  EXPECT_EQ(store_->add(item("b", "s"), secret("3")), StoreStatus::ok);
  EXPECT_EQ(state(), "23-");  // the transaction sees its own writes
  store_->rollbackTransaction();
  EXPECT_EQ(state(), "1--");

  {
    ItemStoreTransaction scope(*store_);
    ASSERT_TRUE(scope.isOpen());
    EXPECT_EQ(store_->remove(item("a", "s").asQuery()), StoreStatus::ok);
    EXPECT_EQ(store_->add(item("c", "s"), secret("4")), StoreStatus::ok);
  }
  EXPECT_EQ(state(), "1--");

  {
    ItemStoreTransaction scope(*store_);
    EXPECT_EQ(store_->add(item("a", "s"), secret("x")), StoreStatus::duplicate);
    EXPECT_EQ(store_->update(item("a", "s").asQuery(), secret("5")), StoreStatus::ok);
    EXPECT_EQ(store_->add(item("b", "s"), secret("6")), StoreStatus::ok);
    EXPECT_EQ(store_->remove(item("z", "s").asQuery()), StoreStatus::notFound);
    EXPECT_EQ(scope.commit(), StoreStatus::ok);
  }
  EXPECT_EQ(state(), "56-");

  if (auto* fake = dynamic_cast<testing::FakeItemStore*>(store_.get())) {
    for (int n = 1; n <= 3; ++n) {
      SCOPED_TRACE(n);
      ASSERT_EQ(store_->beginTransaction(), StoreStatus::ok);
      fake->failWriteNumber(n);
      static_cast<void>(store_->upsert(item("a", "s"), secret("7")));
      static_cast<void>(store_->add(item("c", "s"), secret("8")));
      // The third write is the commit itself.
      EXPECT_EQ(store_->commitTransaction(), StoreStatus::storeError);
      fake->failWriteNumber(0);
      EXPECT_EQ(state(), "56-");
      EXPECT_FALSE(fake->inTransaction());
    }
  }
}

// The SQLite store's transaction is the connection's: a second object made with
// shareConnection writes into it, another connection sees nothing until the commit, the commit
// is one sync of the log, and a delete inside it empties the log after the commit.
TEST(SqliteItemStoreTest, SharedConnectionWritesJoinOneCommit) {
  TempDir dir;
  const fs::path file = dir.path() / "items.sqlite";
  std::unique_ptr<SqliteItemStore> store = SqliteItemStore::open(file, nullptr);
  std::unique_ptr<SqliteItemStore> independent = SqliteItemStore::open(file, nullptr);
  ASSERT_TRUE(store && independent);
  std::unique_ptr<SqliteItemStore> shared = store->shareConnection(std::nullopt);
  ASSERT_NE(shared, nullptr);
  const auto row = [](std::string account) {
    return item(account, "s", std::nullopt, std::nullopt);
  };
  const auto seen = [&](ItemStore& by, std::string account) {
    return by.findFirst(row(account).asQuery(), nullptr);
  };

  ASSERT_EQ(store->beginTransaction(), StoreStatus::ok);
  EXPECT_EQ(shared->beginTransaction(), StoreStatus::storeError);  // the same transaction
  EXPECT_EQ(shared->add(row("key"), secret("k")), StoreStatus::ok);
  store->rollbackTransaction();
  EXPECT_EQ(seen(*store, "key"), StoreStatus::notFound);

  const uint64_t syncs = SqliteItemStore::syncCount();
  ASSERT_EQ(store->beginTransaction(), StoreStatus::ok);
  EXPECT_EQ(shared->add(row("key"), secret("k")), StoreStatus::ok);
  EXPECT_EQ(store->upsert(row("record"), secret("r")), StoreStatus::ok);
  EXPECT_EQ(store->upsert(row("other"), secret("o")), StoreStatus::ok);
  EXPECT_EQ(seen(*independent, "key"), StoreStatus::notFound);
  EXPECT_EQ(seen(*independent, "record"), StoreStatus::notFound);
  EXPECT_EQ(store->commitTransaction(), StoreStatus::ok);
  EXPECT_EQ(SqliteItemStore::syncCount() - syncs, 1u);
  EXPECT_EQ(seen(*independent, "key"), StoreStatus::ok);
  EXPECT_EQ(seen(*independent, "record"), StoreStatus::ok);

  independent.reset();  // a reader would keep the log from being emptied
  ASSERT_EQ(store->beginTransaction(), StoreStatus::ok);
  EXPECT_EQ(shared->remove(row("key").asQuery()), StoreStatus::ok);
  EXPECT_GT(fs::file_size(dir.path() / "items.sqlite-wal"), 0u);
  EXPECT_EQ(store->commitTransaction(), StoreStatus::ok);
  EXPECT_EQ(fs::file_size(dir.path() / "items.sqlite-wal"), 0u);
  EXPECT_EQ(seen(*store, "key"), StoreStatus::notFound);
}

INSTANTIATE_TEST_SUITE_P(Stores, ItemStoreNames, ::testing::Values("sqlite", "fake"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return info.param;
                         });

TEST(SqliteItemStoreTest, FilesArePrivateWhateverTheUmask) {
  TempDir dir;
  const fs::path created = dir.path() / "new" / "nested";
  const mode_t saved = ::umask(0);
  auto store = SqliteItemStore::open(created / "items.sqlite", nullptr);
  ::umask(saved);
  ASSERT_NE(store, nullptr);
  ASSERT_EQ(store->add(item("a", "s"), secret("v")), StoreStatus::ok);
  EXPECT_EQ(modeOf(dir.path() / "new"), 0700u);
  EXPECT_EQ(modeOf(created), 0700u);
  for (const char* name : {"items.sqlite", "items.sqlite-wal", "items.sqlite-shm"}) {
    EXPECT_EQ(modeOf(created / name), 0600u) << name;
  }
}

// A child reports each write after it returned, and is killed at random: reported writes survive.
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
  for (const auto& [round, indexes] : reported) {
    ASSERT_FALSE(indexes.empty());
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
}

INSTANTIATE_TEST_SUITE_P(Modes, SqliteItemStoreCrashTest,
                         ::testing::Values(SqliteItemStore::Synchronous::full,
                                           SqliteItemStore::Synchronous::normal));

}  // namespace
}  // namespace corvane
