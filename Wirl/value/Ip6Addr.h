// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Types.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/TextValue.h"

namespace Wirl {

using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// Index of an octet of an `Ip6Addr`: 0..15.
class KIV_API Ip6AddrU8Key : public TextValue<Ip6AddrU8Key> {
 public:
  static constexpr unsigned kMax = 15;
  static constexpr unsigned kMaxText = 2;
  static constexpr Kiv::ParseError kTrailing = "Invalid Ip6AddrU8Key";

  constexpr Ip6AddrU8Key() noexcept = default;
  /// Above 15: `Kiv::RangeException` "Ip6AddrU8Key::value < 0 or > 15 not allowed".
  constexpr Ip6AddrU8Key(unsigned value) : value_(static_cast<U8>(value)) {
    if (value > kMax) throw Kiv::RangeException(kOutOfRange);
  }
  explicit Ip6AddrU8Key(std::string_view text) { stringValueIs(text); }

  constexpr U8 value() const noexcept { return value_; }
  constexpr operator unsigned() const noexcept { return value_; }

  static Kiv::ParseError parse(std::string_view& text, Ip6AddrU8Key& out) noexcept;
  unsigned printToBuffer(char* buf, unsigned size) const noexcept;

  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Ip6AddrU8Key key) { return log << key.value_; }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6AddrU8Key& key) {
    U8 value = 0;
    log >> value;
    key = Ip6AddrU8Key(value);
    return log;
  }

 private:
  static constexpr Kiv::ParseError kOutOfRange = "Ip6AddrU8Key::value < 0 or > 15 not allowed";

  U8 value_ = 0;
};

/// IPv6 address (RFC 4291): sixteen octets in network byte order and nothing else, so that it lies in packets
/// and socket addresses as it is.
class KIV_API Ip6Addr : public TextValue<Ip6Addr> {
 public:
  static constexpr unsigned kMaxText = 45;
  static constexpr Kiv::ParseError kTrailing = "Ip6Addr: unexpected trailing characters";

  /// The unspecified address, ::.
  constexpr Ip6Addr() noexcept : octets_{} {}
  /// Octets in wire order.
  constexpr explicit Ip6Addr(const std::array<U8, 16>& octets) noexcept : octets_(octets) {}
  /// From its halves as numbers: octet 0 is the most significant of `high`.
  constexpr Ip6Addr(U64 high, U64 low) noexcept : octets_{} {
    storeBigEndian(0, high);
    storeBigEndian(8, low);
  }
  /// Throws as `stringValueIs` does.
  explicit Ip6Addr(std::string_view text) : Ip6Addr() { stringValueIs(text); }

  /// The eight groups, the two halves and the sixteen octets, as host integers. A bad index throws
  /// `Kiv::RangeException` with the operation's name, as in "Ip6Addr::u16Is: index out of range".
  constexpr U8 u8(unsigned i) const {
    if (i >= 16) throw Kiv::RangeException("Ip6Addr::u8: index out of range");
    return octets_[i];
  }
  constexpr void u8Is(unsigned i, U8 value) {
    if (i >= 16) throw Kiv::RangeException("Ip6Addr::u8Is: index out of range");
    octets_[i] = value;
  }
  constexpr U16 u16(unsigned i) const {
    if (i >= 8) throw Kiv::RangeException("Ip6Addr::u16: index out of range");
    return static_cast<U16>(octets_[2 * i] << 8 | octets_[2 * i + 1]);
  }
  constexpr void u16Is(unsigned i, U16 value) {
    if (i >= 8) throw Kiv::RangeException("Ip6Addr::u16Is: index out of range");
    octets_[2 * i] = static_cast<U8>(value >> 8);
    octets_[2 * i + 1] = static_cast<U8>(value);
  }
  constexpr U64 u64(unsigned i) const {
    if (i >= 2) throw Kiv::RangeException("Ip6Addr::u64: index out of range");
    return i == 0 ? high() : low();
  }
  constexpr void u64Is(unsigned i, U64 value) {
    if (i >= 2) throw Kiv::RangeException("Ip6Addr::u64Is: index out of range");
    storeBigEndian(8 * i, value);
  }
  /// The parts are always there: each throws `Kiv::NondeletableAttrException`.
  [[noreturn]] void u8Del(unsigned i);
  [[noreturn]] void u16Del(unsigned i);
  [[noreturn]] void u64Del(unsigned i);

