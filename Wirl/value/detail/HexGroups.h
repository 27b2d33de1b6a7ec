// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Simd.h"

namespace Wirl::detail {

using EthOctets = std::array<Kiv::U8, 6>;
using EuiOctets = std::array<Kiv::U8, 8>;

// Reading octets from the front of a text: groups of hexadecimal digits, all joined by colons or all by
// hyphens (an octet each) or all by full stops (two octets each). Returns the characters that they took; 0,
// with `out` unchanged, when they are not there.

std::size_t takeHexGroupsLoop(std::string_view text, EthOctets& out) noexcept;
std::size_t takeHexGroupsLoop(std::string_view text, EuiOctets& out) noexcept;
#if WIRL_HAS_SSSE3
WIRL_SSSE3 std::size_t takeHexGroupsSsse3(const char* text, std::size_t size, EthOctets& out) noexcept;
#endif

inline std::size_t takeHexGroups(std::string_view text, EthOctets& out) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return takeHexGroupsSsse3(text.data(), text.size(), out);
#endif
  return takeHexGroupsLoop(text, out);
}

inline std::size_t takeHexGroups(std::string_view text, EuiOctets& out) noexcept {
  return takeHexGroupsLoop(text, out);
}

/// Two digits an octet, joined by colons, and a NUL; returns the length without the NUL.
unsigned writeHexGroups(const EthOctets& octets, char* out) noexcept;
unsigned writeHexGroups(const EuiOctets& octets, char* out) noexcept;

/// Four digits a group, joined by full stops, and a NUL; returns the length without the NUL.
unsigned writeDottedHexGroups(const EthOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
