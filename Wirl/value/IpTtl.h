// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// Time to live of an IPv4 packet (RFC 791), hop limit of an IPv6 one (RFC 8200): 0 to 255. Its text is the
/// number.
class KIV_API IpTtl : public detail::TextForms<IpTtl> {
 public:
  static constexpr unsigned kTextMax = 3;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpTtl";
  static constexpr Kiv::ParseError kTooLarge = "IpTtl::value > 255 not allowed";

  constexpr IpTtl() noexcept = default;
  /// Throws `Kiv::RangeException` for any number but 0 to 255.
  template <std::integral T>
  constexpr IpTtl(T value) : value_(static_cast<Kiv::U8>(value)) {
    if (!std::in_range<Kiv::U8>(value)) detail::throwRange(kTooLarge);
  }
  constexpr explicit IpTtl(std::string_view text) { stringValueIs(text); }
  explicit IpTtl(std::nullptr_t) = delete;

  constexpr Kiv::U8 value() const noexcept { return value_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, IpTtl& out) noexcept {
    Kiv::U64 value = 0;
    std::string_view rest = text;
    if (!Kiv::takeDecimal(rest, 255, value)) return kTrailingText;
    if (value > 255) return kTooLarge;
    out.value_ = static_cast<Kiv::U8>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* const end = std::to_chars(out, out + kTextMax, unsigned{value_}).ptr;
    *end = '\0';
    return static_cast<unsigned>(end - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(const IpTtl&, const IpTtl&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpTtl ttl) { return log << ttl.value_; }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpTtl& ttl) { return log >> ttl.value_; }

 private:
  Kiv::U8 value_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpTtl> && sizeof(IpTtl) == 1);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpTtl> {
  std::size_t operator()(Wirl::IpTtl ttl) const noexcept { return ttl.hash(); }
};
