// A JSON number kept as the parser produced it (signed, unsigned or floating point), so that it
// serialises back the way it came in and compares by numeric value.
#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include <nlohmann/json.hpp>

namespace corvane {

class JsonNumber {
 public:
  using Value = std::variant<int64_t, uint64_t, double>;

  JsonNumber() : value_(int64_t{0}) {}
  explicit JsonNumber(int64_t value) : value_(value) {}
  explicit JsonNumber(uint64_t value) : value_(value) {}
  explicit JsonNumber(double value) : value_(value) {}

  // Absent unless `json` is a number.
  [[nodiscard]] static std::optional<JsonNumber> fromJson(const nlohmann::json& json);
  nlohmann::json toJson() const;

  // Numeric equality: 1, 1u and 1.0 are all equal to the integer 1.
  bool equals(int64_t other) const;
  // Numeric equality across the three representations.
  bool operator==(const JsonNumber& other) const;

  const Value& value() const { return value_; }

 private:
  Value value_;
};

}  // namespace corvane
