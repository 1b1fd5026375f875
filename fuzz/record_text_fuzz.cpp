// Feeds arbitrary bytes as the text of a record-database record: a user name, the stored
// "wbTable" and "permutations" values (split at the first two NULs). The record goes into a real
// store and must come back byte for byte, under the user's hash, replacing the user's earlier
// record; then its values go through the decoding the authentication runs on a stored record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "client/wb_bundle.h"
#include "corvane/secret_bytes.h"
#include "foundation/utils.h"
#include "storage/core_data_manager.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

corvane::CoreDataManager& store() {
  static corvane::CoreDataManager* manager = [] {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "corvane-record-fuzz-XXXXXX").string();
    check(mkdtemp(pattern.data()) != nullptr);
    return new corvane::CoreDataManager(pattern);
  }();
  return *manager;
}

std::string_view piece(std::string_view& rest) {
  const size_t end = rest.find('\0');
  const std::string_view head = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return head;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const std::string_view username = piece(rest);
  const std::string_view wbTable = piece(rest);
  const std::string_view permutations = rest;

  corvane::WBTable record;
  record.username = std::string(username);
  record.wbTable = corvane::SecretBytes::fromText(wbTable);
  record.permutations = corvane::SecretBytes::fromText(permutations);
  corvane::CoreDataManager& records = store();
  check(records.insertRecordWithRecordValues(record, "WBTable"));
  auto fetched =
      records.fetchRecordsFromTable("WBTable", corvane::RecordPredicate::usernameEquals(username));
  check(fetched.ok() && fetched->size() == 1);
  const corvane::WBTable& back = fetched->front();
  check(back.username == corvane::Utils::sha256(username));
  check(back.wbTable && back.wbTable->exposeSecretText() == wbTable);
  check(back.permutations && back.permutations->exposeSecretText() == permutations);

  std::optional<nlohmann::json> data1 =
      corvane::decodeBundleField(back.wbTable->exposeSecretText(), nullptr, nullptr);
  std::optional<nlohmann::json> data2 =
      corvane::decodeBundleField(back.permutations->exposeSecretText(), nullptr, nullptr);
  if (data1 && data2) {
    corvane::UserTablesFault fault{};
    static_cast<void>(corvane::userTablesFrom(*data1, *data2, &fault));
  }
  // Keep the store small: the record goes again.
  check(records.deleteRecord("WBTable", corvane::RecordPredicate::usernameEquals(username)));
  return 0;
}
