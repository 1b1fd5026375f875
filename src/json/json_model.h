// Generic mapping between JSON objects and message classes. Each class lists its properties once,
// in a table: property name, JSON key (a key mapper when the two differ), value type (taken from
// the member's type), required or optional, and what happens to a value of the wrong JSON type.
// Reading, writing and the completeness check are all driven by that table; no class has
// hand-written parsing code.
//
// Every member is a std::optional: a property may be absent after mapping (optional, null, or a
// mistyped value that the table coerces to absent), and absent values are left out on output.
//
// Value types, by member type:
//   std::string              JSON string
//   int64_t                  JSON number with an integral value in the signed 64-bit range
//   uint64_t                 JSON number with an integral value in the unsigned 64-bit range
//   uint16_t                 JSON number with an integral value in 0..65535
//   bool                     JSON true or false
//   JsonNumber               any JSON number, kept as written
//   nlohmann::json           any JSON value, kept raw
//   std::vector<T>           JSON array whose every element is a T
//   a mapped class           JSON object mapped by that class's own table
//
// Rules when reading an object, per property:
//   key missing             required: error kRequiredKeyMissing; optional: absent
//   value null              absent, except for a required property that rejects mistyped values:
//                           error kInvalidValue
//   value of the wrong type Coerce: absent; Reject: error kInvalidValue
//   nested object or array  its own failure is the failure of the whole mapping
// Keys the table does not name are ignored. Nothing here throws.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/error.h"
#include "corvane/status_codes.h"
#include "json/json_number.h"
#include "json/json_text.h"

namespace corvane::jsonmodel {

// Codes of "JSONModelErrorDomain".
enum class JSONModelErrorCode : int64_t {
  kInvalidValue = 1,  // a value of the wrong JSON type or out of range, or null where required
  kRequiredKeyMissing = 2,  // a required key is not in the object
  kBadJSON = 3,             // the text is not JSON, or is nested too deeply
  kNotAnObject = 4,         // the value to map is not a JSON object
};

enum class Presence { kRequired, kOptional };
// What a value of the wrong JSON type (null included) becomes.
enum class Mistyped { kReject, kCoerce };

enum class ReadStatus { kOk, kMistyped, kFailed };

// Where and why reading failed; turned into an Error's description at the top.
struct Failure {
  enum class Kind { kMissing, kNull, kWrongType };
  Kind kind = Kind::kWrongType;
  std::string path;           // e.g. header.exts[0].fail_if_unknown
  std::string_view expected;  // e.g. "a boolean"
  std::string_view actual;    // the JSON type name found
};

// Prepends an object key or an array index to a failure's path.
// Puts `prefix` (a key or "[i]") in front of a key path such as "exts[0].id".
void prefixPath(std::string& path, std::string prefix);
void prefixKey(Failure& failure, std::string_view key);
void prefixIndex(Failure& failure, size_t index);

Error mappingError(std::string_view model, const Failure& failure);
Error notAnObjectError(std::string_view model, std::string_view actualType);

template <class Model>
struct Property {
  std::string_view name;  // C++ property name
  std::string_view key;   // JSON key
  Presence presence;
  Mistyped mistyped;
  std::string_view expected;
  ReadStatus (*read)(Model& model, const nlohmann::json& value, Failure& failure, bool lenient);
  void (*write)(const Model& model, nlohmann::json& object, std::string_view key);
  // True when this property is required and absent (path left empty), or when a required
  // property inside its value is absent (path set to the inner path).
  bool (*findMissing)(const Model& model, bool required, std::string& path);

