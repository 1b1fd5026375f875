// CoreDataManager: the record database, a small table-and-record store in one SQLite file,
// "<data directory>/Database/Model.sqlite". It keeps the per-user white-box tables that the data
// sync stores and that authentication reads back.
//
// The store is opened on first use and reopened after any failure, so a store that could not be
// opened (missing permissions, a corrupt or foreign file, a directory in its place) makes the
// operation fail and is retried on the next call; the file is never repaired, moved or deleted,
// and the process is never ended. Not thread-safe: one thread at a time per object.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "foundation/result.h"
#include "storage/wb_table.h"

namespace corvane {

class CoreDataManager {
 public:
  static constexpr std::string_view kDirectoryName = "Database";
  static constexpr std::string_view kStoreFileName = "Model.sqlite";
  // How long an operation waits for another connection's lock before it fails.
  static constexpr std::chrono::milliseconds kDefaultBusyTimeout{2000};

  explicit CoreDataManager(std::filesystem::path dataDirectory,
                           std::chrono::milliseconds busyTimeout = kDefaultBusyTimeout);
  ~CoreDataManager();
  CoreDataManager(CoreDataManager&&) noexcept;
  CoreDataManager& operator=(CoreDataManager&&) noexcept;
  CoreDataManager(const CoreDataManager&) = delete;
  CoreDataManager& operator=(const CoreDataManager&) = delete;

  // The folder that holds the store file ("<data directory>/Database").
  const std::filesystem::path& sharedDocumentsPath() const;
  // The store file itself.
  std::filesystem::path storePath() const;

  // The failure of a store that could not be opened, read or written: code 10000 (UNKNOWN).
  static Error storeFailure();

  // True when no change is pending (the store is not touched, not even opened). Otherwise writes
  // every pending change in one transaction and returns whether it committed; the changes are
  // dropped either way, so a failed write is never retried behind the caller's back.
  [[nodiscard]] bool save();

  // Replaces the records of values.username (absent: the records without a user name) with one
  // record holding the values, atomically: the store never holds zero or two records for the user
  // in between. False for a table other than "WBTable" or when the store fails.
  [[nodiscard]] bool insertRecordWithRecordValues(const WBTable& values, std::string_view table);

  // Deletes every record of the table that the predicate matches (none matching is a success).
  [[nodiscard]] bool deleteRecord(std::string_view table, const RecordPredicate& predicate);

  // Sets every attribute present in the values on a record read from the store, in the store and
  // on `record`. False when the record has no identity, no longer exists, or the new user name is
  // taken by another record. The table name is not used.
  [[nodiscard]] bool updateRecord(WBTable& record, const WBTable& values, std::string_view table);

  // The records the predicate matches, in insertion order; empty when none. An error when the
  // table is unknown or the store cannot be read.
  Result<std::vector<WBTable>> fetchRecordsFromTable(std::string_view table,
                                                     const RecordPredicate& predicate);

  // The last element of fetchRecordsFromTable's array, which is the newest matching record (the
  // established behaviour despite the name); empty when nothing matches, an error when the fetch
  // fails.
  Result<std::optional<WBTable>> fetchFirstRecordFromTable(std::string_view table,
                                                           const RecordPredicate& predicate);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane
