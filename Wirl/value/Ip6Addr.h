// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/detail/Ip6Grammar.h"
#include "Wirl/value/detail/Ip6TextForms.h"
#include "Wirl/value/detail/Reckoning.h"

namespace Wirl {

/// Index of an octet of an `Ip6Addr`, 0 to 15.
class KIV_API Ip6AddrU8Key : public detail::TextForms<Ip6AddrU8Key> {
 public:
  static constexpr Kiv::U8 max = 15;
  static constexpr unsigned kTextMax = 3;
  static constexpr Kiv::ParseError kTrailingText = "Invalid Ip6AddrU8Key";
  static constexpr Kiv::ParseError kOutOfRange = "Ip6AddrU8Key::value < 0 or > 15 not allowed";

  constexpr Ip6AddrU8Key() noexcept = default;
  /// Accepts any number; one that does not fit an octet becomes 255. Using an index above 15 throws.
  template <std::integral T>
  constexpr Ip6AddrU8Key(T value) noexcept
      : value_(std::in_range<Kiv::U8>(value) ? static_cast<Kiv::U8>(value) : Kiv::U8{0xff}) {}
  /// From its decimal number; throws `Kiv::RangeException`.
  constexpr explicit Ip6AddrU8Key(std::string_view text) { stringValueIs(text); }
  explicit Ip6AddrU8Key(std::nullptr_t) = delete;

  constexpr Kiv::U8 value() const noexcept { return value_; }

  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6AddrU8Key& out) noexcept {
    std::string_view rest = text;
    Kiv::U64 value = 0;
    if (!Kiv::takeDecimal(rest, max, value)) return kTrailingText;
    if (value > max) return kOutOfRange;
    out = static_cast<Kiv::U8>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(Ip6AddrU8Key, Ip6AddrU8Key) noexcept = default;

 private:
  Kiv::U8 value_ = 0;
};

/// IPv6 address (RFC 4291). The object is its sixteen octets in network order with alignment 1, so it can be
/// a member of a header image and be copied to and from packets. Default ::. Ordered as a number, octet 0
/// most significant.
class KIV_API Ip6Addr : public detail::Ip6TextForms<Ip6Addr>, public detail::AddressReckoning<Ip6Addr> {
 public:
  static constexpr unsigned kTextMax = 45;
  static constexpr Kiv::ParseError kTrailingText = "Ip6Addr: unexpected trailing characters";

  constexpr Ip6Addr() noexcept = default;
  /// Octets in network order.
  constexpr explicit Ip6Addr(const std::array<Kiv::U8, 16>& octets) noexcept : octets_(octets) {}
  /// From its halves as numbers: octet 0 is the most significant one of `high`.
  constexpr Ip6Addr(Kiv::U64 high, Kiv::U64 low) noexcept {
    store(0, high);
    store(8, low);
  }
  /// From any text form that `parse` reads; throws `Kiv::RangeException`.
  constexpr explicit Ip6Addr(std::string_view text) { stringValueIs(text); }
  explicit Ip6Addr(std::nullptr_t) = delete;

  /// The octets, the eight groups and the two halves, in host order. A bad index throws `Kiv::RangeException`
  /// with the operation's name, as in "Ip6Addr::u16Is: index out of range".
  constexpr Kiv::U8 u8(Kiv::U64 i) const { return octets_[index(i, 16, "Ip6Addr::u8: index out of range")]; }
  constexpr Kiv::U8 u8(Ip6AddrU8Key i) const { return u8(Kiv::U64{i.value()}); }
  constexpr void u8Is(Kiv::U64 i, Kiv::U8 octet) {
    octets_[index(i, 16, "Ip6Addr::u8Is: index out of range")] = octet;
  }
  constexpr void u8Is(Ip6AddrU8Key i, Kiv::U8 octet) { u8Is(Kiv::U64{i.value()}, octet); }
  /// Group `i`, 0 to 7, host order. Throws `Kiv::RangeException` past the end.
  constexpr Kiv::U16 u16(Kiv::U64 i) const {
    const unsigned at = 2 * index(i, 8, "Ip6Addr::u16: index out of range");
    return static_cast<Kiv::U16>(octets_[at] << 8 | octets_[at + 1]);
  }
  constexpr void u16Is(Kiv::U64 i, Kiv::U16 group) {
    const unsigned at = 2 * index(i, 8, "Ip6Addr::u16Is: index out of range");
    octets_[at] = static_cast<Kiv::U8>(group >> 8);
    octets_[at + 1] = static_cast<Kiv::U8>(group);
  }
  /// Half `i`, 0 or 1, host order. Throws `Kiv::RangeException` past the end.
  constexpr Kiv::U64 u64(Kiv::U64 i) const {
    return load(8 * index(i, 2, "Ip6Addr::u64: index out of range"));
  }
  constexpr void u64Is(Kiv::U64 i, Kiv::U64 half) {
    store(8 * index(i, 2, "Ip6Addr::u64Is: index out of range"), half);
  }
  /// Always throw `Kiv::NondeletableAttrException`: no part of an address can be deleted.
  [[noreturn]] void u8Del(unsigned i);
  [[noreturn]] void u16Del(unsigned i);
  [[noreturn]] void u64Del(unsigned i);

