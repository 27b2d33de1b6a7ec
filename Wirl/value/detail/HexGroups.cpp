// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/HexGroups.h"

#include <algorithm>
#include <array>

namespace Wirl::detail {

namespace {

using Kiv::U32;
using Kiv::U8;

constexpr Kiv::ParseError kInvalid = "Invalid EthAddr";

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

template <std::size_t N>
Kiv::ParseError takeOctets(std::string_view& text, std::span<U8, N> out) noexcept {
  std::array<U8, N> octets;
  std::size_t count = 0;
  std::size_t at = 0;
  char separator = '\0';
  for (;;) {
    const std::size_t start = at;
    U32 group = 0;
    for (int digit; at < text.size() && (digit = hexDigit(text[at])) >= 0; ++at) {
      group = std::min<U32>(group, 0xffff) << 4 | static_cast<U32>(digit);
    }
    if (at == start) return kInvalid;
    if (count == 0) {
      if (at == text.size()) return kInvalid;
      separator = text[at];
      if (separator != ':' && separator != '-' && separator != '.') return kInvalid;
    }
    if (group > (separator == '.' ? 0xffff : 0xff)) return kInvalid;
    if (separator == '.') octets[count++] = static_cast<U8>(group >> 8);
    octets[count++] = static_cast<U8>(group);
    if (count == N) break;
    if (at == text.size() || text[at] != separator) return kInvalid;
    ++at;
  }
  std::copy(octets.begin(), octets.end(), out.begin());
  text.remove_prefix(at);
  return nullptr;
}

constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

Kiv::ParseError takeHexGroups(std::string_view& text, std::span<U8, 6> out) noexcept {
  return takeOctets(text, out);
}

Kiv::ParseError takeHexGroups(std::string_view& text, std::span<U8, 8> out) noexcept {
  return takeOctets(text, out);
}

unsigned writeHexGroups(std::span<const U8> octets, char* out) noexcept {
  char* at = out;
  for (const U8 octet : octets) {
    *at++ = kDigits[octet >> 4];
    *at++ = kDigits[octet & 15];
    *at++ = ':';
  }
  *--at = '\0';
  return static_cast<unsigned>(at - out);
}

}  // namespace Wirl::detail
