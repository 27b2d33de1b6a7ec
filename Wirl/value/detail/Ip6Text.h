// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Ip6Grammar.h"
#include "Wirl/value/detail/Simd.h"

namespace Wirl::detail {

/// Of a text of at least four characters.
#if WIRL_HAS_SSSE3
WIRL_SSSE3 Ip6Outline ip6OutlineSsse3(const char* text, std::size_t size) noexcept;
#endif

inline Ip6Outline ip6OutlineOf(std::string_view text) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return ip6OutlineSsse3(text.data(), text.size());
#endif
  return ip6OutlineLoop(text);
}

/// An address in hexadecimal, and which of its digits the text shows.
struct Ip6Hex {
  std::array<char, 32> digits;
  Kiv::U32 significant;  // bit 4i+k: digit k of group i is not zero, or the last one
  Kiv::U32 zeros;        // bit i: group i is zero
};

Ip6Hex ip6HexLoop(const std::array<Kiv::U8, 16>& octets) noexcept;
#if WIRL_HAS_SSSE3
WIRL_SSSE3 Ip6Hex ip6HexSsse3(const std::array<Kiv::U8, 16>& octets) noexcept;
#endif

inline Ip6Hex ip6HexOf(const std::array<Kiv::U8, 16>& octets) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return ip6HexSsse3(octets);
#endif
  return ip6HexLoop(octets);
}

}  // namespace Wirl::detail
