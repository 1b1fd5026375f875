#include "json/json_number.h"

#include <cmath>

namespace corvane {

namespace {

// 2^63 and 2^64 as doubles; every double below them converts to the integer type exactly.
constexpr double kTwoPow63 = 9223372036854775808.0;
constexpr double kTwoPow64 = 18446744073709551616.0;

bool sameValue(double d, int64_t i) {
  if (!(d >= -kTwoPow63 && d < kTwoPow63) || std::trunc(d) != d) return false;
  return static_cast<int64_t>(d) == i;
}

bool sameValue(double d, uint64_t u) {
  if (!(d >= 0 && d < kTwoPow64) || std::trunc(d) != d) return false;
  return static_cast<uint64_t>(d) == u;
}

bool sameValue(int64_t i, uint64_t u) {
  return i >= 0 && static_cast<uint64_t>(i) == u;
}

}  // namespace

std::optional<JsonNumber> JsonNumber::fromJson(const nlohmann::json& json) {
  if (json.is_number_unsigned()) return JsonNumber(*json.get_ptr<const uint64_t*>());
  if (json.is_number_integer()) return JsonNumber(*json.get_ptr<const int64_t*>());
  if (json.is_number_float()) return JsonNumber(*json.get_ptr<const double*>());
  return std::nullopt;
}

nlohmann::json JsonNumber::toJson() const {
  return std::visit([](auto v) { return nlohmann::json(v); }, value_);
}

bool JsonNumber::equals(int64_t other) const {
  return *this == JsonNumber(other);
}

bool JsonNumber::operator==(const JsonNumber& other) const {
  return std::visit(
      [](auto a, auto b) {
        using A = decltype(a);
        using B = decltype(b);
        if constexpr (std::is_same_v<A, B>) {
          return a == b;
        } else if constexpr (std::is_same_v<A, double>) {
          return sameValue(a, b);
        } else if constexpr (std::is_same_v<B, double>) {
          return sameValue(b, a);
        } else if constexpr (std::is_same_v<A, int64_t>) {
          return sameValue(a, b);
        } else {
          return sameValue(b, a);
        }
      },
      value_, other.value_);
}

}  // namespace corvane
