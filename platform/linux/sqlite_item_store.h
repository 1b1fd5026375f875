// The Linux ItemStore: one SQLite file in WAL mode.
//
// Every call is one transaction, unless the caller opened one (beginTransaction): then every write
// until commitTransaction lands in that one commit, or none does. Statements are prepared once and
// take every value as a bound parameter. The file (and SQLite's -wal and -shm files next to it) is
// 0600 and its folder 0700, whatever the umask, and all three are opened through the held folder's
// descriptor.
//
// Values are sealed at rest (AES-256-GCM under the store key, a fresh random nonce per write) with
// the item's account, service and access group as associated data: a copy of the file reveals no
// value, and a value moved to another row fails to open (storeError, never the wrong value).
// Deleted content is overwritten in the database file (secure_delete) and every delete that
// removed something ends with a checkpoint that empties the -wal file.
//
// Durability: with Synchronous::full (the default) a call that returned ok has reached the disk,
// so the item survives the process being killed and a power loss; Synchronous::normal survives the
// process being killed but may lose the last writes on power loss. Either way the file stays
// consistent. docs/storage.md has the measurements behind the default.
//
// Thread-safety: as the port states; the connection is opened without SQLite's own mutexes.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/error.h"
#include "corvane/ports/item_store.h"
#include "foundation/private_paths.h"
#include "linux/store_key.h"

namespace corvane::linux_platform {

class SqliteItemStore final : public ItemStore {
 public:
  enum class Synchronous { normal, full };
  struct Options {
    Synchronous synchronous = Synchronous::full;
    // How long a call waits for another connection's write lock before it fails.
    std::chrono::milliseconds busyTimeout{5000};
    // Creation time of new items in microseconds; the wall clock when empty.
    std::function<int64_t()> clock;
    // The access group given to an item added without one (the port's default access group);
    // none when absent. Usually defaultAccessGroupFor(bundle identifier).
    std::optional<std::string> defaultAccessGroup;
    // The key that seals every value; when null, open() reads (or creates) StoreKey::kFileName in
    // the store's folder.
    std::shared_ptr<const StoreKey> storeKey;
  };

  // The team identifier that stands in for the platform-assigned application prefix when the
  // application configures none: ten upper-case characters, like the platform's.
  static constexpr std::string_view kDefaultTeamId = "CORVANELNX";
  // "<team id>.<bundle identifier>", the access group a platform keychain gives an application.
  static std::string defaultAccessGroupFor(std::string_view bundleIdentifier,
                                           std::string_view teamId = kDefaultTeamId) {
    return std::string(teamId) + "." + std::string(bundleIdentifier);
  }

  // Opens the store at `file`, creating the file (and its folder) when missing. Null and the error
  // when the folder or file cannot be made private, the file is not an item store of this
  // version, or SQLite fails.
  static std::unique_ptr<SqliteItemStore> open(const std::filesystem::path& file,
                                               const Options& options, Error* error);
  static std::unique_ptr<SqliteItemStore> open(const std::filesystem::path& file, Error* error) {
    return open(file, Options{}, error);
  }
  // Opens the store file `name` beneath the held `folder`: the file and SQLite's -wal and -shm
  // files are reached through the folder's descriptor, never by the folder's name.
  static std::unique_ptr<SqliteItemStore> open(std::shared_ptr<const PrivateDirectory> folder,
                                               std::string_view name, const Options& options,
                                               Error* error);
  ~SqliteItemStore() override;
  SqliteItemStore(const SqliteItemStore&) = delete;
  SqliteItemStore& operator=(const SqliteItemStore&) = delete;

  StoreStatus add(const ItemAttributes& item, const SecretBytes& value) override;
  StoreStatus upsert(const ItemAttributes& item, const SecretBytes& value) override;
  StoreStatus findFirst(const ItemQuery& query, SecretBytes* value) override;
  StoreStatus findFirstAttributes(const ItemQuery& query, ItemAttributes* attributes) override;
  StoreStatus listServices(const ItemQuery& query, std::vector<std::string>* services) override;
  StoreStatus listAccounts(const ItemQuery& query, std::vector<std::string>* accounts) override;
  StoreStatus update(const ItemQuery& query, const SecretBytes& value) override;
  StoreStatus remove(const ItemQuery& query) override;
  // BEGIN IMMEDIATE on the connection; the write lock is held until the commit or rollback.
  StoreStatus beginTransaction() override;
  StoreStatus commitTransaction() override;
  void rollbackTransaction() override;

  // Another store object over this object's connection, with its own default access group (none
  // when absent). Its writes join this object's transactions, so that items written through both
  // (the key store's sealed keys and the records that name them) land in one commit. The two
  // objects together serve one thread at a time, as one object does.
  std::unique_ptr<SqliteItemStore> shareConnection(std::optional<std::string> defaultAccessGroup);

  // How many times the process has synced a store file to the disk (the database or its -wal,
  // through any SqliteItemStore): one per durable commit with Synchronous::full, more when a
  // checkpoint runs.
  static uint64_t syncCount();

  // Adds every item in one transaction: all of them or, on the first failure, none.
  StoreStatus addAll(std::span<const std::pair<ItemAttributes, SecretBytes>> items);

  // True when SQLite's integrity check of the whole file answers "ok".
  [[nodiscard]] bool checkIntegrity();

  // The statements behind the query operations, for EXPLAIN QUERY PLAN.
  enum class Operation { findFirst, listServices, listAccounts, update, remove, findAttributes };
  // The detail lines of SQLite's query plan for `operation` on a query with the attributes that
  // `query` has (their values do not matter).
  std::vector<std::string> queryPlan(Operation operation, const ItemQuery& query);

  const std::filesystem::path& path() const;

 private:
  struct Impl;
  SqliteItemStore(std::shared_ptr<Impl> impl, std::optional<std::string> defaultAccessGroup);
  std::shared_ptr<Impl> impl_;
  std::optional<std::string> defaultAccessGroup_;
};

}  // namespace corvane::linux_platform
