// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/detail/GenTextForms.h"
#include "Wirl/value/detail/PrefixLength.h"

namespace Wirl {

/// An IPv4 or an IPv6 address with its mask length. Keeps host bits. Default `ipunknown` with length 0.
class KIV_API IpGenAddrWithMask : public detail::GenTextForms<IpGenAddrWithMask> {
 public:
  static constexpr unsigned kTextMax = Ip6Addr::kTextMax + 4;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpGenAddrWithMask";

  constexpr IpGenAddrWithMask() noexcept = default;
  /// A length that the family does not have throws `Kiv::RangeException`. The unknown family has the lengths
  /// of IPv6.
  constexpr IpGenAddrWithMask(IpAddr address, Kiv::U64 len) : IpGenAddrWithMask(IpGenAddr(address), len) {}
  constexpr IpGenAddrWithMask(const Ip6Addr& address, Kiv::U64 len)
      : IpGenAddrWithMask(IpGenAddr(address), len) {}
  constexpr IpGenAddrWithMask(const IpGenAddr& address, Kiv::U64 len)
      : address_(address), len_(static_cast<Kiv::U32>(len)) {
    if (const Kiv::ParseError error = checkLen(address, len)) detail::throwRange(error);
  }
  constexpr IpGenAddrWithMask(const IpAddrWithMask& value)
      : IpGenAddrWithMask(value.address(), value.len()) {}
  constexpr IpGenAddrWithMask(const Ip6AddrWithMask& value)
      : IpGenAddrWithMask(value.address(), value.len()) {}
  /// From text as 10.1.2.3/24 or 2001:db8::1/64; throws `Kiv::RangeException`.
  constexpr explicit IpGenAddrWithMask(std::string_view text) { stringValueIs(text); }
  explicit IpGenAddrWithMask(std::nullptr_t) = delete;

  constexpr AddressFamily af() const noexcept { return address_.af(); }
  constexpr const IpGenAddr& ipGenAddr() const noexcept { return address_; }
  /// 0.0.0.0 and :: when the family is another one.
  constexpr IpAddr v4Addr() const noexcept { return address_.v4Addr(); }
  constexpr Ip6Addr v6Addr() const noexcept { return address_.v6Addr(); }
  constexpr Kiv::U32 len() const noexcept { return len_; }

  /// The network that the address is in.
  constexpr IpGenPrefix subnet() const { return IpGenPrefix(address_.maskedByLength(len_), len_); }
  /// Whether the address is of the same family and network.
  constexpr bool contains(const IpGenAddr& address) const noexcept {
    return address.af() == af() && address_.longestCommonPrefix(address) >= len_;
  }

  /// An address, a slash, the length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenAddrWithMask& out) noexcept {
    std::string_view rest = text;
    IpGenAddr address;
    Kiv::U64 len = 0;
    if (const Kiv::ParseError error = IpGenAddr::parse(rest, address)) return error;
    if (const Kiv::ParseError error = detail::takePrefixLength(rest, len)) return error;
    if (const Kiv::ParseError error = checkLen(address, len)) return error;
    out.address_ = address;
    out.len_ = static_cast<Kiv::U32>(len);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    return hash.add(static_cast<Kiv::U32>(af())).add(address_.storage().hash()).add(len_).value();
  }
  friend constexpr auto operator<=>(const IpGenAddrWithMask&, const IpGenAddrWithMask&) noexcept = default;

 private:
  static constexpr Kiv::ParseError checkLen(const IpGenAddr& address, Kiv::U64 len) noexcept {
    if (len <= address.size() * 8) return nullptr;
    return address.af() == AddressFamily::ipv4 ? "Invalid IPv4 Prefix Length" : "Invalid IPv6 Prefix Length";
  }

  IpGenAddr address_;
  Kiv::U32 len_ = 0;
};

namespace detail {

/// The errors for the parts of a text.
struct MaskRefusals {
  Kiv::ParseError address;
  Kiv::ParseError mask;
  Kiv::ParseError noLength;  // neither a mask nor a number
  Kiv::ParseError badLength;
};

/// Whether a colon or full stop is in front of the text, or behind hexadecimal digits there.
constexpr bool startsAsAddress(std::string_view text) noexcept {
  for (const char c : text) {
    if (hexValue(c) == kNoDigit) return c == ':' || c == '.';
  }
  return false;
}

}  // namespace detail

/// An IPv4 or an IPv6 address with a mask of any bit pattern. Default `ipunknown`, mask and all.
class KIV_API IpGenAddrWithFullMask : public detail::GenTextForms<IpGenAddrWithFullMask> {
 public:
  /// Length of a mask of leading ones only, 0 to 128, or `invalid`.
  class KIV_API PrefixLen : public detail::TextForms<PrefixLen> {
   public:
    /// The marker of a mask that no length stands for.
    static constexpr Kiv::S32 invalid = -1;
    static constexpr Kiv::S32 max = 128;
    static constexpr unsigned kTextMax = 3;
    static constexpr Kiv::ParseError kTrailingText = "Invalid PrefixLen";

