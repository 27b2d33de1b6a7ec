// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// Length of an IPv6 prefix, 0 to 128, or `invalid`. Default 0.
class KIV_API Ip6PrefixLen : public detail::TextForms<Ip6PrefixLen> {
 public:
  static constexpr Kiv::U8 min = 0;
  static constexpr Kiv::U8 max = 128;
  /// The marker of no length.
  static constexpr Kiv::U8 invalid = 129;
  static constexpr unsigned kTextMax = 3;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Ip6PrefixLen";
  static constexpr Kiv::ParseError kOutOfRange =
      "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed";

  constexpr Ip6PrefixLen() noexcept = default;
  /// A value outside `min` to `invalid` throws `Kiv::RangeException`.
  template <std::integral T>
  constexpr Ip6PrefixLen(T value) : value_(static_cast<Kiv::U8>(value)) {
    if (std::cmp_less(value, min) || std::cmp_greater(value, invalid)) [[unlikely]]
      detail::throwRange(kOutOfRange);
  }
  /// From its decimal number; throws `Kiv::RangeException`.
  constexpr explicit Ip6PrefixLen(std::string_view text) { stringValueIs(text); }
  explicit Ip6PrefixLen(std::nullptr_t) = delete;

  constexpr Kiv::U8 value() const noexcept { return value_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6PrefixLen& out) noexcept {
    std::string_view rest = text;
    Kiv::U64 value = 0;
    if (!Kiv::takeDecimal(rest, invalid, value)) return kTrailingText;
    if (value > invalid) return kOutOfRange;
    out.value_ = static_cast<Kiv::U8>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(Ip6PrefixLen, Ip6PrefixLen) noexcept = default;

 private:
  Kiv::U8 value_ = min;
};

static_assert(std::is_trivially_copyable_v<Ip6PrefixLen> && sizeof(Ip6PrefixLen) == 1);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Ip6PrefixLen value);
/// An octet above `Ip6PrefixLen::invalid` throws `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6PrefixLen& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Ip6PrefixLen> {
  std::size_t operator()(Wirl::Ip6PrefixLen value) const noexcept { return value.hash(); }
};
