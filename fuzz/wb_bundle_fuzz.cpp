// Feeds arbitrary bytes through the decoding of a per-user table bundle as the data sync and the
// authentication decode it: data1 and data2 (base64url of gzip of JSON), the three table arrays,
// "permutations" and the tables' shapes. The input is split at its first NUL into data1 and data2;
// each half is tried as the text itself, as the base64url of its bytes (so that gzip members in
// the corpus reach the inflater) and as JSON text (so that table shapes are reached cheaply).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "client/wb_bundle.h"
#include "crypto/aes_wb_helper.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace {

using corvane::BundleFieldFault;
using corvane::Error;
using nlohmann::json;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

std::optional<json> decode(std::string_view text) {
  BundleFieldFault fault{};
  Error error;
  std::optional<json> value = corvane::decodeBundleField(text, &fault, &error);
  if (!value && fault == BundleFieldFault::json) {
    check(!error.localizedDescription().empty());
  }
  return value;
}

void tables(const json& data1, const json& data2) {
  const std::string missing = corvane::missingTableArrays(data1);
  check(missing.empty() || missing.back() == ' ');
  corvane::UserTablesFault fault{};
  std::optional<corvane::whitebox::WhiteboxUserTables> set =
      corvane::userTablesFrom(data1, data2, &fault);
  if (!set) return;
  // Usable tables have every array the sync asks for, and encipher any length.
  check(missing.empty() && corvane::hasPermutations(data2));
  const std::string plain = "seventeen bytes!!";
  std::optional<corvane::Bytes> cipher = corvane::AesWBHelper::encryptAesWB(
      corvane::asBytes(plain), corvane::AesWBHelper::generateIV("c"), *set);
  check(cipher.has_value() && cipher->size() == plain.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  const std::string_view first = input.substr(0, split);
  const std::string_view second =
      split == std::string_view::npos ? std::string_view() : input.substr(split + 1);

  for (std::string_view half : {first, second}) {
    static_cast<void>(decode(half));
    static_cast<void>(decode(corvane::Utils::base64URLSafeStringFromData(corvane::asBytes(half))));
  }
  std::optional<json> data1 = corvane::jsonmodel::parseJson(first, nullptr);
  std::optional<json> data2 = corvane::jsonmodel::parseJson(second, nullptr);
  if (data1 && data2) tables(*data1, *data2);
  std::optional<json> packed1 = decode(first);
  std::optional<json> packed2 = decode(second);
  if (packed1 && packed2) tables(*packed1, *packed2);
  return 0;
}
