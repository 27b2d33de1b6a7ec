// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/detail/StdHash.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl::detail {

/// Writes a number in decimal, without a NUL; returns its end.
inline char* putDecimal(char* out, Kiv::U32 number) noexcept {
  char digits[10];
  return std::copy(digits, std::to_chars(digits, std::end(digits), number).ptr, out);
}

/// Reads a decimal number. Returns false and consumes nothing if there is none, or one above `max`.
constexpr bool takeNumber(std::string_view& text, Kiv::U64 max, Kiv::U32& out) noexcept {
  Kiv::U64 value = 0;
  std::string_view rest = text;
  if (!Kiv::takeDecimal(rest, max, value) || value > max) return false;
  out = static_cast<Kiv::U32>(value);
  text = rest;
  return true;
}

/// Base of identifiers that are one number from 0 to `kMax`. Default 0; ordered as a number. The derived type
/// has the errors `kTrailingText` for bad texts and `kTooLarge` for larger numbers. Its text is the decimal
/// number, unless it has a `parse` and a `writeText` of its own.
template <typename T, std::unsigned_integral U, U kMax = std::numeric_limits<U>::max()>
class Number : public TextForms<T> {
 public:
  static constexpr U max = kMax;
  static constexpr unsigned kTextMax = std::numeric_limits<U>::digits10 + 1;

  constexpr Number() noexcept = default;
  /// A number that is not from 0 to `max` throws `Kiv::RangeException`.
  template <std::integral N>
  constexpr explicit Number(N value) : value_(static_cast<U>(value)) {
    if (std::cmp_less(value, 0) || std::cmp_greater(value, kMax)) throwRange(T::kTooLarge);
  }
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit Number(std::string_view text) : value_(T::read(text).value()) {}
  explicit Number(std::nullptr_t) = delete;

  constexpr U value() const noexcept { return value_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, T& out) noexcept {
    Kiv::U64 value = 0;
    std::string_view rest = text;
    if (!Kiv::takeDecimal(rest, kMax, value)) return T::kTrailingText;
    if (value > kMax) return T::kTooLarge;
    out.value_ = static_cast<U>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* const end = putDecimal(out, value_);
    *end = '\0';
    return static_cast<unsigned>(end - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(const Number&, const Number&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const T& number) { return log << number.value(); }
  /// A number above `max` throws `Kiv::RangeException`.
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, T& number) {
    U value = 0;
    log >> value;
    number = T(value);
    return log;
  }

 protected:
  U value_ = 0;
};

/// Base of identifiers of `kSize` octets in wire order. The derived type adds the text.
template <typename T, std::size_t kSize>
class Octets : public TextForms<T> {
 public:
  constexpr Octets() noexcept = default;
  constexpr explicit Octets(const std::array<Kiv::U8, kSize>& octets) noexcept : octets_(octets) {}
  /// From text; throws `Kiv::RangeException`.
  constexpr explicit Octets(std::string_view text) : octets_(T::read(text).octets()) {}
  explicit Octets(std::nullptr_t) = delete;

  /// In wire order.
  constexpr const std::array<Kiv::U8, kSize>& octets() const noexcept { return octets_; }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (const Kiv::U8 octet : octets_) hash.add(octet);
    return hash.value();
  }
  friend constexpr auto operator<=>(const Octets&, const Octets&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const T& value) {
    log.octetsIs(value.octets());
    return log;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, T& value) {
    std::array<Kiv::U8, kSize> octets;
    log.octets(octets);
    value = T(octets);
    return log;
  }

 protected:
  std::array<Kiv::U8, kSize> octets_{};
};

}  // namespace Wirl::detail
