// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Representation.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// A differentiated services code point (RFC 2474): 0 to 63, the upper six bits of the TOS octet. Its text is
/// the name in the IANA registry (CS0 to CS7, AF11 to AF43, EF, VOICE-ADMIT, LE), or the number where there
/// is none; names are read in either case.
class KIV_API IpDscp : public detail::TextForms<IpDscp> {
 public:
  static constexpr unsigned kTextMax = 11;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpDscp";
  static constexpr Kiv::ParseError kTooLarge = "IpDscp::value > 63 not allowed";
  static constexpr Kiv::U8 maxValue = 63;

  constexpr IpDscp() noexcept = default;
  /// Throws `Kiv::RangeException` for any number but 0 to 63.
  template <std::integral T>
  constexpr IpDscp(T value) : value_(static_cast<Kiv::U8>(value)) {
    if (std::cmp_less(value, 0) || std::cmp_greater(value, maxValue)) detail::throwRange(kTooLarge);
  }
  constexpr explicit IpDscp(std::string_view text) { stringValueIs(text); }
  explicit IpDscp(std::nullptr_t) = delete;
  /// The code point in a TOS octet; the lower two bits (ECN) are dropped.
  static constexpr IpDscp ofTos(Kiv::U8 tos) noexcept {
    IpDscp dscp;
    dscp.value_ = static_cast<Kiv::U8>(tos >> 2);
    return dscp;
  }

  constexpr Kiv::U8 value() const noexcept { return value_; }
  /// As it stands in the TOS octet.
  constexpr Kiv::U8 tos() const noexcept { return static_cast<Kiv::U8>(value_ << 2); }

  static constexpr Kiv::ParseError parse(std::string_view& text, IpDscp& out) noexcept {
    Kiv::U64 value = 0;
    std::string_view rest = text;
    if (Kiv::takeDecimal(rest, maxValue, value)) {
      if (value > maxValue) return kTooLarge;
    } else {
      const std::size_t name = nameAt(rest);
      if (name == kNames.size()) return kTrailingText;
      rest.remove_prefix(kNames[name].text.size());
      value = kNames[name].value;
    }
    out.value_ = static_cast<Kiv::U8>(value);
    text = rest;
    return nullptr;
  }
  unsigned writeText(char* out) const noexcept {
    char* end = out;
    for (const Name& name : kNames) {
      if (name.value == value_) end = std::copy(name.text.begin(), name.text.end(), out);
    }
    if (end == out) end = std::to_chars(out, out + kTextMax, unsigned{value_}).ptr;
    *end = '\0';
    return static_cast<unsigned>(end - out);
  }

  constexpr Kiv::U32 hash() const noexcept { return Kiv::hashMix(value_); }
  constexpr Kiv::U32 hash(unsigned seed) const noexcept { return Kiv::SeededHash(seed).add(value_).value(); }
  friend constexpr auto operator<=>(const IpDscp&, const IpDscp&) noexcept = default;
  friend Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpDscp dscp) { return log << dscp.value_; }
  /// A number above 63 throws `Kiv::RangeException`.
  friend Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpDscp& dscp) {
    Kiv::U8 value = 0;
    log >> value;
    dscp = IpDscp(value);
    return log;
  }

 private:
  struct Name {
    std::string_view text;
    Kiv::U8 value;
  };
  // RFC 2474, 2597, 3246, 5865, 8622. None begins with another one.
  static constexpr std::array<Name, 23> kNames = {
      {{"CS0", 0},   {"CS1", 8},   {"CS2", 16},  {"CS3", 24},  {"CS4", 32},        {"CS5", 40},
       {"CS6", 48},  {"CS7", 56},  {"AF11", 10}, {"AF12", 12}, {"AF13", 14},       {"AF21", 18},
       {"AF22", 20}, {"AF23", 22}, {"AF31", 26}, {"AF32", 28}, {"AF33", 30},       {"AF41", 34},
       {"AF42", 36}, {"AF43", 38}, {"EF", 46},   {"LE", 1},    {"VOICE-ADMIT", 44}}};

  /// Index of the name that the text begins with; the number of names if there is none.
  static constexpr std::size_t nameAt(std::string_view text) noexcept {
    const auto upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    std::size_t at = 0;
    for (; at < kNames.size(); ++at) {
      const std::string_view name = kNames[at].text;
      std::size_t same = 0;
      while (same < name.size() && same < text.size() && name[same] == upper(text[same])) ++same;
      if (same == name.size()) break;
    }
    return at;
  }

  Kiv::U8 value_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpDscp> && sizeof(IpDscp) == 1);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpDscp> {
  std::size_t operator()(Wirl::IpDscp dscp) const noexcept { return dscp.hash(); }
};
