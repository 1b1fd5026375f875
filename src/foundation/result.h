// Result<T>: the outcome of an operation that can fail: a value, or the Error that says why there
// is none. A result that is dropped is a failure nobody heard of, so the type is [[nodiscard]].
//
// Reads of a store use Result<std::optional<T>>: an Error when the store failed, an empty optional
// when the store answered that there is no such thing. The two must never be confused: "could not
// read" reported as "absent" turns a disk error into "not enrolled".
#pragma once

#include <utility>
#include <variant>

#include "corvane/error.h"

namespace corvane {

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // The value; only when ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  // The value, or `fallback` on a failure.
  T value_or(T fallback) const& { return ok() ? value() : std::move(fallback); }

  // The failure; only when !ok().
  const Error& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

// An operation that gives nothing back but can fail.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)), failed_(true) {}

  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  // The failure; only when !ok().
  const Error& error() const { return error_; }

 private:
  Error error_;
  bool failed_ = false;
};

}  // namespace corvane
