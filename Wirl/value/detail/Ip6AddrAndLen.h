// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <compare>
#include <string_view>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/detail/Ip6TextForms.h"

namespace Wirl::detail {

/// The error for a text that has no slash and digits behind the address.
inline constexpr Kiv::ParseError kIp6LenExpected = "Ip6AddrWithMask: prefix size expected";

/// Reads an address, a slash and a length of at most 128.
constexpr Kiv::ParseError takeIp6AddrAndLen(std::string_view& text, Ip6Addr& address, Kiv::U32& len,
                                            Kiv::ParseError noLength = kIp6LenExpected) noexcept {
  std::string_view rest = text;
  Ip6Addr parsed;
  Kiv::U64 parsedLen = 0;
  if (const Kiv::ParseError error = Ip6Addr::parse(rest, parsed)) return error;
  if (!Kiv::takeLiteral(rest, "/") || !Kiv::takeDecimal(rest, 128, parsedLen)) {
    return noLength;
  }
  if (parsedLen > 128) return "Ip6AddrWithMask: prefix too long";
  address = parsed;
  len = static_cast<Kiv::U32>(parsedLen);
  text = rest;
  return nullptr;
}
/// Reads a decimal length of at most 128. Refuses it if another character of an address follows.
constexpr bool takeIp6MaskLength(std::string_view& text, Kiv::U64& len) noexcept {
  std::string_view rest = text;
  if (!Kiv::takeDecimal(rest, 128, len) || len > 128) return false;
  if (rest.substr(0, 1).find_first_of("abcdefABCDEF:.") != rest.npos) return false;
  text = rest;
  return true;
}
KIV_API unsigned writeIp6AddrAndLen(const Ip6Addr& address, Kiv::U32 len, char* out) noexcept;
KIV_API void logIp6AddrAndLen(Kiv::NboAttrLog& log, const Ip6Addr& address, Kiv::U32 len);
KIV_API void readIp6AddrAndLen(Kiv::NboAttrLog& log, Ip6Addr& address, Kiv::U32& len);

/// The common part of `Ip6Prefix` and `Ip6AddrWithMask`: an address and a length, neither of them checked.
///
/// Ordered by the last address covered, then the longer length first, then the lower address first. So if one
/// covers the other, the longer length sorts first; otherwise they sort by address. A length above 128 covers
/// the address alone.
template <typename T>
class Ip6AddrAndLen : public Ip6TextForms<T> {
 public:
  static constexpr unsigned kTextMax = Ip6Addr::kTextMax + 11;

  constexpr Ip6AddrAndLen() noexcept = default;
  constexpr Ip6AddrAndLen(const Ip6Addr& address, Kiv::U32 len) noexcept : address_(address), len_(len) {}

  constexpr const Ip6Addr& address() const noexcept { return address_; }
  constexpr Kiv::U32 len() const noexcept { return len_; }

  /// Whether the length is at most 128 and no bit behind it is set.
  constexpr bool validAsPrefix() const noexcept {
    return len_ <= 128 && address_.ip6AddrMaskedByLength(len_) == address_;
  }
  /// Whether the first `len()` bits agree; never with a length above 128.
  constexpr bool contains(const Ip6Addr& address) const noexcept {
    return len_ <= 128 && address_.longestCommonPrefix(address) >= len_;
  }
  /// Whether the two agree over the shorter of their lengths; never when one is above 128.
  constexpr bool overlaps(const T& other) const noexcept {
    return std::max(len_, other.len_) <= 128 &&
           address_.longestCommonPrefix(other.address_) >= std::min(len_, other.len_);
  }

  unsigned writeText(char* out) const noexcept { return writeIp6AddrAndLen(address_, len_, out); }

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(address_.hash()).add(len_).value();
  }
  friend constexpr bool operator==(const T& a, const T& b) noexcept {
    return a.address() == b.address() && a.len() == b.len();
  }
  friend constexpr std::strong_ordering operator<=>(const T& a, const T& b) noexcept {
    if (const auto order = lastOf(a) <=> lastOf(b); order != 0) return order;
    if (a.len() != b.len()) return b.len() <=> a.len();
    return a.address() <=> b.address();
  }

  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const T& value) {
    logIp6AddrAndLen(log, value.address(), value.len());
    return log;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, T& value) {
    Ip6Addr address;
    Kiv::U32 len = 0;
    readIp6AddrAndLen(log, address, len);
    value = T(address, len);
    return log;
  }

 private:
  static constexpr Ip6Addr lastOf(const T& value) noexcept {
    return value.address() | ~Ip6Addr::maskOfLength(std::min(value.len(), 128u));
  }

 protected:
  Ip6Addr address_;
  Kiv::U32 len_ = 0;
};

}  // namespace Wirl::detail
