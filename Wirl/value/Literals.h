// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "Wirl/value/AsNumber.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6AndPort.h"
#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/RouteDistinguisher.h"

namespace Wirl {

namespace detail {

/// A string literal as the argument of a template.
template <std::size_t kSize>
struct LiteralText {
  constexpr LiteralText(const char (&text)[kSize]) noexcept { std::copy_n(text, kSize, chars); }
  constexpr std::string_view view() const noexcept { return {chars, kSize - 1}; }

  char chars[kSize];
};

template <typename T, LiteralText text>
concept TextOf = T::fromText(text.view())
.has_value();

/// What the text is of: `V4` or `V6`. A text that is neither does not compile.
template <typename V4, typename V6, LiteralText text>
requires(TextOf<V4, text> || TextOf<V6, text>) consteval auto literalOf() {
  if constexpr (TextOf<V4, text>) {
    return V4(text.view());
  } else {
    return V6(text.view());
  }
}

}  // namespace detail

/// Values as literals: `using namespace Wirl::literals;`. The compiler reads the text, by the grammar of the type, and
/// refuses what is none: nothing is left to do, or to fail, at run time. Where both families have a form, the text says
/// which type the literal is of.
///
///     "10.0.0.0/8"_prefix        Prefix             "2001:db8::/32"_prefix       Ip6Prefix
///     "10.0.0.1"_ip              IpAddr             "2001:db8::1"_ip             Ip6Addr
///     "10.0.0.1/24"_ipWithMask   IpAddrWithMask     "2001:db8::1/64"_ipWithMask  Ip6AddrWithMask
///     "10.0.0.1:179"_ipAndPort   IpAndPort          "[2001:db8::1]:179"_ipAndPort  Ip6AndPort
///     "00:00:5e:00:53:01"_mac    EthAddr            "65000:1"_rd                 RouteDistinguisher
///     "65551"_as                 AsNumber
namespace literals {

template <detail::LiteralText text>
consteval auto operator""_ip() requires(detail::TextOf<IpAddr, text> || detail::TextOf<Ip6Addr, text>) {
  return detail::literalOf<IpAddr, Ip6Addr, text>();
}
template <detail::LiteralText text>
consteval auto operator""_prefix() requires(detail::TextOf<Prefix, text> || detail::TextOf<Ip6Prefix, text>) {
  return detail::literalOf<Prefix, Ip6Prefix, text>();
}
template <detail::LiteralText text>
consteval auto operator""_ipWithMask() requires(detail::TextOf<IpAddrWithMask, text> ||
                                                detail::TextOf<Ip6AddrWithMask, text>) {
  return detail::literalOf<IpAddrWithMask, Ip6AddrWithMask, text>();
}
template <detail::LiteralText text>
consteval auto operator""_ipAndPort() requires(detail::TextOf<IpAndPort, text> ||
                                               detail::TextOf<Ip6AndPort, text>) {
  return detail::literalOf<IpAndPort, Ip6AndPort, text>();
}
template <detail::LiteralText text>
consteval EthAddr operator""_mac() requires detail::TextOf<EthAddr, text> {
  return EthAddr(text.view());
}
template <detail::LiteralText text>
consteval AsNumber operator""_as() requires detail::TextOf<AsNumber, text> {
  return AsNumber(text.view());
}
template <detail::LiteralText text>
consteval RouteDistinguisher operator""_rd() requires detail::TextOf<RouteDistinguisher, text> {
  return RouteDistinguisher(text.view());
}

}  // namespace literals

}  // namespace Wirl
