#include "linux/sqlite_item_store.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crypto/sealed_box.h"
#include "foundation/private_paths.h"
#include "foundation/utils.h"

namespace corvane::linux_platform {

namespace {

// Version 1 kept values in clear; version 2 seals every value. A version 1 file is refused.
constexpr int kSchemaVersion = 2;

// The first bytes of every value's associated data, so that a sealed value cannot pass for any
// other message sealed under the store key.
constexpr std::string_view kAadContext = "corvane.item.v1";

// A value's associated data: its item's account, service and access group, each with a presence
// byte and a length, so that a value moved to another item fails to open.
Bytes valueAssociatedData(const std::optional<std::string>& account,
                          const std::optional<std::string>& service,
                          const std::optional<std::string>& accessGroup) {
  Bytes aad(kAadContext.begin(), kAadContext.end());
  for (const std::optional<std::string>* field : {&account, &service, &accessGroup}) {
    sealed_box::appendOptionalField(
        aad, *field ? std::optional<ByteView>(asBytes(**field)) : std::nullopt);
  }
  return aad;
}

// SQLite resolves symbolic links in a database name before it opens the file, and would turn
// "/proc/self/fd/N/items.sqlite" back into the folder's name, which someone may have moved since.
// This VFS is the default one with the name taken as given, so the file, its -wal and its -shm are
// opened through the held folder descriptor.
constexpr const char* kVfsName = "corvane-held-folder";

int fullPathnameAsGiven(sqlite3_vfs*, const char* name, int size, char* out) {
  const size_t length = std::strlen(name);
  if (size <= 0 || length >= static_cast<size_t>(size) || name[0] != '/') return SQLITE_CANTOPEN;
  std::memcpy(out, name, length + 1);
  return SQLITE_OK;
}

// Every sync of a store file (the database, its -wal) goes through here, so that tests and
// benchmarks can count durable commits. The default layer's file methods are copied with xSync
// wrapped; the file itself stays the default layer's, so every other method runs unchanged.
std::atomic<uint64_t> storeSyncs{0};

struct CountedMethods {
  const sqlite3_io_methods* original = nullptr;
  sqlite3_io_methods counted{};
};
// The default layer uses one set of file methods per locking style: a handful at most.
constexpr size_t kMaxMethodSets = 8;
std::array<CountedMethods, kMaxMethodSets> methodSets;
std::mutex methodSetsMutex;

const sqlite3_io_methods* originalMethods(const sqlite3_io_methods* counted) {
  std::lock_guard<std::mutex> lock(methodSetsMutex);
  for (const CountedMethods& set : methodSets) {
    if (&set.counted == counted) return set.original;
  }
  return nullptr;
}

int countedSync(sqlite3_file* file, int flags) {
  const sqlite3_io_methods* original = originalMethods(file->pMethods);
  if (original == nullptr || original->xSync == nullptr) return SQLITE_IOERR_FSYNC;
  storeSyncs.fetch_add(1, std::memory_order_relaxed);
  return original->xSync(file, flags);
}

const sqlite3_io_methods* countedMethodsFor(const sqlite3_io_methods* original) {
  std::lock_guard<std::mutex> lock(methodSetsMutex);
  for (CountedMethods& set : methodSets) {
    if (set.original == original) return &set.counted;
    if (set.original == nullptr) {
      set.original = original;
      set.counted = *original;
      set.counted.xSync = countedSync;
      return &set.counted;
    }
  }
  return original;  // more sets than expected: left uncounted rather than failing
}

sqlite3_vfs* baseVfs = nullptr;

int openCounted(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
  const int rc = baseVfs->xOpen(baseVfs, name, file, flags, outFlags);
  if (rc == SQLITE_OK && file->pMethods != nullptr) {
    file->pMethods = countedMethodsFor(file->pMethods);
  }
  return rc;
}

bool registerVfs() {
  static std::once_flag once;
  static sqlite3_vfs vfs{};
  static bool registered = false;
  std::call_once(once, [] {
    sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
    if (base == nullptr) return;
    baseVfs = base;
    vfs = *base;
    vfs.zName = kVfsName;
    vfs.pNext = nullptr;
    vfs.xFullPathname = fullPathnameAsGiven;
    vfs.xOpen = openCounted;
    registered = sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
  });
  return registered;
}

// Absent attributes are stored as NULL. SQLite treats NULLs as distinct in a UNIQUE index, so the
// identity index keys each attribute by the pair (is absent, value or ''), which keeps an absent
// attribute and an empty one apart and makes two absent ones equal.
constexpr const char* kSchema[] = {
    "CREATE TABLE items("
    " seq INTEGER PRIMARY KEY,"
    " account TEXT, service TEXT, generic TEXT, label BLOB, access_group TEXT, accessible TEXT,"
    " created INTEGER NOT NULL,"
    " value BLOB NOT NULL)",
    "CREATE UNIQUE INDEX items_identity ON items("
    " account IS NULL, ifnull(account, ''), service IS NULL, ifnull(service, ''),"
    " access_group IS NULL, ifnull(access_group, ''))",
    "CREATE INDEX items_by_service ON items(service, account)",
    "CREATE INDEX items_by_account ON items(account, generic)",
    "CREATE INDEX items_by_label ON items(label, access_group)",
};

// Parameter numbers, fixed per attribute so that one binder serves every statement shape.
enum Param {
  kAccount = 1,
  kService = 2,
  kGeneric = 3,
  kLabel = 4,
  kAccessGroup = 5,
  kValue = 6,
  kAccessible = 7,
  kCreated = 8,
};

constexpr unsigned kHasAccount = 1;
constexpr unsigned kHasService = 2;
constexpr unsigned kHasGeneric = 4;
constexpr unsigned kHasLabel = 8;
constexpr unsigned kHasAccessGroup = 16;
constexpr size_t kShapes = 32;

unsigned shapeOf(const ItemQuery& query) {
  return (query.account ? kHasAccount : 0) | (query.service ? kHasService : 0) |
         (query.generic ? kHasGeneric : 0) | (query.label ? kHasLabel : 0) |
         (query.accessGroup ? kHasAccessGroup : 0);
}

// The WHERE condition for a query shape. When an account or a service is given, its index is the
// selective one (every item of the library carries the same label), so the label and access group
// are written as "+column", which keeps SQLite from choosing the label index instead.
std::string whereClause(unsigned shape) {
  const bool keyed = (shape & (kHasAccount | kHasService)) != 0;
  const char* labelColumn = keyed ? "+label" : "label";
  const char* groupColumn = keyed ? "+access_group" : "access_group";
  std::string where;
  auto term = [&where](std::string_view text) {
    where += where.empty() ? " WHERE " : " AND ";
    where += text;
  };
  if (shape & kHasAccount) term("account = ?1");
  if (shape & kHasService) term("service = ?2");
  if (shape & kHasGeneric) term("generic = ?3");
  if (shape & kHasLabel) term(std::string(labelColumn) + " = ?4");
  if (shape & kHasAccessGroup) term(std::string(groupColumn) + " = ?5");
  return where;
}

std::string statementText(SqliteItemStore::Operation operation, unsigned shape) {
  const std::string where = whereClause(shape);
  switch (operation) {
    case SqliteItemStore::Operation::findFirst:
      return "SELECT value, account, service, access_group FROM items" + where +
             " ORDER BY seq LIMIT 1";
    case SqliteItemStore::Operation::listServices:
      return "SELECT service FROM items" + where + (where.empty() ? " WHERE " : " AND ") +
             "service IS NOT NULL ORDER BY created DESC, seq DESC";
    case SqliteItemStore::Operation::listAccounts:
      return "SELECT account FROM items" + where + (where.empty() ? " WHERE " : " AND ") +
             "account IS NOT NULL ORDER BY created DESC, seq DESC";
    case SqliteItemStore::Operation::update:
      // The rows to update: each value is sealed for its own row.
      return "SELECT seq, account, service, access_group FROM items" + where;
    case SqliteItemStore::Operation::remove:
      return "DELETE FROM items" + where;
    case SqliteItemStore::Operation::findAttributes:
      return "SELECT account, service, generic, label, access_group, accessible FROM items" +
             where + " ORDER BY seq LIMIT 1";
  }
  return {};
}

constexpr size_t kOperations = 6;

struct StatementDeleter {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

struct DatabaseDeleter {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DatabasePtr = std::unique_ptr<sqlite3, DatabaseDeleter>;

// Resets a statement and drops its bindings when the call using it ends, so that no bound secret
// stays referenced and the statement holds no read transaction open.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
  ~StatementUse() {
    if (statement_ != nullptr) {
      sqlite3_reset(statement_);
      sqlite3_clear_bindings(statement_);
    }
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_;
};

bool bindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
  if (!text) return sqlite3_bind_null(statement, index) == SQLITE_OK;
  return sqlite3_bind_text64(statement, index, text->data(), text->size(), SQLITE_STATIC,
                             SQLITE_UTF8) == SQLITE_OK;
}

bool bindBlob(sqlite3_stmt* statement, int index, std::span<const uint8_t> bytes) {
  // A null pointer would bind NULL; an empty value is a zero-length blob.
  if (bytes.empty()) return sqlite3_bind_zeroblob(statement, index, 0) == SQLITE_OK;
  return sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC) ==
         SQLITE_OK;
}

// Binds the attributes the query has; the statement was prepared for exactly this shape.
bool bindQuery(sqlite3_stmt* statement, const ItemQuery& query) {
  return (!query.account || bindText(statement, kAccount, query.account)) &&
         (!query.service || bindText(statement, kService, query.service)) &&
         (!query.generic || bindText(statement, kGeneric, query.generic)) &&
         (!query.label || bindBlob(statement, kLabel, *query.label)) &&
         (!query.accessGroup || bindText(statement, kAccessGroup, query.accessGroup));
}

StoreStatus statusOf(int rc) {
  if (rc == SQLITE_OK || rc == SQLITE_DONE || rc == SQLITE_ROW) return StoreStatus::ok;
  if ((rc & 0xff) == SQLITE_CONSTRAINT) return StoreStatus::duplicate;
  return StoreStatus::storeError;
}

int64_t wallClockMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  const int size = sqlite3_column_bytes(statement, column);
  if (text == nullptr || size <= 0) return {};
  return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

// A text column that may be NULL (an absent attribute).
std::optional<std::string> optionalColumnText(sqlite3_stmt* statement, int column) {
  if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
  return columnText(statement, column);
}

}  // namespace

struct SqliteItemStore::Impl {
  std::filesystem::path path;
  Options options;
  // Held for the connection's whole life: SQLite reaches its files through this descriptor.
  std::shared_ptr<const PrivateDirectory> folder;
  std::shared_ptr<const StoreKey> storeKey;
  DatabasePtr db;
  StatementPtr insert;
  StatementPtr updateRow;
  StatementPtr begin;
  StatementPtr commit;
  StatementPtr rollback;
  std::array<std::array<StatementPtr, kShapes>, kOperations> statements;
  // The transaction every store object over this connection writes in, when one is open; a
  // write that failed inside it spoils it. A delete inside it empties the -wal file after the
  // commit (no checkpoint can run inside a write transaction).
  bool inTransaction = false;
  bool spoiled = false;
  bool truncateAfterCommit = false;