  constexpr const std::array<Kiv::U8, 16>& octets() const noexcept { return octets_; }
  /// Writes the sixteen octets in network order.
  constexpr void copyToBuffer(unsigned char* buf) const noexcept {
    for (unsigned i = 0; i < 16; ++i) buf[i] = octets_[i];
  }
  constexpr void copyFromBuffer(const unsigned char* buf) noexcept {
    for (unsigned i = 0; i < 16; ++i) octets_[i] = buf[i];
  }

  constexpr bool isZero() const noexcept { return (high() | low()) == 0; }
  constexpr bool isUnspecified() const noexcept { return isZero(); }
  constexpr bool isLoopback() const noexcept { return high() == 0 && low() == 1; }
  /// Always false: IPv6 has a loopback address and no loopback network.
  constexpr bool isLoopbackBase() const noexcept { return false; }
  constexpr bool isMulticast() const noexcept { return octets_[0] == 0xff; }
  constexpr bool isUnicast() const noexcept { return !isMulticast(); }
  /// fe80::/64, the part of the link-local range that is in use.
  constexpr bool isLinkLocalUnicast() const noexcept { return high() == 0xfe80'0000'0000'0000; }
  /// fe80::/10, the whole range.
  constexpr bool isLinkLocalUnicast2() const noexcept { return high() >> 54 == 0xfe80 >> 6; }
  /// Multicast of scope 2.
  constexpr bool isLinkLocalMulticast() const noexcept { return isMulticast() && (octets_[1] & 0x0f) == 2; }
  constexpr bool isLinkLocal() const noexcept { return isLinkLocalUnicast() || isLinkLocalMulticast(); }
  /// Unicast, and not ::, ::1 or in fe80::/10.
  constexpr bool isGlobalUnicast() const noexcept {
    return !isMulticast() && !isUnspecified() && !isLoopback() && !isLinkLocalUnicast2();
  }
  /// Multicast of scope 4 or wider.
  constexpr bool isRoutableMulticast() const noexcept { return isMulticast() && (octets_[1] & 0x0c) != 0; }
  /// ff02::d.
  constexpr bool isPimRouters() const noexcept { return high() == 0xff02'0000'0000'0000 && low() == 0xd; }
  /// fec0::/10.
  constexpr bool isSiteLocal() const noexcept { return high() >> 54 == 0xfec0 >> 6; }
  /// fc00::/7.
  constexpr bool isUniqueLocal() const noexcept { return octets_[0] >> 1 == 0xfc >> 1; }
  /// ::ffff:0:0/96.
  constexpr bool isV4MappedV6() const noexcept { return high() == 0 && low() >> 32 == 0xffff; }

  /// 33:33 and octets 12 to 15 (RFC 2464).
  constexpr EthAddr mcastEtherAddress() const noexcept {
    return EthAddr(0x33, 0x33, octets_[12], octets_[13], octets_[14], octets_[15]);
  }
  /// ff02::1:ff00:0/104 with the last three octets (RFC 4291).
  constexpr Ip6Addr solicitedNodeMulticastAddr() const noexcept {
    return Ip6Addr(0xff02'0000'0000'0000, 0x1'ff00'0000 | (low() & 0xff'ffff));
  }
  /// fe80:: with the low half of an address in fe80::/10; throws `Kiv::RangeException` for any other one.
  Ip6Addr validLlUnicastAddress() const;

  /// The first `len` bits set. A `len` above 128 ends the process.
  static constexpr Ip6Addr maskOfLength(Kiv::U64 len) noexcept {
    KIV_ASSERT_AS(len <= 128, "len <= 128");
    return Ip6Addr(leadingOnes(len), len > 64 ? leadingOnes(len - 64) : 0);
  }
  /// The address with all bits behind the first `len` cleared. A `len` above 128 ends the process.
  constexpr Ip6Addr ip6AddrMaskedByLength(unsigned len) const noexcept { return *this & maskOfLength(len); }
  /// The same, but unchanged with 128 or more.
  constexpr Ip6Addr maskedByLength(Kiv::U64 len) const noexcept {
    return len >= 128 ? *this : *this & maskOfLength(len);
  }
  /// Leading bits in which the two agree, 0 to 128.
  constexpr unsigned longestCommonPrefix(const Ip6Addr& other) const noexcept {
    const Kiv::U64 difference = high() ^ other.high();
    return static_cast<unsigned>(difference != 0 ? std::countl_zero(difference)
                                                 : 64 + std::countl_zero(low() ^ other.low()));
  }

  friend constexpr Ip6Addr operator&(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return Ip6Addr(a.high() & b.high(), a.low() & b.low());
  }
  friend constexpr Ip6Addr operator|(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return Ip6Addr(a.high() | b.high(), a.low() | b.low());
  }
  friend constexpr Ip6Addr operator~(const Ip6Addr& a) noexcept { return Ip6Addr(~a.high(), ~a.low()); }

  static constexpr unsigned bits() noexcept { return 128; }
  constexpr U128 number() const noexcept { return U128(high(), low()); }
  static constexpr Ip6Addr withNumber(const U128& number) noexcept {
    return Ip6Addr(number.high(), number.low());
  }

  /// Groups of one to four hexadecimal digits, "::" at most once, the last two groups also as dotted decimal.
  /// The address ends at the first character that is not a hexadecimal digit, colon or full stop, and after
  /// 45 characters, the longest text of an address.
  static constexpr Kiv::ParseError parse(std::string_view& text, Ip6Addr& out) noexcept {
    if (!std::is_constant_evaluated()) return parseFast(text, out);
    const detail::Loadable chars(text);
    return parseOutlined(text, chars.text(), detail::ip6OutlineLoop(chars.text()), out);
  }
  /// Parses the whole of `text`. Returns nothing for a bad text, without finding out what is wrong with it.
  static constexpr std::optional<Ip6Addr> fromText(std::string_view text) noexcept {
    if (!std::is_constant_evaluated()) return fromTextFast(text);
    const detail::Loadable chars(text);
    return fromOutlined(text, chars.text(), detail::ip6OutlineLoop(chars.text()));
  }
  static std::optional<Ip6Addr> fromText(std::nullptr_t) = delete;
  /// The compressed form of RFC 5952; addresses in ::ffff:0:0/96 with their last two groups in dotted
  /// decimal.
  unsigned writeText(char* out) const noexcept;
  /// Eight groups of four digits.
  Kiv::String stringValueExpanded() const;
  /// As `stringValueIs`, but refuses the text "::". Accepts other compressed texts.
  void stringValueExpandedIs(std::string_view text);

  constexpr Kiv::U32 hash() const noexcept {
    Kiv::U32 h = 0;
    for (unsigned i = 0; i < 16; i += 4) h = Kiv::hashMix(word(i) ^ h);
    return h;
  }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    for (unsigned i = 0; i < 16; i += 4) hash.add(word(i));
    return hash.value();
  }
  friend constexpr bool operator==(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return ((a.high() ^ b.high()) | (a.low() ^ b.low())) == 0;
  }
  friend constexpr std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return a.high() != b.high() ? a.high() <=> b.high() : a.low() <=> b.low();
  }

