#include "storage/core_data_manager.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <utility>
#include <variant>

#include "corvane/status_codes.h"
#include "foundation/private_paths.h"
#include "foundation/utils.h"

namespace corvane {

RecordPredicate RecordPredicate::usernameEquals(std::optional<std::string_view> username) {
  if (!username) return RecordPredicate(false, std::nullopt);
  return RecordPredicate(false, Utils::sha256(*username));
}

namespace {

// Format version of the store, kept in the file's user_version. 0 means a new, empty file.
constexpr int64_t kSchemaVersion = 1;

constexpr const char* kCreateSchema =
    "CREATE TABLE IF NOT EXISTS WBTable("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " username TEXT,"
    " wbTable BLOB,"
    " permutations BLOB);"
    "CREATE UNIQUE INDEX IF NOT EXISTS WBTable_username ON WBTable(username);"
    "PRAGMA user_version = 1;";

// Every object a store of this version holds, as "type name" sorted by name; anything else means
// the file is not ours (or was tampered with) and it is left alone.
constexpr std::array<std::string_view, 3> kSchemaObjects = {
    "table WBTable", "index WBTable_username", "table sqlite_sequence"};

constexpr const char* kSelectColumns = "SELECT id, username, wbTable, permutations FROM WBTable";

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

// Resets a statement and drops its bindings when a use of it ends, so that no statement keeps
// pointers into a caller's buffers or holds a read lock between operations.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
  ~StatementUse() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

 private:
  sqlite3_stmt* statement_;
};

bool bindKey(sqlite3_stmt* statement, int index, const std::optional<std::string>& key) {
  if (!key) return sqlite3_bind_null(statement, index) == SQLITE_OK;
  return sqlite3_bind_text64(statement, index, key->data(), key->size(), SQLITE_STATIC,
                             SQLITE_UTF8) == SQLITE_OK;
}

bool bindValue(sqlite3_stmt* statement, int index, const std::optional<SecretBytes>& value) {
  if (!value) return sqlite3_bind_null(statement, index) == SQLITE_OK;
  // A null pointer would bind NULL, so an empty value is bound as a zero-length blob.
  if (value->empty()) return sqlite3_bind_zeroblob(statement, index, 0) == SQLITE_OK;
  const auto bytes = value->exposeSecret();
  return sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC) ==
         SQLITE_OK;
}

std::optional<SecretBytes> columnValue(sqlite3_stmt* statement, int index) {
  if (sqlite3_column_type(statement, index) == SQLITE_NULL) return std::nullopt;
  const auto* data = static_cast<const uint8_t*>(sqlite3_column_blob(statement, index));
  const int size = sqlite3_column_bytes(statement, index);
  if (data == nullptr || size <= 0) return SecretBytes();
  return SecretBytes(std::span(data, static_cast<size_t>(size)));
}

// A change waiting for the next save.
struct InsertChange {
  std::optional<std::string> usernameKey;
  WBTable values;
};
struct DeleteChange {
  RecordPredicate predicate;
};
struct UpdateChange {
  int64_t objectID;
  std::optional<std::string> usernameKey;  // set only when the values carry a user name
  WBTable values;
};
using Change = std::variant<InsertChange, DeleteChange, UpdateChange>;

// Makes sure the store file exists as a regular file readable by its owner only. A new file is
// created empty with mode 0600; an existing one only loses group and other permissions (its
// contents are not touched, so a damaged file stays as it was found).
bool preparePrivateFile(const std::filesystem::path& file) {
  struct stat st {};
  if (::lstat(file.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode)) return false;
    const mode_t mode = st.st_mode & 07777;
    if ((mode & ~mode_t{0600}) != 0 && ::chmod(file.c_str(), mode & 0600) != 0) return false;
    return true;
  }
  if (errno != ENOENT) return false;
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool ok = ::fchmod(fd, 0600) == 0;
  return (::close(fd) == 0) && ok;
}

// One open connection to a validated store, with its prepared statements.
struct Connection {
  sqlite3* db = nullptr;
  Statement begin, commit, rollback, insert, deleteWhere, deleteAll, selectWhere, selectAll, update;

  ~Connection() {
    // Statements first, so that the connection closes at once.
    for (Statement* s : {&begin, &commit, &rollback, &insert, &deleteWhere, &deleteAll,
                         &selectWhere, &selectAll, &update}) {
      s->reset();
    }
    sqlite3_close_v2(db);
  }

  bool exec(const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  }

