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

/// What a text without a slash and digits behind the address is refused with.
inline constexpr char kIp6LenExpected[] = "Ip6AddrWithMask: prefix size expected";

/// Reads an address, a slash and a length of at most 128.
KIV_API Kiv::ParseError takeIp6AddrAndLen(std::string_view& text, Ip6Addr& address, Kiv::U32& len) noexcept;
KIV_API unsigned writeIp6AddrAndLen(const Ip6Addr& address, Kiv::U32 len, char* out) noexcept;
KIV_API void logIp6AddrAndLen(Kiv::NboAttrLog& log, const Ip6Addr& address, Kiv::U32 len);
KIV_API void readIp6AddrAndLen(Kiv::NboAttrLog& log, Ip6Addr& address, Kiv::U32& len);

/// What `Ip6Prefix` and `Ip6AddrWithMask` have in common: an address and a length, neither of them checked.
///
/// Where one covers the other, the one with the longer length sorts first; others sort by address. A length
/// above 128 covers nothing, and of two with one address the shorter length, as a signed number, sorts first.
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
    if (a.len() == b.len()) return a.address() <=> b.address();
    const bool aIsShorter = static_cast<Kiv::S32>(a.len()) < static_cast<Kiv::S32>(b.len());
    if (aIsShorter ? a.contains(b.address()) : b.contains(a.address())) {
      return aIsShorter ? std::strong_ordering::greater : std::strong_ordering::less;
    }
    if (a.address() != b.address()) return a.address() <=> b.address();
    return aIsShorter ? std::strong_ordering::less : std::strong_ordering::greater;
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

 protected:
  Ip6Addr address_;
  Kiv::U32 len_ = 0;
};

}  // namespace Wirl::detail