 private:
  /// Parses `chars`, whose outline was found in one way or another.
  static constexpr Kiv::ParseError parseOutlined(std::string_view& text, std::string_view chars,
                                                 const detail::Ip6Outline& outline, Ip6Addr& out) noexcept {
    unsigned dottedAt = detail::kNowhere;
    if (!detail::readIp6(chars, outline, dottedAt, out.octets_)) [[unlikely]]
      return detail::ip6Refusal(chars, outline, dottedAt);
    text.remove_prefix(outline.length);
    return nullptr;
  }
  static constexpr std::optional<Ip6Addr> fromOutlined(std::string_view text, std::string_view chars,
                                                       const detail::Ip6Outline& outline) noexcept {
    unsigned dottedAt = detail::kNowhere;
    std::optional<Ip6Addr> address(std::in_place);
    if (outline.length != text.size() || !detail::readIp6(chars, outline, dottedAt, address->octets_)) {
      address.reset();
    }
    return address;
  }
  static Kiv::ParseError parseFast(std::string_view& text, Ip6Addr& out) noexcept;
  static std::optional<Ip6Addr> fromTextFast(std::string_view text) noexcept;

  /// Returns `i` if it is below `size`; else throws.
  static constexpr unsigned index(Kiv::U64 i, unsigned size, Kiv::ParseError outOfRange) {
    if (i >= size) [[unlikely]]
      detail::throwRange(outOfRange);
    return static_cast<unsigned>(i);
  }
  // Written octet by octet, which compilers turn into one load and one byte swap.
  constexpr Kiv::U32 word(unsigned i) const noexcept {
    return Kiv::U32{octets_[i]} << 24 | Kiv::U32{octets_[i + 1]} << 16 | Kiv::U32{octets_[i + 2]} << 8 |
           octets_[i + 3];
  }
  constexpr Kiv::U64 load(unsigned i) const noexcept { return Kiv::U64{word(i)} << 32 | word(i + 4); }
  constexpr Kiv::U64 high() const noexcept { return load(0); }
  constexpr Kiv::U64 low() const noexcept { return load(8); }
  constexpr void store(unsigned i, Kiv::U64 half) noexcept {
    for (unsigned k = 0; k < 8; ++k) octets_[i + k] = static_cast<Kiv::U8>(half >> (56 - 8 * k));
  }
  static constexpr Kiv::U64 leadingOnes(Kiv::U64 count) noexcept {
    return count == 0 ? 0 : count >= 64 ? ~Kiv::U64{0} : ~Kiv::U64{0} << (64 - count);
  }