  constexpr const std::array<U8, 16>& octets() const noexcept { return octets_; }
  /// Sixteen octets in wire order.
  void copyToBuffer(unsigned char* buf) const noexcept { std::memcpy(buf, octets_.data(), 16); }
  void copyFromBuffer(const unsigned char* buf) noexcept { std::memcpy(octets_.data(), buf, 16); }

  constexpr bool isZero() const noexcept { return (high() | low()) == 0; }
  constexpr bool isUnspecified() const noexcept { return isZero(); }
  constexpr bool isLoopback() const noexcept { return high() == 0 && low() == 1; }
  /// There is no such address in IPv6: always false.
  constexpr bool isLoopbackBase() const noexcept { return false; }
  constexpr bool isMulticast() const noexcept { return octets_[0] == 0xff; }
  constexpr bool isUnicast() const noexcept { return !isMulticast(); }
  /// fe80::/64, the part of fe80::/10 that is in use.
  constexpr bool isLinkLocalUnicast() const noexcept { return high() == 0xfe80'0000'0000'0000; }
  /// fe80::/10.
  constexpr bool isLinkLocalUnicast2() const noexcept { return high() >> 54 == 0xfe80 >> 6; }
  /// Multicast of scope 2.
  constexpr bool isLinkLocalMulticast() const noexcept { return isMulticast() && (octets_[1] & 0x0f) == 2; }
  constexpr bool isLinkLocal() const noexcept { return isLinkLocalUnicast() || isLinkLocalMulticast(); }
  constexpr bool isGlobalUnicast() const noexcept {
    return !isMulticast() && !isUnspecified() && !isLoopback() && !isLinkLocalUnicast2();
  }
  /// Multicast of scope 4 or wider.
  constexpr bool isRoutableMulticast() const noexcept { return isMulticast() && (octets_[1] & 0x0c) != 0; }
  constexpr bool isPimRouters() const noexcept { return high() == 0xff02'0000'0000'0000 && low() == 0xd; }
  /// fec0::/10.
  constexpr bool isSiteLocal() const noexcept { return high() >> 54 == 0xfec0 >> 6; }
  /// fc00::/7.
  constexpr bool isUniqueLocal() const noexcept { return octets_[0] >> 1 == 0xfc >> 1; }
  /// ::ffff:0:0/96.
  constexpr bool isV4MappedV6() const noexcept { return high() == 0 && low() >> 32 == 0xffff; }

  /// 33:33 and octets 12..15 (RFC 2464).
  EthAddr mcastEtherAddress() const noexcept;
  /// ff02::1:ff00:0/104 with the last three octets of the address (RFC 4291).
  constexpr Ip6Addr solicitedNodeMulticastAddr() const noexcept {
    return {0xff02'0000'0000'0000, 0x1'ff00'0000 | (low() & 0xff'ffff)};
  }
  /// fe80:: with octets 8..15 of an address in fe80::/10; any other address throws `Kiv::RangeException`.
  Ip6Addr validLlUnicastAddress() const;

  /// The first `len` bits set. A `len` above 128 is a programming error.
  static constexpr Ip6Addr maskOfLength(unsigned len) noexcept {
    KIV_ASSERT_AS(len <= 128, "len <= 128");
    return {leadingOnes(len), len > 64 ? leadingOnes(len - 64) : 0};
  }
  /// The address with all bits after the first `len` cleared. A `len` above 128 is a programming error.
  constexpr Ip6Addr ip6AddrMaskedByLength(unsigned len) const noexcept {
    const Ip6Addr mask = maskOfLength(len);
    return {high() & mask.high(), low() & mask.low()};
  }
  /// Number of leading bits in which the two agree: 0..128.
  constexpr unsigned longestCommonPrefix(const Ip6Addr& other) const noexcept {
    const U64 difference = high() ^ other.high();
    return static_cast<unsigned>(difference != 0 ? std::countl_zero(difference)
                                                 : 64 + std::countl_zero(low() ^ other.low()));
  }

  friend constexpr Ip6Addr operator&(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return {a.high() & b.high(), a.low() & b.low()};
  }
  friend constexpr Ip6Addr operator|(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return {a.high() | b.high(), a.low() | b.low()};
  }
  friend constexpr Ip6Addr operator~(const Ip6Addr& a) noexcept { return {~a.high(), ~a.low()}; }

  friend constexpr bool operator==(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return ((a.high() ^ b.high()) | (a.low() ^ b.low())) == 0;
  }
  /// As 128-bit numbers, octet 0 most significant.
  friend constexpr std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    if (a.high() != b.high()) return a.high() <=> b.high();
    return a.low() <=> b.low();
  }

