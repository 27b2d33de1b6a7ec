// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/PlainText.h"
#include "Wirl/value/detail/Simd.h"
#include "Wirl/value/detail/Taken.h"

namespace Wirl::detail {

using EthOctets = std::array<Kiv::U8, 6>;
using EuiOctets = std::array<Kiv::U8, 8>;

// Reading octets from the front of a text: groups of hexadecimal digits, all joined by colons or all by
// hyphens (an octet each) or all by full stops (two octets each).

/// Six octets that are all of a text, by the plain loop. A function of its own so that the fast path ends in
/// a jump and saves no registers.
Taken takeHexGroupsPlainly(std::string_view text) noexcept;
#if WIRL_HAS_SSSE3
/// Six octets that are all of a text.
WIRL_SSSE3 Taken takeHexGroupsSsse3(const char* text, std::size_t size) noexcept;
#endif

/// Six octets that are all of a text, in the fastest way that the machine has.
inline Taken takeEthAddr(std::string_view text) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return takeHexGroupsSsse3(text.data(), text.size());
#endif
  return takeHexGroupsPlainly(text);
}

/// Two digits an octet, joined by colons, and a NUL; returns the length without the NUL.
unsigned writeHexGroups(const EthOctets& octets, char* out) noexcept;
unsigned writeHexGroups(const EuiOctets& octets, char* out) noexcept;

/// Four digits a group, joined by full stops, and a NUL; returns the length without the NUL.
unsigned writeDottedHexGroups(const EthOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
