// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Wirl/value/Eui64.h"
#include "Wirl/value/detail/PlainText.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// Ethernet (48-bit IEEE MAC) address. The object is its six octets in wire order with alignment 1, so it can
/// be a member of a header image and be copied to and from frames. Default 00:00:00:00:00:00.
class KIV_API EthAddr : public detail::TextForms<EthAddr> {
 public:
  static constexpr unsigned kTextMax = 17;
  static constexpr Kiv::ParseError kTrailingText = "Invalid EthAddr";

  constexpr EthAddr() noexcept = default;
  /// Octets in wire order.
  constexpr explicit EthAddr(const std::array<Kiv::U8, 6>& octets) noexcept : octets_(octets) {}
  constexpr EthAddr(Kiv::U8 a, Kiv::U8 b, Kiv::U8 c, Kiv::U8 d, Kiv::U8 e, Kiv::U8 f) noexcept
      : octets_{a, b, c, d, e, f} {}
  /// From any of the text forms that `parse` reads; throws `Kiv::RangeException`.
  constexpr explicit EthAddr(std::string_view text) { stringValueIs(text); }
  explicit EthAddr(std::nullptr_t) = delete;

  /// Octets 2i and 2i+1 as a number in host order, i < 3; else throws `Kiv::RangeException`.
  Kiv::U16 word(unsigned i) const;
  void wordIs(unsigned i, Kiv::U16 word);
  [[noreturn]] void wordDel(unsigned i);
  /// Octet i < 6, the first on the wire being 0; else throws `Kiv::RangeException`.
  Kiv::U8 byte(unsigned i) const;
  void byteIs(unsigned i, Kiv::U8 octet);
  [[noreturn]] void byteDel(unsigned i);

  constexpr const std::array<Kiv::U8, 6>& octets() const noexcept { return octets_; }
  /// Writes the six octets in wire order.
  constexpr void copyToBuffer(unsigned char* buf) const noexcept {
    for (unsigned i = 0; i < 6; ++i) buf[i] = octets_[i];
  }
  constexpr void copyFromBuffer(const unsigned char* buf) noexcept {
    for (unsigned i = 0; i < 6; ++i) octets_[i] = buf[i];
  }

  constexpr bool isBroadcast() const noexcept { return number() == 0xffff'ffff'ffff; }
  constexpr bool isUnicast() const noexcept { return (octets_[0] & 1) == 0; }
  /// The broadcast address is deliberately not counted as multicast.
  constexpr bool isMulticast() const noexcept { return !isUnicast() && !isBroadcast(); }
  /// 33:33:xx:xx:xx:xx (RFC 2464).
  constexpr bool isIp6Multicast() const noexcept { return number() >> 32 == 0x3333; }
  /// 01:00:5e:00:00:xx, the groups of 224.0.0.0/24 (RFC 1112).
  constexpr bool isIp4LinkLocalMulticast() const noexcept { return number() >> 8 == 0x01'005e'0000; }
  /// Never forwarded by a bridge (IEEE 802.1D): 01:80:c2:00:00:00 to 0f; also 01:00:0c:cc:cc:cd.
  constexpr bool isIEEELinkConstrained() const noexcept {
    return number() >> 4 == 0x018'0c20'0000 || number() == 0x0100'0ccc'cccd;
  }

  /// The first three octets as a number.
  constexpr std::uint32_t oui() const noexcept { return static_cast<std::uint32_t>(number() >> 24); }
  /// The last three octets as a number.
  constexpr std::uint32_t station() const noexcept {
    return static_cast<std::uint32_t>(number() & 0xff'ffff);
  }
  /// The EUI-64 that IEEE makes of an EUI-48: ff:ff in the middle, no bit inverted. This is not the interface
  /// identifier of an IPv6 address; for that see `ip6LinkLocalFromMac`.
  constexpr Eui64 eui64() const noexcept {
    const auto& o = octets_;
    return Eui64({o[0], o[1], o[2], 0xff, 0xff, o[3], o[4], o[5]});
  }

  /// Six groups of hexadecimal digits joined by colons or by hyphens, or three joined by full stops; any
  /// number of leading zeros.
  static constexpr Kiv::ParseError parse(std::string_view& text, EthAddr& out) noexcept {
    // Usually no text follows, and the parser for whole texts is several times faster.
    auto taken = take(text);
    if (taken.length == 0) taken = detail::takeHexGroupsLoop(text, 6);
    if (taken.length == 0) [[unlikely]]
      return kTrailingText;
    out = fromWord(taken.octets);
    text.remove_prefix(taken.length);
    return nullptr;
  }
  static constexpr std::optional<EthAddr> fromText(std::string_view text) noexcept {
    const auto taken = take(text);
    if (taken.length == 0) [[unlikely]]
      return std::nullopt;
    return fromWord(taken.octets);
  }
  static std::optional<EthAddr> fromText(std::nullptr_t) = delete;
  /// As in 00:00:5e:00:53:01.
  unsigned writeText(char* out) const noexcept;
  /// As in 0000.5e00.5301.
  Kiv::String displayString() const;

  constexpr Kiv::U32 hash() const noexcept {
    const Kiv::U64 n = number();
    return Kiv::hashMix(static_cast<Kiv::U32>((n >> 32 ^ (n >> 16 & 0xffff)) << 16 | (n & 0xffff)));
  }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    // Read the stored words as a little-endian machine does, to get the same hash on every machine.
    Kiv::SeededHash hash(seed);
    for (unsigned i = 0; i < 6; i += 2) hash.add(Kiv::U32{octets_[i]} | Kiv::U32{octets_[i + 1]} << 8);
    return hash.value();
  }
  friend constexpr bool operator==(const EthAddr& a, const EthAddr& b) noexcept {
    return a.number() == b.number();
  }
  friend constexpr std::strong_ordering operator<=>(const EthAddr& a, const EthAddr& b) noexcept {
    return a.number() <=> b.number();
  }

