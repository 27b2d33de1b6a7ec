// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/detail/PlainText.h"
#include "Wirl/value/detail/Reckoning.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// IPv4 address. The object is its four octets in network order with alignment 1, so it can be a member of a
/// header image and be copied to and from packets. Default 0.0.0.0. Ordered as a number, the first octet most
/// significant.
class KIV_API IpAddr : public detail::TextForms<IpAddr>, public detail::AddressReckoning<IpAddr> {
 public:
  static constexpr unsigned kTextMax = 15;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpAddr";

  constexpr IpAddr() noexcept = default;
  /// Octets in network order.
  constexpr explicit IpAddr(const std::array<Kiv::U8, 4>& octets) noexcept : octets_(octets) {}
  constexpr IpAddr(Kiv::U8 a, Kiv::U8 b, Kiv::U8 c, Kiv::U8 d) noexcept : octets_{a, b, c, d} {}
  /// From dotted decimal; throws `Kiv::RangeException`.
  constexpr explicit IpAddr(std::string_view text) { stringValueIs(text); }
  explicit IpAddr(std::nullptr_t) = delete;

  /// From a number whose most significant octet is the first of the address.
  static constexpr IpAddr fromHostOrder(Kiv::U32 number) noexcept {
    return IpAddr(static_cast<Kiv::U8>(number >> 24), static_cast<Kiv::U8>(number >> 16),
                  static_cast<Kiv::U8>(number >> 8), static_cast<Kiv::U8>(number));
  }
  constexpr Kiv::U32 hostOrder() const noexcept {
    return Kiv::U32{octets_[0]} << 24 | Kiv::U32{octets_[1]} << 16 | Kiv::U32{octets_[2]} << 8 | octets_[3];
  }
  /// From and to the word that has the octets in memory order, as `in_addr::s_addr` has.
  static constexpr IpAddr fromNetOrder(Kiv::U32 word) noexcept {
    return IpAddr(std::bit_cast<std::array<Kiv::U8, 4>>(word));
  }
  constexpr Kiv::U32 netOrder() const noexcept { return std::bit_cast<Kiv::U32>(octets_); }

  constexpr const std::array<Kiv::U8, 4>& octets() const noexcept { return octets_; }
  /// Writes the four octets in network order.
  constexpr void copyToBuffer(unsigned char* buf) const noexcept {
    for (unsigned i = 0; i < 4; ++i) buf[i] = octets_[i];
  }
  constexpr void copyFromBuffer(const unsigned char* buf) noexcept {
    for (unsigned i = 0; i < 4; ++i) octets_[i] = buf[i];
  }