  std::array<Kiv::U8, 16> octets_{};
};

static_assert(std::is_trivially_copyable_v<Ip6Addr> && sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);
static_assert(std::is_trivially_copyable_v<Ip6AddrU8Key> && sizeof(Ip6AddrU8Key) == 1);

inline constexpr Ip6Addr ip6AddrZero;            ///< ::
inline constexpr Ip6Addr ip6AddrLoopback(0, 1);  ///< ::1
/// All nodes of the link, ff02::1.
inline constexpr Ip6Addr ip6AddrAllNodes(0xff02'0000'0000'0000, 0x1);
/// All routers of the link, ff02::2.
inline constexpr Ip6Addr ip6AddrAllRouters(0xff02'0000'0000'0000, 0x2);
inline constexpr Ip6Addr ip6AddrAllHosts(0xff02'0000'0000'0000, 0x3);    ///< ff02::3
inline constexpr Ip6Addr ip6AddrPimRouters(0xff02'0000'0000'0000, 0xd);  ///< All PIM routers, ff02::d.
inline constexpr Ip6Addr ip6AddrVrrp(0xff02'0000'0000'0000, 0x12);       ///< All VRRP routers, ff02::12.
inline constexpr Ip6Addr ip6AddrMld(0xff02'0000'0000'0000, 0x16);        ///< All MLDv2 routers, ff02::16.
/// The base of link-local multicast, ff02::, not of the link-local addresses.
inline constexpr Ip6Addr ip6AddrLinkLocalBase(0xff02'0000'0000'0000, 0);
/// ::ffff:127.0.0.1.
inline constexpr Ip6Addr ip6AddrV4MappedLoopback(0, 0xffff'7f00'0001);
/// ::ffff:127.0.0.0.
inline constexpr Ip6Addr ip6AddrV4MappedLoopbackBase(0, 0xffff'7f00'0000);

/// Reads one address at `pos` and moves `pos` behind it. A failure throws `Kiv::RangeException` and changes
/// neither `out` nor `pos`.
KIV_API void Ip6AddrFromString(Ip6Addr& out, Kiv::String::IteratorConst& pos,
                               const Kiv::String::IteratorConst& end);

/// fe80::/64 and the modified EUI-64 of `mac` (RFC 4291, appendix A): ff:fe in the middle and the
/// universal/local bit inverted.
KIV_API Ip6Addr ip6LinkLocalFromMac(const EthAddr& mac) noexcept;

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6Addr& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6Addr& value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Ip6AddrU8Key value);
/// An octet above 15 throws `Kiv::RangeException`.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AddrU8Key& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Ip6Addr> {
  std::size_t operator()(const Wirl::Ip6Addr& value) const noexcept {
    return Wirl::detail::stdHash(value.number().high(), value.number().low());
  }
};
template <>
struct std::hash<Wirl::Ip6AddrU8Key> {
  std::size_t operator()(Wirl::Ip6AddrU8Key value) const noexcept { return value.hash(); }
};
