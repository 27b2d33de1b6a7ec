// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "Kiv/Types.h"

namespace Kiv {

/// A string of any octets, NUL included. It converts implicitly from and to the standard string types, so
/// callers of an interface that uses it need not know it.
class String {
 public:
  /// Contiguous, so that a parser can work on the range [begin, end) as on a `std::string_view`.
  using IteratorConst = const char*;

  String() noexcept = default;
  String(const char* text) : value_(text) {}  ///< A copy of a text that ends with a zero.
  String(std::string_view text) : value_(text) {}
  String(std::string text) noexcept : value_(std::move(text)) {}
  String(const char* data, std::size_t bytes) : value_(data, bytes) {}

  operator std::string() const { return value_; }  ///< A copy.
  /// A view, as long as this text lives and stays.
  operator std::string_view() const noexcept { return value_; }

  /// Length in octets.
  std::size_t bytes() const noexcept { return value_.size(); }
  std::size_t size() const noexcept { return value_.size(); }
  bool empty() const noexcept { return value_.empty(); }
  const char* data() const noexcept { return value_.data(); }
  /// NUL-terminated. For a C function the text ends at its first NUL.
  const char* c_str() const noexcept { return value_.c_str(); }
  char operator[](std::size_t i) const { return value_[i]; }
  IteratorConst begin() const noexcept { return value_.data(); }
  IteratorConst end() const noexcept { return value_.data() + value_.size(); }

  String& operator+=(std::string_view more) {
    value_ += more;
    return *this;
  }

  template <typename T>
  requires std::convertible_to<const T&, std::string_view>
  friend bool operator==(const String& a, const T& b) noexcept {
    return std::string_view(a) == static_cast<std::string_view>(b);
  }
  template <typename T>
  requires std::convertible_to<const T&, std::string_view>
  friend std::strong_ordering operator<=>(const String& a, const T& b) noexcept {
    return std::string_view(a) <=> static_cast<std::string_view>(b);
  }
  friend std::ostream& operator<<(std::ostream& out, const String& text) { return out << text.value_; }

 private:
  std::string value_;
};

inline String operator+(String a, std::string_view b) {
  a += b;
  return a;
}

}  // namespace Kiv

template <>
struct std::hash<Kiv::String> {
  std::size_t operator()(const Kiv::String& text) const noexcept {
    return std::hash<std::string_view>()(std::string_view(text));
  }
};
