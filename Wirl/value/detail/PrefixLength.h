// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <string_view>

#include "Kiv/Representation.h"
#include "Kiv/Types.h"

namespace Wirl::detail {

/// Reads a slash and a decimal length from the front of `text`; a length above 2^32 - 1 gives 2^32.
constexpr Kiv::ParseError takePrefixLength(std::string_view& text, Kiv::U64& len) noexcept {
  std::string_view rest = text;
  if (!Kiv::takeLiteral(rest, "/") || !Kiv::takeDecimal(rest, 0xffff'ffff, len)) {
    return "premature end of Prefix type";
  }
  text = rest;
  return nullptr;
}

/// Writes `separator`, `number` in decimal and a NUL (12 octets at most); returns the length without the NUL.
inline unsigned writeNumber(char separator, Kiv::U32 number, char* out) noexcept {
  *out = separator;
  char* const end = std::to_chars(out + 1, out + 11, number).ptr;
  *end = '\0';
  return static_cast<unsigned>(end - out);
}

}  // namespace Wirl::detail