    constexpr PrefixLen() noexcept = default;
    /// A value outside `invalid` to `max` throws `Kiv::RangeException`.
    template <std::integral T>
    constexpr PrefixLen(T value) : value_(static_cast<Kiv::S32>(value)) {
      if (std::cmp_less(value, invalid) || std::cmp_greater(value, max)) [[unlikely]]
        detail::throwRange(kOutOfRange);
    }
    /// From its decimal number; throws `Kiv::RangeException`.
    constexpr explicit PrefixLen(std::string_view text) { stringValueIs(text); }
    explicit PrefixLen(std::nullptr_t) = delete;

    constexpr Kiv::S32 value() const noexcept { return value_; }

    static constexpr Kiv::ParseError parse(std::string_view& text, PrefixLen& out) noexcept {
      std::string_view rest = text;
      const bool negative = Kiv::takeLiteral(rest, "-");
      Kiv::U64 value = 0;
      if (!Kiv::takeDecimal(rest, max, value)) return kTrailingText;
      if (value > (negative ? 1 : max)) return kOutOfRange;
      out.value_ = negative ? -static_cast<Kiv::S32>(value) : static_cast<Kiv::S32>(value);
      text = rest;
      return nullptr;
    }
    unsigned writeText(char* out) const noexcept;

    constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(static_cast<Kiv::U32>(value_)); }
    constexpr Kiv::U32 hash(unsigned seed) const noexcept {
      return Kiv::SeededHash(seed).add(static_cast<Kiv::U32>(value_)).value();
    }
    friend constexpr auto operator<=>(PrefixLen, PrefixLen) noexcept = default;

   private:
    static constexpr Kiv::ParseError kOutOfRange =
        "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed";