  int exec(const char* sql) { return sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr); }

  StatementPtr prepare(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(db.get(), sql.c_str(), static_cast<int>(sql.size()),
                           SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
      sqlite3_finalize(statement);
      return nullptr;
    }
    return StatementPtr(statement);
  }

  // The cached statement for an operation and query shape, prepared on first use.
  sqlite3_stmt* statementFor(Operation operation, unsigned shape) {
    StatementPtr& slot = statements[static_cast<size_t>(operation)][shape];
    if (!slot) slot = prepare(statementText(operation, shape));
    return slot.get();
  }

  int64_t now() const { return options.clock ? options.clock() : wallClockMicroseconds(); }

  StoreStatus step(sqlite3_stmt* statement) { return statusOf(sqlite3_step(statement)); }

  StoreStatus run(sqlite3_stmt* statement) {
    if (statement == nullptr) return StoreStatus::storeError;
    StatementUse use(statement);
    return step(statement);
  }

  // A write of its own, or one joining the open transaction.
  bool beginWrite() { return inTransaction || run(begin.get()) == StoreStatus::ok; }
  StoreStatus finishWrite(StoreStatus status) {
    if (inTransaction) return noteInTransaction(status);
    if (status == StoreStatus::ok || status == StoreStatus::notFound) {
      if (run(commit.get()) == StoreStatus::ok) return status;
      status = StoreStatus::storeError;
    }
    // A rollback that fails leaves SQLite to roll back when the connection next moves on; the
    // status is the failure already being reported.
    if (!sqlite3_get_autocommit(db.get())) static_cast<void>(run(rollback.get()));
    return status;
  }

