// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Taken.h"

namespace Wirl::detail {

// The grammars of addresses, one character at a time: for constant expressions, for machines without vector
// instructions, and for unusual texts.

inline constexpr Kiv::U8 kNoDigit = 0xff;

/// The value of each character as a hexadecimal digit, or `kNoDigit`.
inline constexpr auto kHexValues = [] {
  std::array<Kiv::U8, 256> values{};
  values.fill(kNoDigit);
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (Kiv::U8 digit = 0; digit < 16; ++digit) {
    values[static_cast<Kiv::U8>(kDigits[digit])] = digit;
    if (digit > 9) values[static_cast<Kiv::U8>(kDigits[digit] - 'a' + 'A')] = digit;
  }
  return values;
}();

constexpr Kiv::U8 hexValue(char c) noexcept {
  return kHexValues[static_cast<Kiv::U8>(c)];
}

/// Four octets in dotted decimal at the front of `text`.
constexpr Taken takeDottedLoop(std::string_view text) noexcept {
  std::size_t at = 0;
  Kiv::U32 octets = 0;
  for (unsigned i = 0; i < 4; ++i) {
    if (i > 0) {
      if (at == text.size() || text[at] != '.') return {0, 0};
      ++at;
    }
    Kiv::U32 octet = 0;
    const std::size_t start = at;
    for (; at != text.size() && static_cast<Kiv::U8>(text[at] - '0') <= 9; ++at) {
      octet = octet * 10 + static_cast<Kiv::U32>(text[at] - '0');
      if (octet > 255) return {0, 0};
    }
    if (at == start) return {0, 0};
    octets |= octet << 8 * i;
  }
  return {octets, at};
}

/// `size` octets at the front of `text`: groups of hexadecimal digits, all joined by colons or all by hyphens
/// (one octet each) or all by full stops (two octets each). Returns the number of characters, or 0.
constexpr std::size_t takeHexOctets(std::string_view text, Kiv::U8* octets, unsigned size) noexcept {
  std::size_t at = 0;
  char separator = '\0';
  for (unsigned count = 0;;) {
    if (at == text.size() || hexValue(text[at]) == kNoDigit) return 0;
    Kiv::U32 group = 0;
    for (; at != text.size() && hexValue(text[at]) != kNoDigit; ++at) {
      group = group << 4 | hexValue(text[at]);
      if (group > 0xffff) return 0;
    }
    if (count == 0) {
      if (at == text.size()) return 0;
      separator = text[at];
      if (separator != ':' && separator != '-' && separator != '.') return 0;
    }
    if (separator == '.') {
      octets[count++] = static_cast<Kiv::U8>(group >> 8);
    } else if (group > 0xff) {
      return 0;
    }
    octets[count++] = static_cast<Kiv::U8>(group);
    if (count >= size) return at;
    if (at == text.size() || text[at] != separator) return 0;
    ++at;
  }
}

/// The same for six or eight octets, as a number.
constexpr Taken takeHexGroupsLoop(std::string_view text, unsigned size) noexcept {
  std::array<Kiv::U8, 8> octets{};
  const std::size_t length = takeHexOctets(text, octets.data(), size);
  Kiv::U64 word = 0;
  for (unsigned i = 0; i < size; ++i) word |= Kiv::U64{octets[i]} << 8 * i;
  return {word, length};
}

}  // namespace Wirl::detail