    Kiv::S32 value_ = invalid;
  };

  static constexpr unsigned kTextMax = 2 * Ip6Addr::kTextMax + 1;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IPv4/IPv6 address";

  constexpr IpGenAddrWithFullMask() noexcept = default;
  /// An address and a mask of different families throw `Kiv::RangeException`.
  constexpr IpGenAddrWithFullMask(const IpGenAddr& address, const IpGenAddr& mask)
      : address_(address), mask_(mask) {
    if (address.af() != mask.af()) [[unlikely]]
      detail::throwRange(kTrailingText);
  }
  constexpr IpGenAddrWithFullMask(IpAddr address, IpAddr mask) noexcept : address_(address), mask_(mask) {}
  constexpr IpGenAddrWithFullMask(const Ip6Addr& address, const Ip6Addr& mask) noexcept
      : address_(address), mask_(mask) {}
  /// The mask of a length. One that the family does not have throws `Kiv::RangeException`; so does `invalid`.
  /// The unknown family has length 0 only.
  constexpr IpGenAddrWithFullMask(const IpGenAddr& address, PrefixLen len)
      : IpGenAddrWithFullMask(address, static_cast<Kiv::U64>(len.value())) {}
  constexpr IpGenAddrWithFullMask(const IpGenAddr& address, Kiv::U64 len)
      : address_(address), mask_(maskOf(address.af(), len)) {}
  constexpr IpGenAddrWithFullMask(IpAddr address, Kiv::U64 len) : address_(address), mask_(v4Mask(len)) {}
  constexpr IpGenAddrWithFullMask(const Ip6Addr& address, Kiv::U64 len)
      : address_(address), mask_(v6Mask(len)) {}
  /// From any text form that `parse` reads; throws `Kiv::RangeException`.
  constexpr explicit IpGenAddrWithFullMask(std::string_view text) { stringValueIs(text); }
  explicit IpGenAddrWithFullMask(std::nullptr_t) = delete;

  constexpr AddressFamily af() const noexcept { return address_.af(); }
  constexpr const IpGenAddr& address() const noexcept { return address_; }
  constexpr const IpGenAddr& mask() const noexcept { return mask_; }

  constexpr PrefixLen prefixLen() const {
    // An IPv4 mask has zeros behind its four octets, so it has at most 32 leading ones.
    const unsigned ones = mask_.storage().longestCommonPrefix(~Ip6Addr());
    if (mask_.storage() != Ip6Addr::maskOfLength(ones)) return PrefixLen::invalid;
    return ones;
  }
  constexpr bool hasPrefixRepr() const { return prefixLen() != PrefixLen::invalid; }

 private:
  // Defined before its use: clang does not evaluate a constexpr template that is defined later.
  template <typename Address>
  static constexpr Kiv::ParseError takeMasked(std::string_view& text, const detail::MaskRefusals& refusals,
                                              unsigned maxLen, IpGenAddrWithFullMask& out) noexcept {
    std::string_view rest = text;
    Address address;
    if (Address::parse(rest, address)) return refusals.address;
    if (!Kiv::takeLiteral(rest, "/") || rest.empty()) return detail::kLenExpected;
    if (detail::startsAsAddress(rest)) {
      Address mask;
      if (Address::parse(rest, mask)) return refusals.mask;
      out = IpGenAddrWithFullMask(address, mask);
    } else {
      Kiv::U64 len = 0;
      if (!Kiv::takeDecimal(rest, maxLen, len)) return refusals.noLength;
      if (len > maxLen) return refusals.badLength;
      out = IpGenAddrWithFullMask(address, static_cast<unsigned>(len));
    }
    text = rest;
    return nullptr;
  }

 public:
  /// An address, a slash, and the mask: an address of the family where a colon or full stop follows its first
  /// digits, else a length in decimal.
  static constexpr Kiv::ParseError parse(std::string_view& text, IpGenAddrWithFullMask& out) noexcept {
    constexpr detail::MaskRefusals kV4 = {"Invalid IPv4 address", "Invalid IPv4 mask", "Invalid IPv4 prefix",
                                          "Invalid IPv4 prefix length"};
    constexpr detail::MaskRefusals kV6 = {"Invalid IPv6 address", "Invalid IPv6 mask", "Invalid IPv6 prefix",
                                          "Invalid IPv6 prefix"};
    switch (detail::familyOfText(text)) {
      case AddressFamily::ipv4:
        return takeMasked<IpAddr>(text, kV4, 32, out);
      case AddressFamily::ipv6:
        return takeMasked<Ip6Addr>(text, kV6, 128, out);
      case AddressFamily::ipunknown:
        break;
    }
    return kTrailingText;
  }
  /// With a length where `hasPrefixRepr()`, else with the mask as an address.
  unsigned writeText(char* out) const noexcept;

  constexpr Kiv::U32 hash() const noexcept { return hash(0); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept {
    Kiv::SeededHash hash(seed);
    hash.add(static_cast<Kiv::U32>(af())).add(address_.storage().hash()).add(mask_.storage().hash());
    return hash.value();
  }
  friend constexpr auto operator<=>(const IpGenAddrWithFullMask&,
                                    const IpGenAddrWithFullMask&) noexcept = default;

 private:
  static constexpr IpAddr v4Mask(Kiv::U64 len) {
    if (len > 32) [[unlikely]]
      detail::throwRange("Invalid IPv4 prefix length");
    return IpAddr(0xff, 0xff, 0xff, 0xff).maskedByLength(len);
  }
  static constexpr Ip6Addr v6Mask(Kiv::U64 len) {
    if (len > 128) [[unlikely]]
      detail::throwRange("Invalid IPv6 prefix");
    return Ip6Addr::maskOfLength(len);
  }
  static constexpr IpGenAddr maskOf(AddressFamily af, Kiv::U64 len) {
    if (af == AddressFamily::ipv4) return v4Mask(len);
    if (af == AddressFamily::ipv6) return v6Mask(len);
    if (len != 0) [[unlikely]]
      detail::throwRange(kTrailingText);
    return IpGenAddr();
  }

  IpGenAddr address_;
  IpGenAddr mask_;
};

static_assert(std::is_trivially_copyable_v<IpGenAddrWithFullMask::PrefixLen> &&
              sizeof(IpGenAddrWithFullMask::PrefixLen) == 4);
static_assert(std::is_trivially_copyable_v<IpGenAddrWithMask> && sizeof(IpGenAddrWithMask) == 24);
static_assert(std::is_trivially_copyable_v<IpGenAddrWithFullMask> && sizeof(IpGenAddrWithFullMask) == 40);

KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpGenAddrWithFullMask::PrefixLen value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddrWithMask& value);
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const IpGenAddrWithFullMask& value);
/// Throws `Kiv::RangeException` for values that no constructor accepts.
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithFullMask::PrefixLen& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithMask& value);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpGenAddrWithFullMask& value);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpGenAddrWithFullMask::PrefixLen> {
  std::size_t operator()(Wirl::IpGenAddrWithFullMask::PrefixLen value) const noexcept { return value.hash(); }
};
template <>
struct std::hash<Wirl::IpGenAddrWithMask> {
  std::size_t operator()(const Wirl::IpGenAddrWithMask& value) const noexcept {
    const Wirl::U128 number = value.ipGenAddr().storage().number();
    return Wirl::detail::stdHash(
        number.high(), number.low() + (Kiv::U64{value.len()} << 32 | static_cast<Kiv::U32>(value.af())));
  }
};
template <>
struct std::hash<Wirl::IpGenAddrWithFullMask> {
  std::size_t operator()(const Wirl::IpGenAddrWithFullMask& value) const noexcept { return value.hash(); }
};