  // A failed write inside the open transaction spoils it, so that its commit cannot land half of
  // what was meant.
  StoreStatus noteInTransaction(StoreStatus status) {
    if (inTransaction && status == StoreStatus::storeError) spoiled = true;
    return status;
  }

  void rollbackOpenTransaction() {
    if (!sqlite3_get_autocommit(db.get())) static_cast<void>(run(rollback.get()));
  }

  std::optional<Bytes> seal(const SecretBytes& value, const std::optional<std::string>& account,
                            const std::optional<std::string>& service,
                            const std::optional<std::string>& accessGroup) const {
    return sealed_box::seal(storeKey->bytes(), valueAssociatedData(account, service, accessGroup),
                            value.exposeSecret());
  }

  StoreStatus insertItem(const ItemAttributes& item, const SecretBytes& value,
                         const std::optional<std::string>& defaultAccessGroup) {
    sqlite3_stmt* statement = insert.get();
    if (statement == nullptr) return StoreStatus::storeError;
    const std::optional<std::string>& group =
        item.accessGroup ? item.accessGroup : defaultAccessGroup;
    const std::optional<Bytes> sealed = seal(value, item.account, item.service, group);
    if (!sealed) return StoreStatus::storeError;
    StatementUse use(statement);
    const bool bound = bindText(statement, kAccount, item.account) &&
                       bindText(statement, kService, item.service) &&
                       bindText(statement, kGeneric, item.generic) &&
                       (item.label ? bindBlob(statement, kLabel, *item.label)
                                   : sqlite3_bind_null(statement, kLabel) == SQLITE_OK) &&
                       bindText(statement, kAccessGroup, group) &&
                       bindBlob(statement, kValue, *sealed) &&
                       bindText(statement, kAccessible, item.accessibility) &&
                       sqlite3_bind_int64(statement, kCreated, now()) == SQLITE_OK;
    if (!bound) return StoreStatus::storeError;
    return step(statement);
  }