  bool prepare(Statement& out, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    const int rc = sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()) + 1,
                                      SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    out.reset(statement);
    return rc == SQLITE_OK && statement != nullptr;
  }

  // Runs a statement of fixed text that yields one row, and reads its first column.
  bool queryInt(const char* sql, int64_t* out) {
    Statement statement;
    if (!prepare(statement, sql) || sqlite3_step(statement.get()) != SQLITE_ROW) return false;
    *out = sqlite3_column_int64(statement.get(), 0);
    return sqlite3_step(statement.get()) == SQLITE_DONE;
  }
  bool queryTexts(const char* sql, std::vector<std::string>* out) {
    Statement statement;
    if (!prepare(statement, sql)) return false;
    int rc;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      const auto* text = sqlite3_column_text(statement.get(), 0);
      const int size = sqlite3_column_bytes(statement.get(), 0);
      out->emplace_back(text == nullptr ? "" : reinterpret_cast<const char*>(text),
                        static_cast<size_t>(size));
    }
    return rc == SQLITE_DONE;
  }

  // Checks, inside one read transaction, that the file is an intact store of this format (or an
  // empty file), without writing anything. `schemaVersion` receives the stored version.
  bool validate(const std::filesystem::path& file, int64_t* schemaVersion) {
    if (!exec("BEGIN")) return false;
    bool ok = validateLocked(file, schemaVersion);
    ok = exec("COMMIT") && ok;
    if (!ok) exec("ROLLBACK");
    return ok;
  }

  bool validateLocked(const std::filesystem::path& file, int64_t* schemaVersion) {
    std::vector<std::string> check;
    if (!queryTexts("PRAGMA quick_check", &check) || check != std::vector<std::string>{"ok"}) {
      return false;
    }
    // SQLite reads a file too short to hold one page as an empty database, and a cut file as far
    // as it reaches; a store it wrote itself always spans exactly its page count.
    int64_t pageCount = 0, pageSize = 0;
    if (!queryInt("PRAGMA page_count", &pageCount) || !queryInt("PRAGMA page_size", &pageSize)) {
      return false;
    }
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0 || pageCount < 0 || pageSize <= 0 ||
        pageCount > std::numeric_limits<int64_t>::max() / pageSize ||
        pageCount * pageSize != static_cast<int64_t>(st.st_size)) {
      return false;
    }
    std::vector<std::string> objects;
    if (!queryInt("PRAGMA user_version", schemaVersion) ||
        !queryTexts("SELECT type || ' ' || name FROM sqlite_schema ORDER BY name", &objects)) {
      return false;
    }
    if (*schemaVersion == 0) return objects.empty();
    return *schemaVersion == kSchemaVersion &&
           std::equal(objects.begin(), objects.end(), kSchemaObjects.begin(), kSchemaObjects.end());
  }

  bool prepareStatements() {
    const std::string select(kSelectColumns);
    return prepare(begin, "BEGIN IMMEDIATE") && prepare(commit, "COMMIT") &&
           prepare(rollback, "ROLLBACK") &&
           prepare(insert,
                   "INSERT INTO WBTable(username, wbTable, permutations) VALUES(?1, ?2, ?3)") &&
           prepare(deleteWhere, "DELETE FROM WBTable WHERE username IS ?1") &&
           prepare(deleteAll, "DELETE FROM WBTable") &&
           prepare(selectWhere, select + " WHERE username IS ?1 ORDER BY id") &&
           prepare(selectAll, select + " ORDER BY id") &&
           prepare(update,
                   "UPDATE WBTable SET"
                   " username = CASE WHEN ?1 THEN ?2 ELSE username END,"
                   " wbTable = CASE WHEN ?3 THEN ?4 ELSE wbTable END,"
                   " permutations = CASE WHEN ?5 THEN ?6 ELSE permutations END"
                   " WHERE id = ?7");
  }

  static bool stepDone(sqlite3_stmt* statement) { return sqlite3_step(statement) == SQLITE_DONE; }

  bool apply(const InsertChange& change) {
    StatementUse use(insert.get());
    return bindKey(insert.get(), 1, change.usernameKey) &&
           bindValue(insert.get(), 2, change.values.wbTable) &&
           bindValue(insert.get(), 3, change.values.permutations) && stepDone(insert.get());
  }

  bool apply(const DeleteChange& change) {
    if (change.predicate.matchesAll()) {
      StatementUse use(deleteAll.get());
      return stepDone(deleteAll.get());
    }
    StatementUse use(deleteWhere.get());
    return bindKey(deleteWhere.get(), 1, change.predicate.usernameKey()) &&
           stepDone(deleteWhere.get());
  }

  bool apply(const UpdateChange& change) {
    sqlite3_stmt* s = update.get();
    StatementUse use(s);
    const WBTable& v = change.values;
    const bool bound =
        sqlite3_bind_int(s, 1, change.usernameKey.has_value()) == SQLITE_OK &&
        bindKey(s, 2, change.usernameKey) &&
        sqlite3_bind_int(s, 3, v.wbTable.has_value()) == SQLITE_OK && bindValue(s, 4, v.wbTable) &&
        sqlite3_bind_int(s, 5, v.permutations.has_value()) == SQLITE_OK &&
        bindValue(s, 6, v.permutations) && sqlite3_bind_int64(s, 7, change.objectID) == SQLITE_OK;
    // Exactly one row must change: a record deleted meanwhile makes the save fail.
    return bound && stepDone(s) && sqlite3_changes64(db) == 1;
  }

  bool run(sqlite3_stmt* statement) {
    StatementUse use(statement);
    return stepDone(statement);
  }

  std::optional<std::vector<WBTable>> fetch(const RecordPredicate& predicate) {
    sqlite3_stmt* s = predicate.matchesAll() ? selectAll.get() : selectWhere.get();
    StatementUse use(s);
    if (!predicate.matchesAll() && !bindKey(s, 1, predicate.usernameKey())) return std::nullopt;
    std::vector<WBTable> records;
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
      WBTable record;
      record.objectID = sqlite3_column_int64(s, 0);
      if (sqlite3_column_type(s, 1) != SQLITE_NULL) {
        const auto* text = sqlite3_column_text(s, 1);
        const int size = sqlite3_column_bytes(s, 1);
        record.username = std::string();
        if (text != nullptr) record.username->assign(reinterpret_cast<const char*>(text), size);
      }
      record.wbTable = columnValue(s, 2);
      record.permutations = columnValue(s, 3);
      records.push_back(std::move(record));
    }
    if (rc != SQLITE_DONE) return std::nullopt;
    return records;
  }
};

}  // namespace

