// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/PrefixLength.h"
#include "Wirl/value/detail/Reckoning.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// IPv4 prefix: an address without host bits and a length of 0 to 32, or `kNoLen` with any address. Default
/// 0.0.0.0/0.
///
/// Ordered by address over the length that two prefixes have in common; where one covers the other, the
/// longer sorts first.
class KIV_API Prefix : public detail::TextForms<Prefix>, public detail::PrefixReckoning<Prefix, IpAddr> {
 public:
  /// The marker of a prefix without length. Text never gives it, though it prints as a number.
  static constexpr Kiv::U32 kNoLen = 0xffff'ffff;
  static constexpr unsigned kTextMax = IpAddr::kTextMax + 11;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Prefix - non-zero after prefixlen";

  constexpr Prefix() noexcept = default;
  /// Throws `Kiv::RangeException` when a bit behind the length is set, or the length is from 33 to `kNoLen`
  /// - 1.
  constexpr Prefix(IpAddr address, unsigned len) : address_(address), len_(len) {
    if (!validAsPrefix()) [[unlikely]]
      detail::throwRange("Prefix::validAsPrefix != true not allowed");
  }
  /// From text as 10.1.0.0/16; throws `Kiv::RangeException`.
  constexpr explicit Prefix(std::string_view text) { stringValueIs(text); }
  explicit Prefix(std::nullptr_t) = delete;

  constexpr IpAddr address() const noexcept { return address_; }
  constexpr Kiv::U32 len() const noexcept { return len_; }

  /// Holds for every value that there is.
  constexpr bool validAsPrefix() const noexcept { return validAsPrefix(address_, len_); }
  static constexpr bool validAsPrefix(IpAddr address, Kiv::U32 len) noexcept {
    return len == kNoLen || (len <= 32 && address.maskedByLength(len) == address);
  }

  constexpr bool isUnicast() const noexcept { return address_.isUnicast(); }
  constexpr bool isHost() const noexcept { return len_ == 32; }
  constexpr IpAddr baseAddress() const noexcept { return address_; }
  using detail::PrefixReckoning<Prefix, IpAddr>::contains;
  /// False without a length.
  constexpr bool contains(IpAddr address) const noexcept {
    return len_ <= 32 && address.maskedByLength(len_) == address_;
  }
  /// Whether one contains the other; never without a length.
  constexpr bool overlaps(const Prefix& other) const noexcept {
    return len_ <= 32 && other.len_ <= 32 &&
           address_.longestCommonPrefix(other.address_) >= std::min(len_, other.len_);
  }
  /// The address of a host in this prefix. A bit of `host` within the length throws `Kiv::RangeException`;
  /// without a length, as with length 0, any host is accepted.
  constexpr IpAddr subnetHost(IpAddr host) const {
    if (len_ <= 32 && host.maskedByLength(len_).hostOrder() != 0) [[unlikely]]
      detail::throwRange("Host address too long");
    return IpAddr::fromHostOrder(address_.hostOrder() | host.hostOrder());
  }

  /// An address, a slash, the length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, Prefix& out) noexcept {
    std::string_view rest = text;
    IpAddr address;
    Kiv::U64 len = 0;
    if (const Kiv::ParseError error = IpAddr::parse(rest, address)) return error;
    if (const Kiv::ParseError error = detail::takePrefixLength(rest, len)) return error;
    // The marker of no length is no length that a text may name.
    if (len > 32 || !validAsPrefix(address, static_cast<Kiv::U32>(len))) return kTrailingText;
    out.address_ = address;
    out.len_ = static_cast<Kiv::U32>(len);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(address_.hash()).add(len_).value();
  }
  friend constexpr bool operator==(const Prefix& a, const Prefix& b) noexcept {
    return a.address_ == b.address_ && a.len_ == b.len_;
  }
  /// Weak: two prefixes without length are neither less than each other nor, in general, equal.
  friend constexpr std::weak_ordering operator<=>(const Prefix& a, const Prefix& b) noexcept {
    return a.sortKey() <=> b.sortKey();
  }

 private:
  /// The order as a number: the last address covered, then the number of host bits. A prefix never ends
  /// before one that it covers, and of two that end together the longer sorts first. Without a length there
  /// are 33 host bits, so such prefixes sort behind 0.0.0.0/0, whatever their address.
  constexpr Kiv::U64 sortKey() const noexcept {
    const Kiv::U32 open = 32 - len_;
    const Kiv::U64 openBits = (Kiv::U64{1} << open) - 1;
    return (address_.hostOrder() | openBits) << 8 | open;
  }

  IpAddr address_;
  Kiv::U32 len_ = 0;
};

static_assert(std::is_trivially_copyable_v<Prefix> && sizeof(Prefix) == 8);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Prefix& value);
/// What is no prefix throws `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Prefix& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Prefix> {
  std::size_t operator()(const Wirl::Prefix& value) const noexcept { return value.hash(); }
};