  // Replaces the value of every match, sealed for each row's own account, service and access
  // group. Runs inside the caller's transaction.
  StoreStatus updateItems(const ItemQuery& query, const SecretBytes& value) {
    struct Row {
      int64_t seq;
      std::optional<std::string> account, service, accessGroup;
    };
    std::vector<Row> rows;
    {
      sqlite3_stmt* statement = statementFor(Operation::update, shapeOf(query));
      if (statement == nullptr) return StoreStatus::storeError;
      StatementUse use(statement);
      if (!bindQuery(statement, query)) return StoreStatus::storeError;
      int rc;
      while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        rows.push_back({sqlite3_column_int64(statement, 0), optionalColumnText(statement, 1),
                        optionalColumnText(statement, 2), optionalColumnText(statement, 3)});
      }
      if (rc != SQLITE_DONE) return StoreStatus::storeError;
    }
    if (rows.empty()) return StoreStatus::notFound;
    sqlite3_stmt* statement = updateRow.get();
    if (statement == nullptr) return StoreStatus::storeError;
    for (const Row& row : rows) {
      const std::optional<Bytes> sealed = seal(value, row.account, row.service, row.accessGroup);
      if (!sealed) return StoreStatus::storeError;
      StatementUse use(statement);
      if (!bindBlob(statement, 1, *sealed) ||
          sqlite3_bind_int64(statement, 2, row.seq) != SQLITE_OK ||
          step(statement) != StoreStatus::ok) {
        return StoreStatus::storeError;
      }
    }
    return StoreStatus::ok;
  }

  // Moves every committed page into the database file and empties the -wal file, so that no page
  // image of deleted rows stays there. Best effort: another connection reading at that moment
  // keeps the log until a later checkpoint.
  void truncateLog() {
    static_cast<void>(
        sqlite3_wal_checkpoint_v2(db.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
  }

  StoreStatus listColumn(Operation operation, const ItemQuery& query,
                         std::vector<std::string>* out) {
    sqlite3_stmt* statement = statementFor(operation, shapeOf(query));
    if (statement == nullptr) return StoreStatus::storeError;
    StatementUse use(statement);
    if (!bindQuery(statement, query)) return StoreStatus::storeError;
    std::vector<std::string> values;
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) values.push_back(columnText(statement, 0));
    if (rc != SQLITE_DONE) return StoreStatus::storeError;
    if (values.empty()) return StoreStatus::notFound;
    if (out != nullptr) *out = std::move(values);
    return StoreStatus::ok;
  }
};

