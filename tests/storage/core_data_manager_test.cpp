#include "storage/core_data_manager.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <functional>
#include <map>

#include "foundation/utils.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Rows = std::vector<std::string>;
using User = std::optional<std::string>;
using testing::modeOf;
using testing::readFile;
using testing::writeFile;

const RecordPredicate kAll = RecordPredicate::all();

WBTable values(User user, std::optional<std::string_view> table,
               std::optional<std::string_view> permutations) {
  WBTable record{std::move(user), {}, {}, {}};
  if (table) record.wbTable = SecretBytes::fromText(*table);
  if (permutations) record.permutations = SecretBytes::fromText(*permutations);
  return record;
}

bool insert(CoreDataManager& m, User user, std::string_view table, std::string_view perm = "p") {
  return m.insertRecordWithRecordValues(values(std::move(user), table, perm), "WBTable");
}

std::string text(const std::optional<SecretBytes>& v) {
  return v ? std::string(v->exposeSecretText()) : "nil";
}

// A stored record as "user key|table|permutations"; the key is the digest of the name.
std::string row(User user, std::string_view table, std::string_view perm = "p") {
  return (user ? Utils::sha256(*user) : "nil") + "|" + std::string(table) + "|" + std::string(perm);
}

Rows contents(CoreDataManager& m) {
  Rows out;
  auto records = m.fetchRecordsFromTable("WBTable", kAll);
  EXPECT_TRUE(records.has_value());
  for (const auto& r : records.value_or(std::vector<WBTable>{})) {
    out.push_back(r.username.value_or("nil") + "|" + text(r.wbTable) + "|" + text(r.permutations));
  }
  return out;
}

// Everything under a directory, by path: file bytes, "<dir>" or the target of a link.
std::map<std::string, std::string> snapshot(const fs::path& root) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    out[e.path().string()] = e.is_symlink()     ? "->" + fs::read_symlink(e.path()).string()
                             : e.is_directory() ? "<dir>"
                                                : readFile(e.path());
  }
  return out;
}

// The store's change counter, which SQLite increments once per committed write transaction.
uint32_t changeCounter(const fs::path& file) {
  const std::string bytes = readFile(file) + std::string(28, '\0');
  uint32_t value = 0;
  for (int i = 24; i < 28; ++i) value = (value << 8) | static_cast<uint8_t>(bytes[i]);
  return value;
}

