// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "Wirl/value/detail/Ip6AddrAndLen.h"
#include "Wirl/value/detail/Ip6TextForms.h"

namespace Wirl {

/// An interface's IPv6 address with its mask length. Keeps host bits. Default ::/0.
class KIV_API Ip6AddrWithMask : public detail::Ip6AddrAndLen<Ip6AddrWithMask> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Ip6AddrWithMask: unexpected trailing characters";

  constexpr Ip6AddrWithMask() noexcept = default;
  constexpr Ip6AddrWithMask(const Ip6Addr& address, Kiv::U32 len) noexcept : Ip6AddrAndLen(address, len) {}
  /// From text as 2001:db8::1/64; throws `Kiv::RangeException`.
  constexpr explicit Ip6AddrWithMask(std::string_view text) { stringValueIs(text); }
  explicit Ip6AddrWithMask(std::nullptr_t) = delete;

  /// The network that the address is in. A length above 128 ends the process.
  constexpr Ip6Prefix subnet() const noexcept {
    return Ip6Prefix(address_.ip6AddrMaskedByLength(len_), len_);
  }

  /// An address, a slash, the length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6AddrWithMask& out) noexcept {
    return detail::takeIp6AddrAndLen(text, out.address_, out.len_);
  }
};

/// An IPv6 address with a mask of any bit pattern. Default ::/0.
class KIV_API Ip6AddrWithFullMask : public detail::Ip6TextForms<Ip6AddrWithFullMask> {
 public:
  static constexpr unsigned kTextMax = 2 * Ip6Addr::kTextMax + 1;
  static constexpr Kiv::ParseError kTrailingText = "Ip6AddrWithFullMask: unexpected trailing characters";

  constexpr Ip6AddrWithFullMask() noexcept = default;
  constexpr Ip6AddrWithFullMask(const Ip6Addr& address, const Ip6Addr& mask) noexcept
      : address_(address), mask_(mask) {}
  /// The mask of a length. One above 128 ends the process.
  constexpr Ip6AddrWithFullMask(const Ip6Addr& address, Kiv::U64 len) noexcept
      : address_(address), mask_(Ip6Addr::maskOfLength(len)) {}
  /// From any text form that `parse` reads; throws `Kiv::RangeException`.
  constexpr explicit Ip6AddrWithFullMask(std::string_view text) { stringValueIs(text); }
  explicit Ip6AddrWithFullMask(std::nullptr_t) = delete;

  constexpr const Ip6Addr& address() const noexcept { return address_; }
  constexpr const Ip6Addr& mask() const noexcept { return mask_; }
  /// The length of a mask of leading ones only, else `Ip6PrefixLen::invalid`.
  constexpr Ip6PrefixLen prefixLen() const {
    const unsigned ones = mask_.longestCommonPrefix(~Ip6Addr());
    return mask_ == Ip6Addr::maskOfLength(ones) ? ones : unsigned{Ip6PrefixLen::invalid};
  }
  constexpr bool hasPrefixRepr() const { return prefixLen() != Ip6PrefixLen::invalid; }

  /// An address, a slash, and the mask as an address or as a length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6AddrWithFullMask& out) noexcept {
    std::string_view rest = text;
    Ip6Addr address;
    Ip6Addr mask;
    Kiv::U64 len = 0;
    if (const Kiv::ParseError error = Ip6Addr::parse(rest, address)) return error;
    if (!Kiv::takeLiteral(rest, "/")) return "Ip6AddrWithFullMask: mask expected";
    // An address never consists of decimal digits alone, so a length cannot be mistaken for one.
    if (detail::takeIp6MaskLength(rest, len)) {
      mask = Ip6Addr::maskOfLength(static_cast<unsigned>(len));
    } else if (const Kiv::ParseError error = Ip6Addr::parse(rest, mask)) {
      return error;
    }
    out = Ip6AddrWithFullMask(address, mask);
    text = rest;
    return nullptr;
  }
  /// With a length where `hasPrefixRepr()`, else with the mask as an address.
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(address_.hash()).add(mask_.hash()).value();
  }
  friend constexpr auto operator<=>(const Ip6AddrWithFullMask&,
                                    const Ip6AddrWithFullMask&) noexcept = default;

 private:
  Ip6Addr address_;
  Ip6Addr mask_;
};

static_assert(std::is_trivially_copyable_v<Ip6AddrWithMask> && sizeof(Ip6AddrWithMask) == 20);
static_assert(std::is_trivially_copyable_v<Ip6AddrWithFullMask> && sizeof(Ip6AddrWithFullMask) == 32);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6AddrWithFullMask& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AddrWithFullMask& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Ip6AddrWithMask> {
  std::size_t operator()(const Wirl::Ip6AddrWithMask& value) const noexcept {
    const Wirl::U128 number = value.address().number();
    return Wirl::detail::stdHash(number.high(), number.low() + (Kiv::U64{value.len()} << 32));
  }
};
template <>
struct std::hash<Wirl::Ip6AddrWithFullMask> {
  std::size_t operator()(const Wirl::Ip6AddrWithFullMask& value) const noexcept { return value.hash(); }
};
