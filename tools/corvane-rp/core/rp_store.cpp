#include "corvane-rp/core/rp_store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

namespace corvane::rp {
namespace {

Error storeError(sqlite3* db, std::string_view what) {
  return Error::corvane(1, std::string(what) + ": " + (db ? sqlite3_errmsg(db) : "no database"));
}

// A prepared statement, finalized at scope end.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) statement_ = nullptr;
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return statement_ != nullptr; }
  sqlite3_stmt* get() const { return statement_; }
  bool bind(int index, std::string_view text) {
    return sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                             SQLITE_TRANSIENT) == SQLITE_OK;
  }
  bool bind(int index, ByteView blob) {
    return sqlite3_bind_blob(statement_, index, blob.data(), static_cast<int>(blob.size()),
                             SQLITE_TRANSIENT) == SQLITE_OK;
  }
  ByteView blob(int column) const {
    const void* value = sqlite3_column_blob(statement_, column);
    return value ? ByteView(static_cast<const uint8_t*>(value),
                            static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
                 : ByteView();
  }
  bool bind(int index, int64_t value) {
    return sqlite3_bind_int64(statement_, index, value) == SQLITE_OK;
  }
  std::string text(int column) const {
    const unsigned char* value = sqlite3_column_text(statement_, column);
    return value ? std::string(reinterpret_cast<const char*>(value),
                               static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
                 : std::string();
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS pending (challenge TEXT PRIMARY KEY, request TEXT NOT NULL, "
    "expires INTEGER NOT NULL, used INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS registrations (aaid TEXT NOT NULL, keyID TEXT NOT NULL, "
    "record TEXT NOT NULL, PRIMARY KEY (aaid, keyID));"
    "CREATE TABLE IF NOT EXISTS user_secrets (user TEXT PRIMARY KEY, key BLOB NOT NULL, "
    "encoding BLOB NOT NULL);";

}  // namespace

Result<std::unique_ptr<RpStore>> RpStore::open(const std::string& path) {
  if (path != ":memory:") {
    // Create the file 0600 before SQLite opens it with the process umask.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return Error::corvane(1, "cannot create " + path);
    ::close(fd);
  }
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    Error error = storeError(db, "cannot open " + path);
    sqlite3_close(db);
    return error;
  }
  std::unique_ptr<RpStore> store(new RpStore(db));
  Result<void> schema = store->exec(kSchema);
  if (!schema) return schema.error();
  return store;
}

RpStore::~RpStore() {
  sqlite3_close(db_);
}

Result<void> RpStore::exec(const char* sql) {
  if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return storeError(db_, "store");
  }
  return {};
}

Result<void> RpStore::addPending(std::string_view challenge, std::string_view requestText,
                                 int64_t expiresAt) {
  Statement s(db_, "INSERT INTO pending (challenge, request, expires) VALUES (?, ?, ?)");
  if (!s.ok() || !s.bind(1, challenge) || !s.bind(2, requestText) || !s.bind(3, expiresAt) ||
      sqlite3_step(s.get()) != SQLITE_DONE) {
    return storeError(db_, "cannot store the request");
  }
  return {};
}

Result<std::optional<PendingRequest>> RpStore::findPending(std::string_view challenge) {
  Statement s(db_, "SELECT request, expires, used FROM pending WHERE challenge = ?");
  if (!s.ok() || !s.bind(1, challenge)) return storeError(db_, "cannot read the requests");
  const int step = sqlite3_step(s.get());
  if (step == SQLITE_DONE) return std::optional<PendingRequest>();
  if (step != SQLITE_ROW) return storeError(db_, "cannot read the requests");
  return std::optional<PendingRequest>(PendingRequest{s.text(0), sqlite3_column_int64(s.get(), 1),
                                                      sqlite3_column_int64(s.get(), 2) != 0});
}

Result<void> RpStore::settle(std::string_view challenge, const std::vector<Registration>& save) {
  if (Result<void> begun = exec("BEGIN IMMEDIATE"); !begun) return begun;
  bool ok = true;
  {
    Statement s(db_, "UPDATE pending SET used = 1 WHERE challenge = ?");
    ok = s.ok() && s.bind(1, challenge) && sqlite3_step(s.get()) == SQLITE_DONE;
  }
  for (const Registration& registration : save) {
    if (!ok) break;
    Statement s(db_, "INSERT OR REPLACE INTO registrations (aaid, keyID, record) VALUES (?, ?, ?)");
    ok = s.ok() && s.bind(1, registration.aaid) && s.bind(2, registration.keyID) &&
         s.bind(3, registration.toJson()) && sqlite3_step(s.get()) == SQLITE_DONE;
  }
  if (!ok) {
    Error error = storeError(db_, "cannot store the outcome");
    (void)exec("ROLLBACK");
    return error;
  }
  return exec("COMMIT");
}

Result<std::vector<Registration>> RpStore::registrations() {
  Statement s(db_, "SELECT record FROM registrations ORDER BY rowid");
  if (!s.ok()) return storeError(db_, "cannot read the registrations");
  std::vector<Registration> out;
  int step;
  while ((step = sqlite3_step(s.get())) == SQLITE_ROW) {
    Result<Registration> registration = Registration::fromJson(s.text(0));
    if (!registration) return registration.error();
    out.push_back(std::move(*registration));
  }
  if (step != SQLITE_DONE) return storeError(db_, "cannot read the registrations");
  return out;
}

Result<void> RpStore::deleteRegistration(std::string_view aaid, std::string_view keyID) {
  Statement s(db_, "DELETE FROM registrations WHERE aaid = ? AND keyID = ?");
  if (!s.ok() || !s.bind(1, aaid) || !s.bind(2, keyID) || sqlite3_step(s.get()) != SQLITE_DONE) {
    return storeError(db_, "cannot delete the registration");
  }
  return {};
}

Result<std::optional<WbUserSecret>> RpStore::userSecret(std::string_view username) {
  Statement s(db_, "SELECT key, encoding FROM user_secrets WHERE user = ?");
  if (!s.ok() || !s.bind(1, std::string_view(Utils::sha256(username)))) {
    return storeError(db_, "cannot read the user secrets");
  }
  const int step = sqlite3_step(s.get());
  if (step == SQLITE_DONE) return std::optional<WbUserSecret>();
  if (step != SQLITE_ROW) return storeError(db_, "cannot read the user secrets");
  const ByteView encoding = s.blob(1);
  return std::optional<WbUserSecret>(
      WbUserSecret{SecretBytes(s.blob(0)), Bytes(encoding.begin(), encoding.end())});
}

Result<void> RpStore::saveUserSecret(std::string_view username, const WbUserSecret& secret) {
  Statement s(db_, "INSERT OR REPLACE INTO user_secrets (user, key, encoding) VALUES (?, ?, ?)");
  if (!s.ok() || !s.bind(1, std::string_view(Utils::sha256(username))) ||
      !s.bind(2, secret.key.exposeSecret()) || !s.bind(3, ByteView(secret.externalEncoding)) ||
      sqlite3_step(s.get()) != SQLITE_DONE) {
    return storeError(db_, "cannot store the user secret");
  }
  return {};
}

}  // namespace corvane::rp