int execRaw(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// Runs fixed SQL on a store file through a second, independent connection.
int execOnFile(const fs::path& file, const char* sql) {
  sqlite3* db = nullptr;
  int rc = sqlite3_open(file.c_str(), &db);
  if (rc == SQLITE_OK) rc = execRaw(db, sql);
  sqlite3_close(db);
  return rc;
}

class CoreDataManagerTest : public ::testing::Test {
 protected:
  fs::path dataDir() const { return tmp_.path() / "data"; }
  CoreDataManager manager(std::chrono::milliseconds timeout = 2000ms) const {
    return CoreDataManager(dataDir(), timeout);
  }

 private:
  testing::TempDir tmp_;
};

TEST_F(CoreDataManagerTest, InsertReplacesTheRecordOfTheSameUser) {
  auto m = manager();
  ASSERT_TRUE(insert(m, "al@x.org", "OLD-TABLE-1", "OLD-PERM-1"));
  ASSERT_TRUE(insert(m, "bob", "tb"));
  // Removing the old record and adding the new one is a single transaction.
  const uint32_t counter = changeCounter(m.storePath());
  ASSERT_TRUE(insert(m, "al@x.org", "t2", "p2"));
  EXPECT_EQ(changeCounter(m.storePath()), counter + 1);
  // Records without a user name compare equal to nil and replace one another too.
  ASSERT_TRUE(insert(m, std::nullopt, "n1"));
  ASSERT_TRUE(insert(m, std::nullopt, "n2"));
  EXPECT_EQ(contents(m), (Rows{row("bob", "tb"), row("al@x.org", "t2", "p2"), row({}, "n2")}));
  // The file keeps the user name only as its digest, and no copy of the replaced table.
  const std::string file = readFile(m.storePath());
  EXPECT_EQ(file.find("al@x.org"), std::string::npos);
  EXPECT_NE(file.find(Utils::sha256("al@x.org")), std::string::npos);
  EXPECT_EQ(file.find("OLD-TABLE-1"), std::string::npos);
  EXPECT_EQ(file.find("OLD-PERM-1"), std::string::npos);
}

TEST_F(CoreDataManagerTest, ValuesSurviveClosingAndReopeningByteForByte) {
  const std::string big = hexadecimalString(*Utils::randomBytesWithLength(1 << 19));
  const std::vector<WBTable> written = {values("empty", "", ""), values("absent", std::nullopt, ""),
                                        values("binary", std::string_view("\0a\xff\0", 4), "\x80"),
                                        values("", big, "[3,1,2]")};
  {
    auto m = manager();
    for (const auto& v : written) ASSERT_TRUE(m.insertRecordWithRecordValues(v, "WBTable"));
  }
  auto m = manager();
  auto records = m.fetchRecordsFromTable("WBTable", kAll).value_or(std::vector<WBTable>{});
  ASSERT_EQ(records.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(records[i].username, Utils::sha256(*written[i].username));
    EXPECT_EQ(records[i].wbTable, written[i].wbTable) << i;
    EXPECT_EQ(records[i].permutations, written[i].permutations) << i;
  }
}

TEST_F(CoreDataManagerTest, FetchGivesInsertionOrderAndFirstMeansLast) {
  auto m = manager();
  for (const char* user : {"u1", "u2", "u3", "u1"}) ASSERT_TRUE(insert(m, user, user));
  // The replaced record of "u1" is the newest, so it is both the last and the "first".
  EXPECT_EQ(contents(m), (Rows{row("u2", "u2"), row("u3", "u3"), row("u1", "u1")}));
  EXPECT_EQ(m.fetchFirstRecordFromTable("WBTable", kAll)->username, Utils::sha256("u1"));
  const auto u2 = RecordPredicate::usernameEquals("u2");
  EXPECT_EQ(text(m.fetchFirstRecordFromTable("WBTable", u2)->wbTable), "u2");
  for (const auto& none :
       {RecordPredicate::usernameEquals("u"), RecordPredicate::usernameEquals({})}) {
    EXPECT_TRUE(m.fetchRecordsFromTable("WBTable", none).value().empty());
    EXPECT_FALSE(m.fetchFirstRecordFromTable("WBTable", none).has_value());
  }
  for (std::string_view table : {"", "wbtable", "Other", "WBTable "}) {
    EXPECT_FALSE(m.fetchRecordsFromTable(table, kAll).has_value()) << table;
    EXPECT_FALSE(m.insertRecordWithRecordValues(values("u9", "t", "p"), table)) << table;
    EXPECT_FALSE(m.deleteRecord(table, kAll)) << table;
  }
  EXPECT_EQ(contents(m).size(), 3u);
}

TEST_F(CoreDataManagerTest, BatchDeleteRemovesExactlyTheMatchingRecords) {
  auto m = manager();
  for (const User& user : {User("a"), User("c"), User()}) ASSERT_TRUE(insert(m, user, "t"));
  ASSERT_TRUE(insert(m, "b", "DELETED-TABLE-B"));
  EXPECT_TRUE(m.deleteRecord("WBTable", RecordPredicate::usernameEquals("b")));
  EXPECT_EQ(readFile(m.storePath()).find("DELETED-TABLE-B"), std::string::npos);  // zeroed
  EXPECT_TRUE(m.deleteRecord("WBTable", RecordPredicate::usernameEquals("nobody")));
  EXPECT_EQ(contents(m), (Rows{row("a", "t"), row("c", "t"), row({}, "t")}));
  EXPECT_TRUE(m.deleteRecord("WBTable", RecordPredicate::usernameEquals(std::nullopt)));
  EXPECT_EQ(contents(m), (Rows{row("a", "t"), row("c", "t")}));
  EXPECT_TRUE(m.deleteRecord("WBTable", kAll));
  auto reopened = manager();
  EXPECT_EQ(contents(reopened), Rows{});
}

TEST_F(CoreDataManagerTest, UpdateSetsOnlyTheGivenAttributesOfAStoredRecord) {
  auto m = manager();
  ASSERT_TRUE(insert(m, "a", "ta", "pa"));
  ASSERT_TRUE(insert(m, "b", "tb"));
  auto a = *m.fetchFirstRecordFromTable("WBTable", RecordPredicate::usernameEquals("a"));
  ASSERT_TRUE(m.updateRecord(a, values(std::nullopt, "ta2", std::nullopt), "ignored"));
  ASSERT_TRUE(m.updateRecord(a, values("c", std::nullopt, ""), "WBTable"));
  EXPECT_EQ(a.username, Utils::sha256("c"));
  EXPECT_EQ(text(a.wbTable), "ta2");
  EXPECT_EQ(contents(m), (Rows{row("c", "ta2", ""), row("b", "tb")}));
  // Refused: another user's name, a record never stored, a record deleted meanwhile.
  EXPECT_FALSE(m.updateRecord(a, values("b", "x", "x"), "WBTable"));
  WBTable unsaved = values("d", "t", "p");
  EXPECT_FALSE(m.updateRecord(unsaved, values(std::nullopt, "x", "x"), "WBTable"));
  ASSERT_TRUE(m.deleteRecord("WBTable", RecordPredicate::usernameEquals("c")));
  EXPECT_FALSE(m.updateRecord(a, values(std::nullopt, "x", "x"), "WBTable"));
  EXPECT_EQ(text(a.wbTable), "ta2");
  EXPECT_EQ(contents(m), Rows{row("b", "tb")});
}

TEST_F(CoreDataManagerTest, StoreIsPrivateWhateverTheUmask) {
  const fs::path nested = dataDir() / "a" / "b";
  EXPECT_TRUE(CoreDataManager(nested).save());  // nothing pending: the disk is not touched
  EXPECT_FALSE(fs::exists(dataDir()));
  // A umask that opens everything, and one that would even take the owner's write permission.
  for (const mode_t mask : {mode_t{0}, mode_t{0277}}) {
    fs::remove_all(dataDir());
    const mode_t old = ::umask(mask);
    CoreDataManager m(nested);
    EXPECT_TRUE(insert(m, "a", "t"));
    ::umask(old);
    EXPECT_EQ(modeOf(dataDir()), 0700u) << mask;
    EXPECT_EQ(modeOf(nested / "Database"), 0700u) << mask;
    EXPECT_EQ(modeOf(nested / "Database" / "Model.sqlite"), 0600u) << mask;
  }
  // Existing loose modes are narrowed, never widened, and the data stay readable.
  ASSERT_EQ(::chmod((nested / "Database").c_str(), 0755), 0);
  ASSERT_EQ(::chmod((nested / "Database" / "Model.sqlite").c_str(), 0644), 0);
  CoreDataManager m(nested);
  EXPECT_EQ(contents(m), Rows{row("a", "t")});
  EXPECT_EQ(modeOf(m.sharedDocumentsPath()), 0700u);
  EXPECT_EQ(modeOf(m.storePath()), 0600u);
}

// Every operation fails on a store it cannot use, without ending the process and without changing
// a byte of what it found; once the damage is cleared, the same manager works again.
TEST_F(CoreDataManagerTest, DamagedStoresFailEveryOperationAndStayAsFound) {
  const std::string random(asText(*Utils::randomBytesWithLength(8192)));
  auto storeThen = [this](const fs::path& file, const char* sql) {
    auto m = manager();
    ASSERT_TRUE(insert(m, "a", "t"));
    ASSERT_EQ(execOnFile(file, sql), SQLITE_OK);
  };
  const std::map<std::string, std::function<void(const fs::path& file)>> cases = {
      {"random bytes", [&](auto& file) { writeFile(file, random); }},
      {"short garbage", [](auto& file) { writeFile(file, "not a database"); }},
      {"header only", [](auto& file) { writeFile(file, std::string("SQLite format 3\0xx", 18)); }},
      {"directory",
       [](auto& file) {
         fs::create_directory(file);
         writeFile(file / "in", "x");
       }},
      {"foreign", [](auto& file) { ASSERT_EQ(execOnFile(file, "CREATE TABLE t(x)"), 0); }},
      {"trigger",
       [&](auto& file) {
         storeThen(file, "CREATE TRIGGER t DELETE ON WBTable BEGIN SELECT 1; END");
       }},
      {"newer format", [&](auto& file) { storeThen(file, "PRAGMA user_version = 2"); }},
      {"link to a good store",
       [&](auto& file) {
         storeThen(file, "SELECT 1");
         fs::rename(file, file.string() + ".real");
         fs::create_symlink(file.string() + ".real", file);
       }},
      {"folder is a file",
       [](auto& file) {
         fs::remove_all(file.parent_path());
         writeFile(file.parent_path(), "x");
       }},
  };
  for (const auto& [name, damage] : cases) {
    SCOPED_TRACE(name);
    fs::remove_all(dataDir());
    auto m = manager();
    fs::create_directories(m.sharedDocumentsPath());
    damage(m.storePath());
    const auto before = snapshot(dataDir());

    WBTable stored = values("a", "t", "p");
    stored.objectID = 1;
    EXPECT_FALSE(insert(m, "a", "t"));
    EXPECT_FALSE(m.fetchRecordsFromTable("WBTable", kAll).has_value());
    EXPECT_FALSE(m.fetchFirstRecordFromTable("WBTable", kAll).has_value());
    EXPECT_FALSE(m.deleteRecord("WBTable", RecordPredicate::usernameEquals("a")));
    EXPECT_FALSE(m.deleteRecord("WBTable", kAll));
    EXPECT_FALSE(m.updateRecord(stored, values(std::nullopt, "x", "x"), "WBTable"));
    EXPECT_TRUE(m.save());
    EXPECT_EQ(snapshot(dataDir()), before);

    fs::remove_all(m.sharedDocumentsPath());
    EXPECT_TRUE(insert(m, "a", "t"));
    EXPECT_EQ(contents(m), Rows{row("a", "t")});
  }
}

TEST_F(CoreDataManagerTest, TruncatedStoreIsRejectedAtEveryLength) {
  std::string full;
  const fs::path file = manager().storePath();
  {
    auto m = manager();
    for (const char* user : {"a", "b", "c"}) ASSERT_TRUE(insert(m, user, std::string(3000, 't')));
    full = readFile(file);
  }
  ASSERT_GT(full.size(), 3 * 4096u);
  // Every length up to just past the first page (SQLite itself reads a file shorter than a page as
  // an empty database), then every length near a page boundary and a stride through the rest.
  for (size_t length = 1; length < full.size(); ++length) {
    const size_t offset = length % 4096;
    if (length > 4200 && offset >= 24 && offset <= 4096 - 24 && length % 37 != 0) continue;
    writeFile(file, full.substr(0, length));
    auto m = manager();
    ASSERT_FALSE(insert(m, "a", "t")) << length;
    ASSERT_EQ(readFile(file), full.substr(0, length)) << length;
  }
}

TEST_F(CoreDataManagerTest, LockedStoreFailsAfterTheTimeoutAndKeepsTheOldRecord) {
  auto m = manager(50ms);
  ASSERT_TRUE(insert(m, "a", "old"));
  sqlite3* reader = nullptr;
  ASSERT_EQ(sqlite3_open(m.storePath().c_str(), &reader), SQLITE_OK);
  ASSERT_EQ(execRaw(reader, "BEGIN; SELECT count(*) FROM WBTable"), SQLITE_OK);
  // The replacement cannot commit while the reader holds its lock: it rolls back as a whole.
  const uint32_t counter = changeCounter(m.storePath());
  EXPECT_FALSE(insert(m, "a", "new"));
  EXPECT_EQ(changeCounter(m.storePath()), counter);
  ASSERT_EQ(execRaw(reader, "COMMIT; BEGIN EXCLUSIVE"), SQLITE_OK);
  EXPECT_FALSE(m.fetchRecordsFromTable("WBTable", kAll).has_value());
  ASSERT_EQ(execRaw(reader, "COMMIT"), SQLITE_OK);
  sqlite3_close(reader);
  EXPECT_EQ(contents(m), Rows{row("a", "old")});
  EXPECT_TRUE(insert(m, "a", "new"));
  EXPECT_EQ(contents(m), Rows{row("a", "new")});
}

}  // namespace
}  // namespace corvane