 private:
  /// All of a text.
  static constexpr detail::Taken take(std::string_view text) noexcept {
    if (!std::is_constant_evaluated()) return takeFast(text);
    return detail::takeHexGroupsLoop(text, 6).within(text.size(), detail::Extent::whole);
  }
  static detail::Taken takeFast(std::string_view text) noexcept;

  /// From its octets as a number, the first one least significant.
  static constexpr EthAddr fromWord(Kiv::U64 word) noexcept {
    const auto octet = [word](unsigned i) { return static_cast<Kiv::U8>(word >> 8 * i); };
    return EthAddr(octet(0), octet(1), octet(2), octet(3), octet(4), octet(5));
  }
  /// The address as a 48-bit number, the first octet most significant.
  constexpr Kiv::U64 number() const noexcept {
    const auto& o = octets_;
    const Kiv::U32 high = Kiv::U32{o[0]} << 24 | Kiv::U32{o[1]} << 16 | Kiv::U32{o[2]} << 8 | o[3];
    return Kiv::U64{high} << 16 | Kiv::U64{o[4]} << 8 | o[5];
  }

  std::array<Kiv::U8, 6> octets_{};
};

/// An address and a mask of the bits to compare. Default: matches 00:00:00:00:00:00 exactly.
class KIV_API EthAddrWithMask : public detail::TextForms<EthAddrWithMask> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid EthAddrWithMask";
  static constexpr auto representation() {
    return Kiv::representation("Wirl::EthAddrWithMask", kTrailingText,
                               Kiv::field("mac", &EthAddrWithMask::mac_),
                               Kiv::field("mask", &EthAddrWithMask::mask_));
  }
  static constexpr unsigned kTextMax = 88;

  constexpr EthAddrWithMask() noexcept = default;
  constexpr EthAddrWithMask(EthAddr mac, EthAddr mask) noexcept : mac_(mac), mask_(mask) {}
  /// From the text representation; throws `Kiv::RangeException`.
  constexpr explicit EthAddrWithMask(std::string_view text) { stringValueIs(text); }
  explicit EthAddrWithMask(std::nullptr_t) = delete;

  constexpr EthAddr mac() const noexcept { return mac_; }  ///< The address.
  constexpr EthAddr mask() const noexcept { return mask_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, EthAddrWithMask& out) noexcept {
    return Kiv::parseRepresentation(text, out);
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    return Kiv::SeededHash(seed).add(mac_.hash()).add(mask_.hash()).value();
  }
  friend constexpr auto operator<=>(const EthAddrWithMask&, const EthAddrWithMask&) noexcept = default;

 private:
  EthAddr mac_;
  EthAddr mask_{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
};

static_assert(std::is_trivially_copyable_v<EthAddr> && sizeof(EthAddr) == 6 && alignof(EthAddr) == 1);
static_assert(std::is_trivially_copyable_v<EthAddrWithMask> && sizeof(EthAddrWithMask) == 12);
static_assert(EthAddrWithMask::kTextMax == detail::representationMax<EthAddrWithMask>());

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const EthAddr& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, EthAddr& value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const EthAddrWithMask& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, EthAddrWithMask& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::EthAddr> {
  std::size_t operator()(const Wirl::EthAddr& value) const noexcept { return value.hash(); }
};
template <>
struct std::hash<Wirl::EthAddrWithMask> {
  std::size_t operator()(const Wirl::EthAddrWithMask& value) const noexcept { return value.hash(); }
};