struct CoreDataManager::Impl {
  std::filesystem::path directory;
  std::filesystem::path file;
  std::chrono::milliseconds busyTimeout;
  std::unique_ptr<Connection> connection;
  std::vector<Change> pending;

  // The open connection, opening and checking the store first when there is none. Null when the
  // store cannot be used; nothing is kept then, so the next call tries again.
  Connection* open() {
    if (connection) return connection.get();
    if (!makePrivateDirectory(directory, nullptr) || !preparePrivateFile(file)) return nullptr;
    auto c = std::make_unique<Connection>();
    // Read-write only, never create (the file was made above with its mode), never follow a link.
    if (sqlite3_open_v2(file.c_str(), &c->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW,
                        nullptr) != SQLITE_OK ||
        sqlite3_db_readonly(c->db, "main") != 0) {
      return nullptr;
    }
    sqlite3_extended_result_codes(c->db, 1);
    const auto timeout = std::min<int64_t>(busyTimeout.count(), std::numeric_limits<int>::max());
    int64_t version = 0;
    if (sqlite3_busy_timeout(c->db, static_cast<int>(std::max<int64_t>(timeout, 0))) != SQLITE_OK ||
        sqlite3_db_config(c->db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr) != SQLITE_OK ||
        sqlite3_db_config(c->db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr) != SQLITE_OK ||
        !c->validate(file, &version)) {
      return nullptr;
    }
    // Rollback journal with full syncs; freed pages are zeroed so replaced tables leave no copy.
    std::vector<std::string> journalMode;
    if (!c->exec("PRAGMA synchronous = FULL; PRAGMA secure_delete = ON") ||
        !c->queryTexts("PRAGMA journal_mode = DELETE", &journalMode) ||
        journalMode != std::vector<std::string>{"delete"}) {
      return nullptr;
    }
    if (version == 0) {
      if (!c->exec("BEGIN IMMEDIATE")) return nullptr;
      if (!c->exec(kCreateSchema) || !c->exec("COMMIT")) {
        c->exec("ROLLBACK");
        return nullptr;
      }
    }
    if (!c->prepareStatements()) return nullptr;
    connection = std::move(c);
    return connection.get();
  }

  // Forgets the connection after a failure, so the next call opens and checks the store again.
  void drop() { connection.reset(); }