namespace {

bool failOpen(Error* error, const std::string& what) {
  setError(error, Error::corvane(-1, "Unable to open item store: " + what));
  return false;
}

// Creates the database file 0600 before SQLite sees it. SQLite gives its -wal and -shm files the
// mode of the database file and sets it explicitly, so they are 0600 too, whatever the umask.
bool preparePrivateFile(const PrivateDirectory& folder, const std::string& name, Error* error) {
  const int fd = folder.openFile(name, O_RDWR | O_CREAT, 0600);
  if (fd < 0) return failOpen(error, std::strerror(errno));
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid();
  if (ok && (st.st_mode & 07777) != 0600) ok = ::fchmod(fd, 0600) == 0;
  ::close(fd);
  if (!ok) return failOpen(error, "the store file is not a private regular file of this user");
  Error inner;
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    if (!folder.makeFilePrivate(name + suffix, &inner)) {
      return failOpen(error, inner.localizedDescription());
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<SqliteItemStore> SqliteItemStore::open(const std::filesystem::path& file,
                                                       const Options& options, Error* error) {
  Error inner;
  std::shared_ptr<const PrivateDirectory> folder =
      PrivateDirectory::open(file.parent_path().empty() ? "." : file.parent_path(), &inner);
  if (!folder) {
    failOpen(error, inner.localizedDescription());
    return nullptr;
  }
  return open(std::move(folder), file.filename().string(), options, error);
}

std::unique_ptr<SqliteItemStore> SqliteItemStore::open(
    std::shared_ptr<const PrivateDirectory> folder, std::string_view name, const Options& options,
    Error* error) {
  if (!folder) {
    failOpen(error, "no folder");
    return nullptr;
  }
  const std::string fileName(name);
  if (!preparePrivateFile(*folder, fileName, error)) return nullptr;
  auto impl = std::make_unique<Impl>();
  impl->path = folder->path() / fileName;
  impl->options = options;
  impl->storeKey = options.storeKey;
  if (!impl->storeKey) {
    Error inner;
    impl->storeKey = StoreKey::load(*folder, StoreKey::kFileName, &inner);
    if (!impl->storeKey) {
      failOpen(error, inner.localizedDescription());
      return nullptr;
    }
  }
  if (!registerVfs()) {
    failOpen(error, "cannot register the SQLite file layer");
    return nullptr;
  }
  impl->folder = std::move(folder);

  sqlite3* raw = nullptr;
  const std::string throughFolder = impl->folder->pathThroughDescriptor(fileName);
  const int rc =
      sqlite3_open_v2(throughFolder.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, kVfsName);
  impl->db.reset(raw);
  auto sqliteFailure = [&](const char* step) {
    const char* message = impl->db ? sqlite3_errmsg(impl->db.get()) : sqlite3_errstr(rc);
    failOpen(error, std::string(step) + ": " + message);
    return nullptr;
  };
  if (rc != SQLITE_OK) return sqliteFailure("open");
  sqlite3_extended_result_codes(impl->db.get(), 1);
  const auto timeout = options.busyTimeout.count();
  sqlite3_busy_timeout(impl->db.get(),
                       timeout > 0x7fffffff ? 0x7fffffff : static_cast<int>(timeout));

  // WAL lets readers run beside the writer and makes each commit a single append.
  {
    StatementPtr journal = impl->prepare("PRAGMA journal_mode=WAL");
    if (!journal || sqlite3_step(journal.get()) != SQLITE_ROW ||
        columnText(journal.get(), 0) != "wal") {
      return sqliteFailure("journal mode");
    }
  }
  const char* synchronous = options.synchronous == Synchronous::full ? "PRAGMA synchronous=FULL"
                                                                     : "PRAGMA synchronous=NORMAL";
  if (impl->exec(synchronous) != SQLITE_OK || impl->exec("PRAGMA secure_delete=ON") != SQLITE_OK ||
      impl->exec("PRAGMA trusted_schema=OFF") != SQLITE_OK) {
    return sqliteFailure("settings");
  }

  if (impl->exec("BEGIN IMMEDIATE") != SQLITE_OK) return sqliteFailure("schema");
  int version = -1;
  {
    StatementPtr read = impl->prepare("PRAGMA user_version");
    if (read && sqlite3_step(read.get()) == SQLITE_ROW) version = sqlite3_column_int(read.get(), 0);
  }
  bool schemaOk = version == kSchemaVersion;
  if (version == 0) {
    schemaOk = true;
    for (const char* sql : kSchema) schemaOk = schemaOk && impl->exec(sql) == SQLITE_OK;
    schemaOk =
        schemaOk &&
        impl->exec(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str()) == SQLITE_OK;
  }
  if (!schemaOk) {
    impl->exec("ROLLBACK");
    if (version == 1) {
      // Written before values were sealed: its values lie in clear and would not open.
      failOpen(error,
               "the store was written by a version that kept values in clear; move it "
               "away to start with an empty store");
      return nullptr;
    }
    if (version > 0) {
      failOpen(error, "unsupported store version " + std::to_string(version));
      return nullptr;
    }
    return sqliteFailure("schema");
  }
  if (impl->exec("COMMIT") != SQLITE_OK) return sqliteFailure("schema");

  impl->insert = impl->prepare(
      "INSERT INTO items(account, service, generic, label, access_group, value, accessible, "
      "created) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
  impl->updateRow = impl->prepare("UPDATE items SET value = ?1 WHERE seq = ?2");
  impl->begin = impl->prepare("BEGIN IMMEDIATE");
  impl->commit = impl->prepare("COMMIT");
  impl->rollback = impl->prepare("ROLLBACK");
  if (!impl->insert || !impl->updateRow || !impl->begin || !impl->commit || !impl->rollback) {
    return sqliteFailure("prepare");
  }
  std::optional<std::string> group = impl->options.defaultAccessGroup;
  return std::unique_ptr<SqliteItemStore>(
      new SqliteItemStore(std::shared_ptr<Impl>(std::move(impl)), std::move(group)));
}

SqliteItemStore::SqliteItemStore(std::shared_ptr<Impl> impl,
                                 std::optional<std::string> defaultAccessGroup)
    : impl_(std::move(impl)), defaultAccessGroup_(std::move(defaultAccessGroup)) {}
SqliteItemStore::~SqliteItemStore() = default;

std::unique_ptr<SqliteItemStore> SqliteItemStore::shareConnection(
    std::optional<std::string> defaultAccessGroup) {
  return std::unique_ptr<SqliteItemStore>(
      new SqliteItemStore(impl_, std::move(defaultAccessGroup)));
}

uint64_t SqliteItemStore::syncCount() {
  return storeSyncs.load(std::memory_order_relaxed);
}

StoreStatus SqliteItemStore::beginTransaction() {
  if (impl_->inTransaction) return StoreStatus::storeError;
  if (impl_->run(impl_->begin.get()) != StoreStatus::ok) return StoreStatus::storeError;
  impl_->inTransaction = true;
  impl_->spoiled = false;
  impl_->truncateAfterCommit = false;
  return StoreStatus::ok;
}

StoreStatus SqliteItemStore::commitTransaction() {
  if (!impl_->inTransaction) return StoreStatus::storeError;
  impl_->inTransaction = false;
  if (impl_->spoiled || impl_->run(impl_->commit.get()) != StoreStatus::ok) {
    impl_->rollbackOpenTransaction();
    return StoreStatus::storeError;
  }
  if (impl_->truncateAfterCommit) impl_->truncateLog();
  return StoreStatus::ok;
}

void SqliteItemStore::rollbackTransaction() {
  if (!impl_->inTransaction) return;
  impl_->inTransaction = false;
  impl_->rollbackOpenTransaction();
}

const std::filesystem::path& SqliteItemStore::path() const {
  return impl_->path;
}

StoreStatus SqliteItemStore::add(const ItemAttributes& item, const SecretBytes& value) {
  return impl_->noteInTransaction(impl_->insertItem(item, value, defaultAccessGroup_));
}

StoreStatus SqliteItemStore::upsert(const ItemAttributes& item, const SecretBytes& value) {
  if (!impl_->beginWrite()) return StoreStatus::storeError;
  StoreStatus status = impl_->updateItems(item.asQuery(), value);
  if (status == StoreStatus::notFound) status = impl_->insertItem(item, value, defaultAccessGroup_);
  return impl_->finishWrite(status);
}

StoreStatus SqliteItemStore::findFirst(const ItemQuery& query, SecretBytes* value) {
  sqlite3_stmt* statement = impl_->statementFor(Operation::findFirst, shapeOf(query));
  if (statement == nullptr) return StoreStatus::storeError;
  StatementUse use(statement);
  if (!bindQuery(statement, query)) return StoreStatus::storeError;
  const int rc = sqlite3_step(statement);
  if (rc == SQLITE_DONE) return StoreStatus::notFound;
  if (rc != SQLITE_ROW) return StoreStatus::storeError;
  // The value opens only under its own row's account, service and access group: a value copied
  // or moved into another row is a damaged store, never that row's value.
  const void* blob = sqlite3_column_blob(statement, 0);
  const int size = sqlite3_column_bytes(statement, 0);
  const ByteView sealed = blob == nullptr || size <= 0 ? ByteView()
                                                       : ByteView(static_cast<const uint8_t*>(blob),
                                                                  static_cast<size_t>(size));
  std::optional<SecretBytes> opened = sealed_box::open(
      impl_->storeKey->bytes(),
      valueAssociatedData(optionalColumnText(statement, 1), optionalColumnText(statement, 2),
                          optionalColumnText(statement, 3)),
      sealed);
  if (!opened) return StoreStatus::storeError;
  if (value != nullptr) *value = std::move(*opened);
  return StoreStatus::ok;
}

StoreStatus SqliteItemStore::findFirstAttributes(const ItemQuery& query,
                                                 ItemAttributes* attributes) {
  sqlite3_stmt* statement = impl_->statementFor(Operation::findAttributes, shapeOf(query));
  if (statement == nullptr) return StoreStatus::storeError;
  StatementUse use(statement);
  if (!bindQuery(statement, query)) return StoreStatus::storeError;
  const int rc = sqlite3_step(statement);
  if (rc == SQLITE_DONE) return StoreStatus::notFound;
  if (rc != SQLITE_ROW) return StoreStatus::storeError;
  if (attributes != nullptr) {
    ItemAttributes found;
    found.account = optionalColumnText(statement, 0);
    found.service = optionalColumnText(statement, 1);
    found.generic = optionalColumnText(statement, 2);
    if (sqlite3_column_type(statement, 3) != SQLITE_NULL) {
      const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(statement, 3));
      const int size = sqlite3_column_bytes(statement, 3);
      found.label = blob == nullptr || size <= 0 ? std::vector<uint8_t>()
                                                 : std::vector<uint8_t>(blob, blob + size);
    }
    found.accessGroup = optionalColumnText(statement, 4);
    found.accessibility = optionalColumnText(statement, 5);
    *attributes = std::move(found);
  }
  return StoreStatus::ok;
}

StoreStatus SqliteItemStore::listServices(const ItemQuery& query,
                                          std::vector<std::string>* services) {
  return impl_->listColumn(Operation::listServices, query, services);
}

StoreStatus SqliteItemStore::listAccounts(const ItemQuery& query,
                                          std::vector<std::string>* accounts) {
  return impl_->listColumn(Operation::listAccounts, query, accounts);
}

StoreStatus SqliteItemStore::update(const ItemQuery& query, const SecretBytes& value) {
  if (!impl_->beginWrite()) return StoreStatus::storeError;
  return impl_->finishWrite(impl_->updateItems(query, value));
}

StoreStatus SqliteItemStore::remove(const ItemQuery& query) {
  sqlite3_stmt* statement = impl_->statementFor(Operation::remove, shapeOf(query));
  if (statement == nullptr) return impl_->noteInTransaction(StoreStatus::storeError);
  {
    StatementUse use(statement);
    if (!bindQuery(statement, query) || impl_->step(statement) != StoreStatus::ok) {
      return impl_->noteInTransaction(StoreStatus::storeError);
    }
  }
  if (sqlite3_changes(impl_->db.get()) == 0) return StoreStatus::notFound;
  // secure_delete has zeroed the freed content in the pages; the checkpoint carries those pages
  // into the database file and empties the -wal file, which still held the old page images.
  if (impl_->inTransaction) {
    impl_->truncateAfterCommit = true;
  } else {
    impl_->truncateLog();
  }
  return StoreStatus::ok;
}

StoreStatus SqliteItemStore::addAll(std::span<const std::pair<ItemAttributes, SecretBytes>> items) {
  if (!impl_->beginWrite()) return StoreStatus::storeError;
  StoreStatus status = StoreStatus::ok;
  for (const auto& [item, value] : items) {
    status = impl_->insertItem(item, value, defaultAccessGroup_);
    if (status != StoreStatus::ok) break;
  }
  return impl_->finishWrite(status);
}

bool SqliteItemStore::checkIntegrity() {
  StatementPtr check = impl_->prepare("PRAGMA integrity_check");
  if (!check || sqlite3_step(check.get()) != SQLITE_ROW) return false;
  return columnText(check.get(), 0) == "ok" && sqlite3_step(check.get()) == SQLITE_DONE;
}

std::vector<std::string> SqliteItemStore::queryPlan(Operation operation, const ItemQuery& query) {
  std::vector<std::string> details;
  StatementPtr plan =
      impl_->prepare("EXPLAIN QUERY PLAN " + statementText(operation, shapeOf(query)));
  if (!plan) return details;
  while (sqlite3_step(plan.get()) == SQLITE_ROW) details.push_back(columnText(plan.get(), 3));
  return details;
}

}  // namespace corvane::linux_platform
