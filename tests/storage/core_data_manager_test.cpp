#include "storage/core_data_manager.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <map>

#include "foundation/utils.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using Rows = std::vector<std::string>;
using User = std::optional<std::string>;
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
  EXPECT_TRUE(records.ok());
  for (const auto& r : records ? *records : std::vector<WBTable>{})
    out.push_back(r.username.value_or("nil") + "|" + text(r.wbTable) + "|" + text(r.permutations));
  return out;
}

std::map<std::string, std::string> snapshot(const fs::path& root) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root))
    out[e.path().string()] = e.is_directory() ? "<dir>" : readFile(e.path());
  return out;
}

// Runs fixed SQL on a store file through a second, independent connection.
int execOnFile(const fs::path& file, const char* sql) {
  sqlite3* db = nullptr;
  int rc = sqlite3_open(file.c_str(), &db);
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return rc;
}

class CoreDataManagerTest : public ::testing::Test {
 protected:
  fs::path dataDir() const { return tmp_.path() / "data"; }
  CoreDataManager manager() const { return CoreDataManager(dataDir()); }

 private:
  testing::TempDir tmp_;
};

TEST_F(CoreDataManagerTest, InsertReplacesTheRecordOfTheSameUser) {
  auto m = manager();
  ASSERT_TRUE(insert(m, "al@x.org", "OLD-TABLE-1", "OLD-PERM-1"));
  ASSERT_TRUE(insert(m, "bob", "tb"));
  ASSERT_TRUE(insert(m, "al@x.org", "t2", "p2"));
  ASSERT_TRUE(insert(m, std::nullopt, "n1"));
  ASSERT_TRUE(insert(m, std::nullopt, "n2"));
  EXPECT_EQ(contents(m), (Rows{row("bob", "tb"), row("al@x.org", "t2", "p2"), row({}, "n2")}));
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
  auto records = m.fetchRecordsFromTable("WBTable", kAll).value();
  ASSERT_EQ(records.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(records[i].username, Utils::sha256(*written[i].username));
    EXPECT_EQ(records[i].wbTable, written[i].wbTable) << i;
    EXPECT_EQ(records[i].permutations, written[i].permutations) << i;
  }
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

// Damage fails every operation without changing a byte; clearing it lets the manager work again.
TEST_F(CoreDataManagerTest, DamagedStoresFailEveryOperationAndStayAsFound) {
  const std::string random(asText(*Utils::randomBytesWithLength(8192)));
  const std::map<std::string, std::function<void(const fs::path& file)>> cases = {
      {"random bytes", [&](auto& file) { writeFile(file, random); }},
      {"directory",
       [](auto& file) {
         fs::create_directory(file);
         writeFile(file / "in", "x");
       }},
      {"newer format",
       [&](auto& file) {
         auto m = manager();
         ASSERT_TRUE(insert(m, "a", "t"));
         ASSERT_EQ(execOnFile(file, "PRAGMA user_version = 2"), SQLITE_OK);
       }},
  };
  for (const auto& [name, damage] : cases) {
    SCOPED_TRACE(name);
    fs::remove_all(dataDir());
    auto m = manager();
    fs::create_directories(m.sharedDocumentsPath());
    damage(m.storePath());
    const auto before = snapshot(dataDir());

    EXPECT_FALSE(insert(m, "a", "t"));
    EXPECT_EQ(m.fetchRecordsFromTable("WBTable", kAll).error().code(), 10000);
    EXPECT_FALSE(m.fetchFirstRecordFromTable("WBTable", kAll).ok());
    EXPECT_FALSE(m.deleteRecord("WBTable", kAll));
    EXPECT_TRUE(m.save());
    EXPECT_EQ(snapshot(dataDir()), before);

    fs::remove_all(m.sharedDocumentsPath());
    EXPECT_TRUE(insert(m, "a", "t"));
    EXPECT_EQ(contents(m), Rows{row("a", "t")});
  }
}

}  // namespace
}  // namespace corvane