  constexpr U32 hash() const noexcept {
    U32 h = 0;
    for (const U64 half : {high(), low()}) {
      h = Kiv::hashMix(static_cast<U32>(half >> 32) ^ h);
      h = Kiv::hashMix(static_cast<U32>(half) ^ h);
    }
    return h;
  }
  constexpr U32 hash(U32 seed) const noexcept {
    Kiv::SeededHash mixer(seed);
    for (const U64 half : {high(), low()}) {
      mixer.add(static_cast<U32>(half >> 32)).add(static_cast<U32>(half));
    }
    return mixer.value();
  }

  static Kiv::ParseError parse(std::string_view& text, Ip6Addr& out) noexcept;
  /// The compressed form (RFC 5952), without allocating: at most `size` - 1 characters and a NUL, nothing for
  /// size 0. Returns the number of characters written. A buffer of `kMaxText` + 1 holds every address.
  unsigned printToBuffer(char* buf, unsigned size) const noexcept;
  /// Eight groups of four digits.
  Kiv::String stringValueExpanded() const;
  /// As `stringValueIs`, but the text "::" throws "Ip6Addr: address is not expanded".
  void stringValueExpandedIs(std::string_view text);

  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Ip6Addr& address) {
    log.octetsIs(address.octets_);
    return log;
  }
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Ip6Addr& address) {
    log.octets(address.octets_);
    return log;
  }

 private:
  // Spelled out so that the compilers see one load and a byte swap.
  constexpr U64 loadBigEndian(std::size_t i) const noexcept {
    const auto octet = [&](std::size_t k) { return static_cast<U64>(octets_[i + k]) << (56 - 8 * k); };
    return octet(0) | octet(1) | octet(2) | octet(3) | octet(4) | octet(5) | octet(6) | octet(7);
  }
  constexpr void storeBigEndian(std::size_t i, U64 value) noexcept {
    for (std::size_t k = 0; k < 8; ++k) octets_[i + k] = static_cast<U8>(value >> (56 - 8 * k));
  }
  constexpr U64 high() const noexcept { return loadBigEndian(0); }
  constexpr U64 low() const noexcept { return loadBigEndian(8); }
  static constexpr U64 leadingOnes(unsigned count) noexcept {
    return count == 0 ? 0 : count >= 64 ? ~U64{0} : ~U64{0} << (64 - count);
  }

  std::array<U8, 16> octets_;
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1 && std::is_trivially_copyable_v<Ip6Addr>);
static_assert(sizeof(Ip6AddrU8Key) == 1 && std::is_trivially_copyable_v<Ip6AddrU8Key>);

inline constexpr Ip6Addr ip6AddrZero;
inline constexpr Ip6Addr ip6AddrLoopback(0, 1);
inline constexpr Ip6Addr ip6AddrAllNodes(0xff02'0000'0000'0000, 1);
inline constexpr Ip6Addr ip6AddrAllRouters(0xff02'0000'0000'0000, 2);
inline constexpr Ip6Addr ip6AddrAllHosts(0xff02'0000'0000'0000, 3);
inline constexpr Ip6Addr ip6AddrPimRouters(0xff02'0000'0000'0000, 0xd);
inline constexpr Ip6Addr ip6AddrVrrp(0xff02'0000'0000'0000, 0x12);
inline constexpr Ip6Addr ip6AddrMld(0xff02'0000'0000'0000, 0x16);
/// The base of link-local multicast, ff02::.
inline constexpr Ip6Addr ip6AddrLinkLocalBase(0xff02'0000'0000'0000, 0);
/// ::ffff:127.0.0.1 and ::ffff:127.0.0.0.
inline constexpr Ip6Addr ip6AddrV4MappedLoopback(0, 0xffff'7f00'0001);
inline constexpr Ip6Addr ip6AddrV4MappedLoopbackBase(0, 0xffff'7f00'0000);

/// Reads one address from [`pos`, `end`) and moves `pos` behind it. A failure throws `Kiv::RangeException` and
/// changes neither `out` nor `pos`.
KIV_API void Ip6AddrFromString(Ip6Addr& out, Kiv::String::IteratorConst& pos,
                               const Kiv::String::IteratorConst& end);

/// fe80::/64 and the modified EUI-64 of `mac` (RFC 4291 appendix A): ff:fe in the middle, the universal/local
/// bit inverted.
KIV_API Ip6Addr ip6LinkLocalFromMac(const EthAddr& mac) noexcept;

}  // namespace Wirl

template <>
struct std::hash<Wirl::Ip6Addr> {
  std::size_t operator()(const Wirl::Ip6Addr& address) const noexcept { return address.hash(); }
};