  // Key mapper: the JSON key differs from the property name.
  constexpr Property mappedTo(std::string_view jsonKey) const {
    Property copy = *this;
    copy.key = jsonKey;
    return copy;
  }
};

// A class is mapped when it names itself and lists its properties.
template <class T>
concept MappedModel = requires {
  { T::kModelName } -> std::convertible_to<std::string_view>;
  { T::properties() } -> std::convertible_to<std::span<const Property<T>>>;
};

// ----- value codecs -----

template <class T>
struct Codec;

ReadStatus readSigned(const nlohmann::json& value, int64_t& out);
ReadStatus readUnsigned(const nlohmann::json& value, uint64_t& out, uint64_t max);

template <>
struct Codec<std::string> {
  static constexpr std::string_view kExpected = "a string";
  static ReadStatus read(const nlohmann::json& value, std::string& out, Failure&, bool) {
    if (!value.is_string()) return ReadStatus::kMistyped;
    out = *value.get_ptr<const std::string*>();
    return ReadStatus::kOk;
  }
  static nlohmann::json write(const std::string& value) { return value; }
  static bool findMissing(const std::string&, std::string&) { return false; }
};

template <>
struct Codec<bool> {
  static constexpr std::string_view kExpected = "a boolean";
  static ReadStatus read(const nlohmann::json& value, bool& out, Failure&, bool) {
    if (!value.is_boolean()) return ReadStatus::kMistyped;
    out = *value.get_ptr<const bool*>();
    return ReadStatus::kOk;
  }
  static nlohmann::json write(bool value) { return value; }
  static bool findMissing(bool, std::string&) { return false; }
};

template <>
struct Codec<int64_t> {
  static constexpr std::string_view kExpected = "a signed 64-bit integer";
  static ReadStatus read(const nlohmann::json& value, int64_t& out, Failure&, bool) {
    return readSigned(value, out);
  }
  static nlohmann::json write(int64_t value) { return value; }
  static bool findMissing(int64_t, std::string&) { return false; }
};

template <>
struct Codec<uint64_t> {
  static constexpr std::string_view kExpected = "an unsigned 64-bit integer";
  static ReadStatus read(const nlohmann::json& value, uint64_t& out, Failure&, bool) {
    return readUnsigned(value, out, UINT64_MAX);
  }
  static nlohmann::json write(uint64_t value) { return value; }
  static bool findMissing(uint64_t, std::string&) { return false; }
};

template <>
struct Codec<uint16_t> {
  static constexpr std::string_view kExpected = "an unsigned 16-bit integer";
  static ReadStatus read(const nlohmann::json& value, uint16_t& out, Failure&, bool) {
    uint64_t wide = 0;
    ReadStatus status = readUnsigned(value, wide, UINT16_MAX);
    if (status == ReadStatus::kOk) out = static_cast<uint16_t>(wide);
    return status;
  }
  static nlohmann::json write(uint16_t value) { return value; }
  static bool findMissing(uint16_t, std::string&) { return false; }
};

template <>
struct Codec<JsonNumber> {
  static constexpr std::string_view kExpected = "a number";
  static ReadStatus read(const nlohmann::json& value, JsonNumber& out, Failure&, bool) {
    std::optional<JsonNumber> number = JsonNumber::fromJson(value);
    if (!number) return ReadStatus::kMistyped;
    out = *number;
    return ReadStatus::kOk;
  }
  static nlohmann::json write(const JsonNumber& value) { return value.toJson(); }
  static bool findMissing(const JsonNumber&, std::string&) { return false; }
};

// Raw JSON: any value is accepted and kept as it is.
template <>
struct Codec<nlohmann::json> {
  static constexpr std::string_view kExpected = "a JSON value";
  static ReadStatus read(const nlohmann::json& value, nlohmann::json& out, Failure&, bool) {
    out = value;
    return ReadStatus::kOk;
  }
  static nlohmann::json write(const nlohmann::json& value) { return value; }
  static bool findMissing(const nlohmann::json&, std::string&) { return false; }
};

template <class T>
struct Codec<std::vector<T>> {
  static constexpr std::string_view kExpected = "an array";
  static ReadStatus read(const nlohmann::json& value, std::vector<T>& out, Failure& failure,
                         bool lenient) {
    if (!value.is_array()) return ReadStatus::kMistyped;
    out.clear();
    out.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
      const nlohmann::json& element = value[i];
      T item{};
      ReadStatus status = Codec<T>::read(element, item, failure, lenient);
      if (status == ReadStatus::kMistyped) {
        failure = Failure{Failure::Kind::kWrongType, "", Codec<T>::kExpected, element.type_name()};
        status = ReadStatus::kFailed;
      }
      if (status == ReadStatus::kFailed) {
        if (lenient) continue;
        prefixIndex(failure, i);
        return status;
      }
      out.push_back(std::move(item));
    }
    return ReadStatus::kOk;
  }
  static nlohmann::json write(const std::vector<T>& values) {
    nlohmann::json array = nlohmann::json::array();
    for (const T& item : values) array.push_back(Codec<T>::write(item));
    return array;
  }
  static bool findMissing(const std::vector<T>& values, std::string& path) {
    for (size_t i = 0; i < values.size(); ++i) {
      std::string inner;
      if (Codec<T>::findMissing(values[i], inner)) {
        path = std::move(inner);
        std::string index(1, '[');
        index.append(std::to_string(i)).push_back(']');
        prefixPath(path, std::move(index));
        return true;
      }
    }
    return false;
  }
};

template <MappedModel Model>
ReadStatus readObject(const nlohmann::json& object, Model& out, Failure& failure, bool lenient);
template <MappedModel Model>
nlohmann::json writeObject(const Model& model);
template <MappedModel Model>
bool findMissingInObject(const Model& model, std::string& path);

template <MappedModel T>
struct Codec<T> {
  static constexpr std::string_view kExpected = "an object";
  static ReadStatus read(const nlohmann::json& value, T& out, Failure& failure, bool lenient) {
    if (!value.is_object()) return ReadStatus::kMistyped;
    return readObject(value, out, failure, lenient);
  }
  static nlohmann::json write(const T& value) { return writeObject(value); }
  static bool findMissing(const T& value, std::string& path) {
    return findMissingInObject(value, path);
  }
};

// ----- property table entries -----

template <class>
struct MemberTraits;
template <class C, class T>
struct MemberTraits<std::optional<T> C::*> {
  using Model = C;
  using Value = T;
};

