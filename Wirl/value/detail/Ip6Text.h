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

/// Writes the compressed form of RFC 5952 with eight groups, and a NUL; returns the length without the NUL.
unsigned writeIp6GroupsPlainly(const std::array<Kiv::U8, 16>& octets, char* out) noexcept;
#if WIRL_HAS_SSSE3
WIRL_SSSE3 unsigned writeIp6GroupsSsse3(const std::array<Kiv::U8, 16>& octets, char* out) noexcept;
#endif

inline unsigned writeIp6Groups(const std::array<Kiv::U8, 16>& octets, char* out) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return writeIp6GroupsSsse3(octets, out);
#endif
  return writeIp6GroupsPlainly(octets, out);
}

}  // namespace Wirl::detail
