// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Simd.h"
#include "Wirl/value/detail/Taken.h"

namespace Wirl::detail {

using EthOctets = std::array<Kiv::U8, 6>;
using EuiOctets = std::array<Kiv::U8, 8>;

// Reading octets from the front of a text: groups of hexadecimal digits, all joined by colons or all by
// hyphens (an octet each) or all by full stops (two octets each).

/// Six or eight octets.
Taken<Kiv::U64> takeHexGroupsLoop(std::string_view text, unsigned octets) noexcept;
#if WIRL_HAS_SSSE3
/// Six octets.
WIRL_SSSE3 Taken<Kiv::U64> takeHexGroupsSsse3(const char* text, std::size_t size, Extent extent) noexcept;
#endif

inline Taken<Kiv::U64> takeEthAddr(std::string_view text, Extent extent) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return takeHexGroupsSsse3(text.data(), text.size(), extent);
#endif
  return takeHexGroupsLoop(text, 6).within(text.size(), extent);
}

/// Two digits an octet, joined by colons, and a NUL; returns the length without the NUL.
unsigned writeHexGroups(const EthOctets& octets, char* out) noexcept;
unsigned writeHexGroups(const EuiOctets& octets, char* out) noexcept;

/// Four digits a group, joined by full stops, and a NUL; returns the length without the NUL.
unsigned writeDottedHexGroups(const EthOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