// One table row for the member `Member` (a std::optional data member). The JSON key is the
// property name unless mappedTo() gives another.
template <auto Member>
constexpr Property<typename MemberTraits<decltype(Member)>::Model> property(
    std::string_view name, Presence presence, Mistyped mistyped = Mistyped::kReject) {
  using Model = typename MemberTraits<decltype(Member)>::Model;
  using Value = typename MemberTraits<decltype(Member)>::Value;
  return Property<Model>{
      name,
      name,
      presence,
      mistyped,
      Codec<Value>::kExpected,
      [](Model& model, const nlohmann::json& json, Failure& failure, bool lenient) {
        Value value{};
        ReadStatus status = Codec<Value>::read(json, value, failure, lenient);
        if (status == ReadStatus::kOk) model.*Member = std::move(value);
        return status;
      },
      [](const Model& model, nlohmann::json& object, std::string_view key) {
        const std::optional<Value>& value = model.*Member;
        if (value) object[std::string(key)] = Codec<Value>::write(*value);
      },
      [](const Model& model, bool required, std::string& path) {
        const std::optional<Value>& value = model.*Member;
        return value ? Codec<Value>::findMissing(*value, path) : required;
      }};
}

// ----- the generic walk over a table -----

template <MappedModel Model>
ReadStatus readObject(const nlohmann::json& object, Model& out, Failure& failure, bool lenient) {
  for (const Property<Model>& p : Model::properties()) {
    auto it = object.find(p.key);
    if (it == object.end()) {
      if (p.presence == Presence::kRequired && !lenient) {
        failure = Failure{Failure::Kind::kMissing, std::string(p.key), p.expected, ""};
        return ReadStatus::kFailed;
      }
      continue;
    }
    if (it->is_null()) {
      if (p.presence == Presence::kRequired && p.mistyped == Mistyped::kReject && !lenient) {
        failure = Failure{Failure::Kind::kNull, std::string(p.key), p.expected, "null"};
        return ReadStatus::kFailed;
      }
      continue;
    }
    ReadStatus status = p.read(out, *it, failure, lenient);
    if (status == ReadStatus::kOk || lenient) continue;
    if (status == ReadStatus::kMistyped) {
      if (p.mistyped == Mistyped::kCoerce) continue;
      failure = Failure{Failure::Kind::kWrongType, std::string(p.key), p.expected, it->type_name()};
      return ReadStatus::kFailed;
    }
    prefixKey(failure, p.key);
    return ReadStatus::kFailed;
  }
  return ReadStatus::kOk;
}

template <MappedModel Model>
nlohmann::json writeObject(const Model& model) {
  nlohmann::json object = nlohmann::json::object();
  for (const Property<Model>& p : Model::properties()) p.write(model, object, p.key);
  return object;
}

template <MappedModel Model>
bool findMissingInObject(const Model& model, std::string& path) {
  for (const Property<Model>& p : Model::properties()) {
    std::string inner;
    if (p.findMissing(model, p.presence == Presence::kRequired, inner)) {
      path = std::string(p.key) + (inner.empty() || inner[0] == '[' ? "" : ".") + inner;
      return true;
    }
  }
  return false;
}

// ----- public entry points -----

// Maps a JSON object onto `Model`; absent with a "JSONModelErrorDomain" error when the value is
// not an object, a required key is missing, or a value is of the wrong type where the table does
// not coerce it. Never returns a partly filled object.
template <MappedModel Model>
[[nodiscard]] std::optional<Model> fromJson(const nlohmann::json& json, Error* error) {
  if (!json.is_object()) {
    setError(error, notAnObjectError(Model::kModelName, json.type_name()));
    return std::nullopt;
  }
  Model model{};
  Failure failure;
  if (readObject(json, model, failure, false) != ReadStatus::kOk) {
    setError(error, mappingError(Model::kModelName, failure));
    return std::nullopt;
  }
  return model;
}

// Sets every property the dictionary names, skipping values that do not fit and ignoring
// required-ness; a value that is not an object gives an empty model.
template <MappedModel Model>
Model assignFrom(const nlohmann::json& json) {
  Model model{};
  Failure ignored;
  if (json.is_object()) readObject(json, model, ignored, true);
  return model;
}

// The JSON object of a model; absent properties are left out.
template <MappedModel Model>
nlohmann::json toJson(const Model& model) {
  return writeObject(model);
}

// The path of the first required property that is absent (for example "header.upv"), or absent
// when the model is complete. A complete model maps back from its own JSON unchanged.
template <MappedModel Model>
[[nodiscard]] std::optional<std::string> missingRequiredProperty(const Model& model) {
  std::string path;
  if (findMissingInObject(model, path)) return path;
  return std::nullopt;
}

// Parses the text (parseJson) and maps it; any failure is a "JSONModelErrorDomain" error.
template <MappedModel Model>
[[nodiscard]] std::optional<Model> fromJsonText(std::string_view text, Error* error) {
  std::optional<nlohmann::json> json = parseJson(text, error);
  if (!json) return std::nullopt;
  return fromJson<Model>(*json, error);
}

// Compact JSON text of a model.
template <MappedModel Model>
std::string toJsonText(const Model& model) {
  return dumpJson(writeObject(model));
}

}  // namespace corvane::jsonmodel