  constexpr bool isZero() const noexcept { return hostOrder() == 0; }
  constexpr bool isAny() const noexcept { return isZero(); }
  constexpr bool isUnspecified() const noexcept { return isZero(); }
  /// 0.0.0.0/8.
  constexpr bool isThisNetwork() const noexcept { return octets_[0] == 0; }
  /// 224.0.0.0/4.
  constexpr bool isMulticast() const noexcept { return octets_[0] >> 4 == 0xe; }
  /// 224.0.0.0/24, the groups that stay on their link.
  constexpr bool isReservedMulticast() const noexcept { return hostOrder() >> 8 == 0xe0'0000; }
  constexpr bool isLinkLocalMulticast() const noexcept { return isReservedMulticast(); }
  /// Every other group.
  constexpr bool isRoutableMulticast() const noexcept { return isMulticast() && !isReservedMulticast(); }
  /// 224.0.0.13.
  constexpr bool isPimRouters() const noexcept { return hostOrder() == 0xe000'000d; }
  /// Neither multicast nor broadcast: 0.0.0.0 and 240.0.0.0/4 count as unicast.
  constexpr bool isUnicast() const noexcept { return !isMulticast() && !isBroadcast(); }
  /// 255.255.255.255.
  constexpr bool isBroadcast() const noexcept { return hostOrder() == 0xffff'ffff; }
  /// 127.0.0.0/8.
  constexpr bool isLoopback() const noexcept { return octets_[0] == 127; }
  /// 127.0.0.0 exactly.
  constexpr bool isLoopbackBase() const noexcept { return hostOrder() == 0x7f00'0000; }
  /// 169.254.0.0/16.
  constexpr bool isLinkLocal() const noexcept { return hostOrder() >> 16 == 0xa9fe; }
  constexpr bool isLinkLocalUnicast() const noexcept { return isLinkLocal(); }
  /// 240.0.0.0 to 255.255.255.254. Always false when the feature toggle `Ipv4Routable240ClassE` (file
  /// "Wirl.json") is on. The first call in the process reads the toggle.
  bool isReserved() const noexcept;
  /// Whether all bits that are set in 10.0.0.0, in 172.16.0.0 or in 192.168.0.0 are set in the address. True
  /// for the private ranges of RFC 1918, and for others such as 11.0.0.1. Kept so on purpose.
  constexpr bool isPrivate() const noexcept {
    const auto has = [n = hostOrder()](Kiv::U32 bits) { return (n & bits) == bits; };
    return has(0x0a00'0000) || has(0xac10'0000) || has(0xc0a8'0000);
  }

  /// 01:00:5e and the low 23 bits of the address (RFC 1112).
  constexpr EthAddr mcastEtherAddress() const noexcept {
    return EthAddr(0x01, 0x00, 0x5e, octets_[1] & 0x7f, octets_[2], octets_[3]);
  }
  /// Leading bits in which the two agree, 0 to 32.
  constexpr unsigned longestCommonPrefix(IpAddr other) const noexcept {
    return static_cast<unsigned>(std::countl_zero(hostOrder() ^ other.hostOrder()));
  }

  /// The first `len` bits set, at most 32.
  static constexpr IpAddr maskOfLength(Kiv::U64 len) noexcept {
    return IpAddr(0xff, 0xff, 0xff, 0xff).maskedByLength(len);
  }
  /// The address with all bits behind the first `len` cleared; unchanged with 32 or more.
  constexpr IpAddr maskedByLength(Kiv::U64 len) const noexcept {
    return len >= 32 ? *this : fromHostOrder(hostOrder() & ~(0xffff'ffffu >> len));
  }

  friend constexpr IpAddr operator&(IpAddr a, IpAddr b) noexcept {
    return fromNetOrder(a.netOrder() & b.netOrder());
  }
  friend constexpr IpAddr operator|(IpAddr a, IpAddr b) noexcept {
    return fromNetOrder(a.netOrder() | b.netOrder());
  }
  friend constexpr IpAddr operator~(IpAddr a) noexcept { return fromNetOrder(~a.netOrder()); }

  static constexpr unsigned bits() noexcept { return 32; }
  constexpr U128 number() const noexcept { return hostOrder(); }
  /// The address of the lowest 32 bits of a number.
  static constexpr IpAddr withNumber(const U128& number) noexcept {
    return fromHostOrder(static_cast<Kiv::U32>(number.low()));
  }

  /// Dotted decimal with four octets, each a run of decimal digits of at most 255, any number of leading
  /// zeros; never octal.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpAddr& out) noexcept {
    const auto taken = take(text, detail::Extent::front);
    if (taken.length == 0) [[unlikely]]
      return kTrailingText;
    out = fromWord(static_cast<Kiv::U32>(taken.octets));
    text.remove_prefix(taken.length);
    return nullptr;
  }
  static std::optional<IpAddr> fromText(std::nullptr_t) = delete;
  static constexpr std::optional<IpAddr> fromText(std::string_view text) noexcept {
    const auto taken = take(text, detail::Extent::whole);
    if (taken.length == 0) [[unlikely]]
      return std::nullopt;
    return fromWord(static_cast<Kiv::U32>(taken.octets));
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(word()); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(word()).value(); }
  friend constexpr bool operator==(IpAddr a, IpAddr b) noexcept { return a.netOrder() == b.netOrder(); }
  friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) noexcept {
    return a.hostOrder() <=> b.hostOrder();
  }

 private:
  static constexpr detail::Taken take(std::string_view text, detail::Extent extent) noexcept {
    if (!std::is_constant_evaluated()) return takeFast(text, extent);
    return detail::takeDottedLoop(text).within(text.size(), extent);
  }
  static detail::Taken takeFast(std::string_view text, detail::Extent extent) noexcept;

  static constexpr IpAddr fromWord(Kiv::U32 word) noexcept {
    return fromNetOrder(std::endian::native == std::endian::little ? word : __builtin_bswap32(word));
  }
  /// The octets read as a little-endian number, on every machine.
  constexpr Kiv::U32 word() const noexcept {
    return Kiv::U32{octets_[3]} << 24 | Kiv::U32{octets_[2]} << 16 | Kiv::U32{octets_[1]} << 8 | octets_[0];
  }

  std::array<Kiv::U8, 4> octets_{};
};

static_assert(std::is_trivially_copyable_v<IpAddr> && sizeof(IpAddr) == 4 && alignof(IpAddr) == 1);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpAddr value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpAddr& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpAddr> {
  /// Hashes like an integer key of the standard library.
  std::size_t operator()(Wirl::IpAddr value) const noexcept { return value.netOrder(); }
};
