// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/detail/Ip6AddrAndLen.h"
#include "Wirl/value/detail/Reckoning.h"

namespace Wirl {

/// IPv6 prefix: an address and a length. Neither the constructors nor the parser check for host bits; only
/// the parser refuses lengths above 128. Ask `validAsPrefix()`. Default ::/0.
class KIV_API Ip6Prefix : public detail::Ip6AddrAndLen<Ip6Prefix>,
                          public detail::PrefixReckoning<Ip6Prefix, Ip6Addr> {
 public:
  /// The length of the null prefix. Text never gives it, though it prints as a number.
  static constexpr Kiv::U32 kNullLen = 0xffff'ffff;
  static constexpr Kiv::ParseError kTrailingText = "Ip6Prefix: unexpected trailing characters";

  constexpr Ip6Prefix() noexcept = default;
  constexpr Ip6Prefix(const Ip6Addr& address, Kiv::U32 len) noexcept : Ip6AddrAndLen(address, len) {}
  /// From text as 2001:db8::/32; throws `Kiv::RangeException`.
  constexpr explicit Ip6Prefix(std::string_view text) { stringValueIs(text); }
  explicit Ip6Prefix(std::nullptr_t) = delete;

  constexpr Ip6Addr baseAddress() const noexcept { return address_; }
  using detail::Ip6AddrAndLen<Ip6Prefix>::contains;
  using detail::PrefixReckoning<Ip6Prefix, Ip6Addr>::contains;

  /// Whether it is the null prefix, which is none.
  constexpr bool isNullPrefix() const noexcept { return len_ == kNullLen; }
  /// ::/0.
  constexpr bool isDefaultRoutePrefix() const noexcept { return len_ == 0 && address_.isZero(); }
  /// Whether its length is 128.
  constexpr bool isHostRoutePrefix() const noexcept { return len_ == 128; }

  /// The address of a host in this prefix. A bit of `host` within the length throws `Kiv::RangeException`;
  /// with a length of 0 or above 128 any host is accepted.
  constexpr Ip6Addr subnetHost(const Ip6Addr& host) const {
    if (len_ <= 128 && !host.ip6AddrMaskedByLength(len_).isZero()) [[unlikely]]
      detail::throwRange("Host address is too long");
    return address_ | host;
  }

  /// An address, a slash, the length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6Prefix& out) noexcept {
    return detail::takeIp6AddrAndLen(text, out.address_, out.len_);
  }
};

static_assert(std::is_trivially_copyable_v<Ip6Prefix> && sizeof(Ip6Prefix) == 20);

inline constexpr Ip6Prefix ip6LinkLocalPrefix(Ip6Addr(0xfe80'0000'0000'0000, 0), 10);   ///< fe80::/10
inline constexpr Ip6Prefix ip6SiteLocalPrefix(Ip6Addr(0xfec0'0000'0000'0000, 0), 10);   ///< fec0::/10
inline constexpr Ip6Prefix ip6UniqueLocalPrefix(Ip6Addr(0xfc00'0000'0000'0000, 0), 7);  ///< fc00::/7

}  // namespace Wirl

template <>
struct std::hash<Wirl::Ip6Prefix> {
  std::size_t operator()(const Wirl::Ip6Prefix& value) const noexcept {
    const Wirl::U128 number = value.address().number();
    return Wirl::detail::stdHash(number.high(), number.low() + (Kiv::U64{value.len()} << 32));
  }
};
