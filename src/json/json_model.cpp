#include "json/json_model.h"

#include <cmath>

namespace corvane::jsonmodel {

namespace {

constexpr double kTwoPow63 = 9223372036854775808.0;
constexpr double kTwoPow64 = 18446744073709551616.0;

Error modelError(JSONModelErrorCode code, std::string message) {
  return Error(kJSONModelErrorDomain, static_cast<int64_t>(code), std::move(message));
}

}  // namespace

void prefixPath(std::string& path, std::string prefix) {
  if (!path.empty() && path[0] != '[') prefix.push_back('.');
  prefix.append(path);
  path = std::move(prefix);
}

void prefixKey(Failure& failure, std::string_view key) {
  prefixPath(failure.path, std::string(key));
}

void prefixIndex(Failure& failure, size_t index) {
  std::string prefix(1, '[');
  prefix.append(std::to_string(index)).push_back(']');
  prefixPath(failure.path, std::move(prefix));
}

Error mappingError(std::string_view model, const Failure& failure) {
  std::string text(model);
  switch (failure.kind) {
    case Failure::Kind::kMissing:
      text += ": required key \"" + failure.path + "\" is missing.";
      return modelError(JSONModelErrorCode::kRequiredKeyMissing, std::move(text));
    case Failure::Kind::kNull:
      text += ": required key \"" + failure.path + "\" is null.";
      break;
    case Failure::Kind::kWrongType:
      text += ": value of \"" + failure.path + "\" is not valid (expected ";
      text += failure.expected;
      text += ", got ";
      text += failure.actual;
      text += ").";
      break;
  }
  return modelError(JSONModelErrorCode::kInvalidValue, std::move(text));
}

Error notAnObjectError(std::string_view model, std::string_view actualType) {
  std::string text(model);
  text += ": input is not a JSON object (got ";
  text += actualType;
  text += ").";
  return modelError(JSONModelErrorCode::kNotAnObject, std::move(text));
}

ReadStatus readSigned(const nlohmann::json& value, int64_t& out) {
  if (value.is_number_unsigned()) {
    uint64_t u = *value.get_ptr<const uint64_t*>();
    if (u > static_cast<uint64_t>(INT64_MAX)) return ReadStatus::kMistyped;
    out = static_cast<int64_t>(u);
    return ReadStatus::kOk;
  }
  if (value.is_number_integer()) {
    out = *value.get_ptr<const int64_t*>();
    return ReadStatus::kOk;
  }
  if (value.is_number_float()) {
    double d = *value.get_ptr<const double*>();
    if (!(d >= -kTwoPow63 && d < kTwoPow63) || std::trunc(d) != d) return ReadStatus::kMistyped;
    out = static_cast<int64_t>(d);
    return ReadStatus::kOk;
  }
  return ReadStatus::kMistyped;
}

ReadStatus readUnsigned(const nlohmann::json& value, uint64_t& out, uint64_t max) {
  uint64_t result = 0;
  if (value.is_number_unsigned()) {
    result = *value.get_ptr<const uint64_t*>();
  } else if (value.is_number_integer()) {
    int64_t i = *value.get_ptr<const int64_t*>();
    if (i < 0) return ReadStatus::kMistyped;
    result = static_cast<uint64_t>(i);
  } else if (value.is_number_float()) {
    double d = *value.get_ptr<const double*>();
    if (!(d >= 0 && d < kTwoPow64) || std::trunc(d) != d) return ReadStatus::kMistyped;
    result = static_cast<uint64_t>(d);
  } else {
    return ReadStatus::kMistyped;
  }
  if (result > max) return ReadStatus::kMistyped;
  out = result;
  return ReadStatus::kOk;
}

}  // namespace corvane::jsonmodel
