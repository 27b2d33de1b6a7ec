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

/// The value of the text: a `V4`, or else a `V6`. A text that is neither does not compile.
template <typename V4, typename V6, LiteralText text>
consteval auto literalOf() {
  constexpr bool kIsV4 = V4::fromText(text.view()).has_value();
  if constexpr (kIsV4) {
    return V4(text.view());
  } else {
    return V6(text.view());
  }
}

/// The value itself, so that the operators below return a constant: clang 14 crashes on a consteval function
/// that returns an object of more than 16 octets.
template <typename V4, typename V6, LiteralText text>
inline constexpr auto kLiteral = literalOf<V4, V6, text>();

}  // namespace detail

/// Values as literals: `using namespace Wirl::literals;`. The compiler parses the text with the grammar of
/// the type; a bad text does not compile, and nothing is left to do at run time. Where both families have a
/// form, the text decides the type of the literal.
///
///     "10.0.0.0/8"_prefix        Prefix             "2001:db8::/32"_prefix       Ip6Prefix
///     "10.0.0.1"_ip              IpAddr             "2001:db8::1"_ip             Ip6Addr
///     "10.0.0.1/24"_ipWithMask   IpAddrWithMask     "2001:db8::1/64"_ipWithMask  Ip6AddrWithMask
///     "10.0.0.1:179"_ipAndPort   IpAndPort          "[2001:db8::1]:179"_ipAndPort  Ip6AndPort
///     "00:00:5e:00:53:01"_mac    EthAddr            "65000:1"_rd                 RouteDistinguisher
///     "65551"_as                 AsNumber
namespace literals {

/// An address of either family: `"192.0.2.1"_ip`.
template <detail::LiteralText text>
constexpr auto operator""_ip() noexcept {
  return detail::kLiteral<IpAddr, Ip6Addr, text>;
}
/// A prefix of either family: `"2001:db8::/32"_prefix`.
template <detail::LiteralText text>
constexpr auto operator""_prefix() noexcept {
  return detail::kLiteral<Prefix, Ip6Prefix, text>;
}
/// An address with a length, of either family.
template <detail::LiteralText text>
constexpr auto operator""_ipWithMask() noexcept {
  return detail::kLiteral<IpAddrWithMask, Ip6AddrWithMask, text>;
}
/// An address with a port, of either family.
template <detail::LiteralText text>
constexpr auto operator""_ipAndPort() noexcept {
  return detail::kLiteral<IpAndPort, Ip6AndPort, text>;
}
/// An Ethernet address: `"02:00:5e:00:53:01"_mac`.
consteval EthAddr operator""_mac(const char* text, std::size_t size) {
  return EthAddr(std::string_view(text, size));
}
/// An AS number: `"65536"_as`, `"1.0"_as`.
consteval AsNumber operator""_as(const char* text, std::size_t size) {
  return AsNumber(std::string_view(text, size));
}
/// A route distinguisher: `"65536:1"_rd`.
consteval RouteDistinguisher operator""_rd(const char* text, std::size_t size) {
  return RouteDistinguisher(std::string_view(text, size));
}

}  // namespace literals

}  // namespace Wirl