  // Runs an operation so that no exception (only allocation failure is possible) leaves it; an
  // interrupted operation leaves no pending change and no open transaction behind.
  template <typename Outcome, typename Body>
  Outcome guard(Outcome failure, Body body) noexcept {
    try {
      return body();
    } catch (...) {
      pending.clear();
      drop();
      return failure;
    }
  }

  bool save() {
    if (pending.empty()) return true;
    std::vector<Change> changes = std::move(pending);
    pending.clear();
    Connection* c = open();
    if (c == nullptr) return false;
    if (!c->run(c->begin.get())) {
      drop();
      return false;
    }
    bool ok = true;
    for (const Change& change : changes) {
      ok = std::visit([c](const auto& each) { return c->apply(each); }, change);
      if (!ok) break;
    }
    if (ok && c->run(c->commit.get())) return true;
    c->run(c->rollback.get());
    drop();
    return false;
  }
};

namespace {

bool isKnownTable(std::string_view table) {
  return table == kWBTableEntityName;
}

}  // namespace

CoreDataManager::CoreDataManager(std::filesystem::path dataDirectory,
                                 std::chrono::milliseconds busyTimeout)
    : impl_(std::make_unique<Impl>()) {
  impl_->directory = std::move(dataDirectory) / kDirectoryName;
  impl_->file = impl_->directory / kStoreFileName;
  impl_->busyTimeout = busyTimeout;
}

CoreDataManager::~CoreDataManager() = default;
CoreDataManager::CoreDataManager(CoreDataManager&&) noexcept = default;
CoreDataManager& CoreDataManager::operator=(CoreDataManager&&) noexcept = default;

const std::filesystem::path& CoreDataManager::sharedDocumentsPath() const {
  return impl_->directory;
}

std::filesystem::path CoreDataManager::storePath() const {
  return impl_->file;
}

Error CoreDataManager::storeFailure() {
  return Error::corvane(static_cast<int64_t>(CorvaneStatusCode::UNKNOWN),
                        "The record database failed.");
}

bool CoreDataManager::save() {
  return impl_->guard(false, [&] { return impl_->save(); });
}

bool CoreDataManager::insertRecordWithRecordValues(const WBTable& values, std::string_view table) {
  return impl_->guard(false, [&] {
    if (!isKnownTable(table)) return false;
    std::optional<std::string> key;
    if (values.username) key = Utils::sha256(*values.username);
    // One save for both changes: the old record goes and the new one comes in one transaction.
    impl_->pending.emplace_back(DeleteChange{RecordPredicate::usernameEquals(values.username)});
    impl_->pending.emplace_back(InsertChange{std::move(key), values});
    return impl_->save();
  });
}

bool CoreDataManager::deleteRecord(std::string_view table, const RecordPredicate& predicate) {
  return impl_->guard(false, [&] {
    if (!isKnownTable(table)) return false;
    impl_->pending.emplace_back(DeleteChange{predicate});
    return impl_->save();
  });
}

bool CoreDataManager::updateRecord(WBTable& record, const WBTable& values,
                                   std::string_view /*table*/) {
  return impl_->guard(false, [&] {
    if (!record.objectID) return false;
    std::optional<std::string> key;
    if (values.username) key = Utils::sha256(*values.username);
    impl_->pending.emplace_back(UpdateChange{*record.objectID, key, values});
    if (!impl_->save()) return false;
    if (key) record.username = std::move(key);
    if (values.wbTable) record.wbTable = values.wbTable;
    if (values.permutations) record.permutations = values.permutations;
    return true;
  });
}

Result<std::vector<WBTable>> CoreDataManager::fetchRecordsFromTable(
    std::string_view table, const RecordPredicate& predicate) {
  return impl_->guard(Result<std::vector<WBTable>>(storeFailure()),
                      [&]() -> Result<std::vector<WBTable>> {
                        if (!isKnownTable(table)) return storeFailure();
                        Connection* c = impl_->open();
                        if (c == nullptr) return storeFailure();
                        std::optional<std::vector<WBTable>> records = c->fetch(predicate);
                        if (!records) {
                          impl_->drop();
                          return storeFailure();
                        }
                        return std::move(*records);
                      });
}

Result<std::optional<WBTable>> CoreDataManager::fetchFirstRecordFromTable(
    std::string_view table, const RecordPredicate& predicate) {
  Result<std::vector<WBTable>> records = fetchRecordsFromTable(table, predicate);
  if (!records) return records.error();
  if (records->empty()) return std::optional<WBTable>();
  return std::optional<WBTable>(std::move(records->back()));
}

}  // namespace corvane
