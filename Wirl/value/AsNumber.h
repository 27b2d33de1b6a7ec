// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/value/detail/Number.h"

namespace Wirl {

/// Autonomous-system number of four octets (RFC 6793). Reads the three texts of RFC 5396: asplain (65536),
/// asdot and asdot+ (1.0, 0.65535); prints asplain.
class KIV_API AsNumber : public detail::Number<AsNumber, Kiv::U32> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid AsNumber";
  static constexpr Kiv::ParseError kTooLarge = "AsNumber::value > 4294967295 not allowed";

  using Number::Number;

  /// Fits the two octets of old speakers; for others they see `kTrans`.
  constexpr bool isTwoOctets() const noexcept { return value_ <= 0xffff; }
  /// 64512 to 65534 and 4200000000 to 4294967294 (RFC 6996).
  constexpr bool isPrivate() const noexcept {
    return (value_ >= 64512 && value_ <= 65534) || (value_ >= 4'200'000'000 && value_ <= 4'294'967'294);
  }
  /// 64496 to 64511 and 65536 to 65551 (RFC 5398).
  constexpr bool isDocumentation() const noexcept {
    return (value_ >= 64496 && value_ <= 64511) || (value_ >= 65536 && value_ <= 65551);
  }
  /// 0 (RFC 7607), 23456 (RFC 6793), 65535 and 4294967295 (RFC 7300): never the number of a system.
  constexpr bool isReserved() const noexcept {
    return value_ == 0 || value_ == kTrans || value_ == 0xffff || value_ == 0xffff'ffff;
  }
  /// What stands in two octets for a longer number (RFC 6793).
  static constexpr Kiv::U32 kTrans = 23456;

  /// As 65535 or 1.0.
  Kiv::String asdot() const { return isTwoOctets() ? stringValue() : asdotPlus(); }
  /// As 0.65535 or 1.0.
  Kiv::String asdotPlus() const {
    char text[11];
    char* const end = writeAsdotPlus(text);
    return {text, static_cast<std::size_t>(end - text)};
  }
  /// Without a NUL, at most 11 characters; returns the end.
  char* writeAsdotPlus(char* out) const noexcept {
    char* at = detail::putDecimal(out, value_ >> 16);
    *at++ = '.';
    return detail::putDecimal(at, value_ & 0xffff);
  }

  static constexpr Kiv::ParseError parse(std::string_view& text, AsNumber& out) noexcept {
    std::string_view rest = text;
    Kiv::U32 high = 0;
    Kiv::U32 low = 0;
    if (!detail::takeNumber(rest, 0xffff, high) || !Kiv::takeLiteral(rest, ".") || rest.empty() ||
        rest[0] < '0' || rest[0] > '9') {
      return Number::parse(text, out);
    }
    if (!detail::takeNumber(rest, 0xffff, low)) return kTooLarge;
    out.value_ = high << 16 | low;
    text = rest;
    return nullptr;
  }
};

static_assert(std::is_trivially_copyable_v<AsNumber> && sizeof(AsNumber) == 4);

}  // namespace Wirl

WIRL_STD_HASH(Wirl::AsNumber)
