#include "client/wb_bundle.h"

#include <array>
#include <utility>

#include "corvane/secret_bytes.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

namespace {

// {"permutations": 16 identities}, to tell a bad data1 from a bad data2 when the pair fails.
const nlohmann::json& identityPermutations() {
  static const nlohmann::json value = [] {
    nlohmann::json rows = nlohmann::json::array();
    for (size_t position = 0; position < 16; ++position) {
      nlohmann::json row = nlohmann::json::array();
      for (unsigned byte = 0; byte < 256; ++byte) row.push_back(byte);
      rows.push_back(std::move(row));
    }
    return nlohmann::json{{"permutations", std::move(rows)}};
  }();
  return value;
}

}  // namespace

std::optional<nlohmann::json> decodeBundleField(std::string_view text, BundleFieldFault* fault,
                                                Error* jsonError) {
  const auto fail = [fault](BundleFieldFault why) {
    if (fault != nullptr) *fault = why;
    return std::nullopt;
  };
  if (!Utils::isBase64urlString(text)) return fail(BundleFieldFault::decompress);
  std::optional<Bytes> compressed = Utils::decodeBase64Url(text);
  if (!compressed) return fail(BundleFieldFault::decompress);
  std::optional<Bytes> inflated = Utils::uncompressGZip(*compressed);
  internal::secureWipe(compressed->data(), compressed->size());
  if (!inflated) return fail(BundleFieldFault::decompress);
  std::optional<nlohmann::json> parsed = jsonmodel::parseJson(asText(*inflated), jsonError);
  internal::secureWipe(inflated->data(), inflated->size());
  if (!parsed) return fail(BundleFieldFault::json);
  return parsed;
}

std::string missingTableArrays(const nlohmann::json& data1) {
  std::string missing;
  for (const char* name : {"Tyboxes", "TboxesLast", "MBL"}) {
    const auto found = data1.is_object() ? data1.find(name) : data1.end();
    if (!data1.is_object() || found == data1.end() || !found->is_array()) {
      missing += name;
      missing += ' ';
    }
  }
  return missing;
}

bool hasPermutations(const nlohmann::json& data2) {
  if (!data2.is_object()) return false;
  const auto found = data2.find("permutations");
  return found != data2.end() && found->is_array();
}

std::optional<whitebox::WhiteboxUserTables> userTablesFrom(const nlohmann::json& data1,
                                                           const nlohmann::json& data2,
                                                           UserTablesFault* fault) {
  std::optional<whitebox::WhiteboxUserTables> tables =
      whitebox::WhiteboxUserTables::fromJson(data1, data2);
  if (tables) return tables;
  const bool tablesUsable =
      whitebox::WhiteboxUserTables::fromJson(data1, identityPermutations()).has_value();
  if (fault != nullptr) {
    *fault = tablesUsable ? UserTablesFault::permutations : UserTablesFault::tables;
  }
  return std::nullopt;
}

}  // namespace corvane
