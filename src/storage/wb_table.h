// The record type of the record database (entity "WBTable": one user's white-box tables), the
// predicate that selects records and the fetch request that pairs both with the entity name.
#pragma once

#include <corvane/secret_bytes.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvane {

inline constexpr std::string_view kWBTableEntityName = "WBTable";

// Which records of a table an operation addresses. A closed set of typed cases, so no caller can
// hand SQL text to the store.
class RecordPredicate {
 public:
  // Every record of the table (a fetch request without a predicate).
  static RecordPredicate all() { return RecordPredicate(true, std::nullopt); }
  // "username = %@": the record of one user. An absent name compares with nil and so matches the
  // records stored without a user name. The name itself is not kept, only its storage key.
  static RecordPredicate usernameEquals(std::optional<std::string_view> username);

  bool matchesAll() const { return all_; }
  // The key the matching records are stored under (SHA-256 hex of the name), absent for nil.
  const std::optional<std::string>& usernameKey() const { return usernameKey_; }

 private:
  RecordPredicate(bool all, std::optional<std::string> key)
      : all_(all), usernameKey_(std::move(key)) {}
  bool all_;
  std::optional<std::string> usernameKey_;
};

struct FetchRequest {
  std::string entityName;
  RecordPredicate predicate = RecordPredicate::all();
};

// One user's white-box material as the server sent it. Used both as the values of an insert or
// update (absent attributes are not set) and as a record read back from the store.
struct WBTable {
  // The user the record belongs to, its key. Callers pass the name; the store keeps only its
  // SHA-256 hex, so on records read back this field holds that hex text, never the name.
  std::optional<std::string> username;
  // The table data and the permutation list, exactly as received (compressed, encoded text). They
  // are key material in obfuscated form, hence SecretBytes: wiped when freed, never printed.
  std::optional<SecretBytes> wbTable;
  std::optional<SecretBytes> permutations;
  // Identity of a record read from the store; absent on values built by a caller.
  std::optional<int64_t> objectID;

  // A fetch request for the entity "WBTable" with no predicate.
  static FetchRequest fetchRequest() { return FetchRequest{std::string(kWBTableEntityName)}; }
};

}  // namespace corvane
