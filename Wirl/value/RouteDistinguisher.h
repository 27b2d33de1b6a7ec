// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/AsNumber.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// Route distinguisher (RFC 4364): two octets of type, six of an administrator and a number of its own.
/// Default 0:0.
///
/// The text tells the type: 65000:100 (type 0, an AS number of two octets), 192.0.2.1:100 (type 1, an IPv4
/// address), 1.0:100 (type 2, an AS number of four octets, as asdot+). A longer AS number in asplain is read
/// as type 2. Any other type is written as 0x and sixteen hexadecimal digits, which are read for every type.
class KIV_API RouteDistinguisher : public detail::Octets<RouteDistinguisher, 8> {
 public:
  static constexpr unsigned kTextMax = 21;
  static constexpr Kiv::ParseError kTrailingText = "Invalid RouteDistinguisher";

  using Octets::Octets;
  /// Type 0 where the AS number has two octets, else type 2. Type 2 admits a `number` of two octets only; a
  /// larger one throws `Kiv::RangeException`.
  constexpr RouteDistinguisher(AsNumber as, Kiv::U32 number) {
    if (as.isTwoOctets()) {
      *this = made(0, Kiv::U64{as.value()} << 32 | number);
    } else if (number <= 0xffff) {
      *this = made(2, Kiv::U64{as.value()} << 16 | number);
    } else {
      detail::throwRange(kTooLarge);
    }
  }
  /// Type 1.
  constexpr RouteDistinguisher(IpAddr address, Kiv::U16 number) noexcept
      : RouteDistinguisher(made(1, Kiv::U64{address.hostOrder()} << 16 | number)) {}

  constexpr Kiv::U16 type() const noexcept { return static_cast<Kiv::U16>(octets_[0] << 8 | octets_[1]); }
  /// The administrator of types 0 and 2; else 0.
  constexpr AsNumber as() const noexcept {
    return type() == 0 ? AsNumber(value() >> 32) : type() == 2 ? AsNumber(value() >> 16) : AsNumber();
  }
  /// The administrator of type 1; else 0.0.0.0.
  constexpr IpAddr address() const noexcept {
    return type() == 1 ? IpAddr::fromHostOrder(static_cast<Kiv::U32>(value() >> 16)) : IpAddr();
  }
  /// The number that the administrator gave: of four octets in type 0, of two in types 1 and 2; else 0.
  constexpr Kiv::U32 number() const noexcept {
    return type() == 0 ? static_cast<Kiv::U32>(value()) : type() <= 2 ? value() & 0xffff : 0;
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, RouteDistinguisher& out) noexcept {
    std::string_view rest = text;
    if (Kiv::takeLiteral(rest, "0x")) {
      for (unsigned i = 0; i < 16; ++i) {
        if (i >= rest.size() || detail::hexValue(rest[i]) == detail::kNoDigit) return kTrailingText;
      }
      for (unsigned i = 0; i < 8; ++i) {
        out.octets_[i] =
            static_cast<Kiv::U8>(detail::hexValue(rest[2 * i]) << 4 | detail::hexValue(rest[2 * i + 1]));
      }
      text = rest.substr(16);
      return nullptr;
    }
    IpAddr address;
    AsNumber as;
    Kiv::U32 number = 0;
    if (!IpAddr::parse(rest, address)) {
      if (!takeOwn(rest, 0xffff, number)) return kTrailingText;
      out = RouteDistinguisher(address, static_cast<Kiv::U16>(number));
    } else {
      if (AsNumber::parse(rest, as)) return kTrailingText;
      const bool dotted = text.substr(0, text.size() - rest.size()).find('.') != text.npos;
      const bool four = dotted || !as.isTwoOctets();
      if (!takeOwn(rest, four ? 0xffff : 0xffff'ffff, number)) return kTrailingText;
      out = four ? made(2, Kiv::U64{as.value()} << 16 | number) : RouteDistinguisher(as, number);
    }
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* at = out;
    if (type() == 0) {
      at = detail::putDecimal(at, as().value());
    } else if (type() == 1) {
      at += address().writeText(at);
    } else if (type() == 2) {
      at = as().writeAsdotPlus(at);
    } else {
      constexpr char kDigits[] = "0123456789abcdef";
      *at++ = '0';
      *at++ = 'x';
      for (const Kiv::U8 octet : octets_) {
        *at++ = kDigits[octet >> 4];
        *at++ = kDigits[octet & 15];
      }
      *at = '\0';
      return 18;
    }
    *at++ = ':';
    at = detail::putDecimal(at, number());
    *at = '\0';
    return static_cast<unsigned>(at - out);
  }

 private:
  static constexpr Kiv::ParseError kTooLarge = "RouteDistinguisher::number > 65535 not allowed";

  static constexpr bool takeOwn(std::string_view& text, Kiv::U64 max, Kiv::U32& number) noexcept {
    return Kiv::takeLiteral(text, ":") && detail::takeNumber(text, max, number);
  }
  static constexpr RouteDistinguisher made(Kiv::U16 type, Kiv::U64 value) noexcept {
    RouteDistinguisher made;
    value |= Kiv::U64{type} << 48;
    for (unsigned i = 0; i < 8; ++i) made.octets_[i] = static_cast<Kiv::U8>(value >> (56 - 8 * i));
    return made;
  }
  constexpr Kiv::U64 value() const noexcept {
    Kiv::U64 value = 0;
    for (unsigned i = 2; i < 8; ++i) value = value << 8 | octets_[i];
    return value;
  }
};

static_assert(std::is_trivially_copyable_v<RouteDistinguisher> && sizeof(RouteDistinguisher) == 8);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::RouteDistinguisher)
