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

using DottedOctets = std::array<Kiv::U8, 4>;

// Reading dotted decimal from the front of a text, each function in its own way.

/// By the plain loop. A function of its own so that the fast path ends in a jump and saves no registers.
Taken takeDottedPlainly(std::string_view text, Extent extent) noexcept;
#if WIRL_HAS_SSSE3
/// All of a text, or nothing.
WIRL_SSSE3 Taken takeDottedSsse3(const char* text, std::size_t size) noexcept;
WIRL_SSSE3 Taken takeDottedFrontSsse3(const char* text, std::size_t size) noexcept;
#endif

inline Taken takeDotted(std::string_view text, Extent extent) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return extent == Extent::whole ? takeDottedSsse3(text.data(), text.size())
                                   : takeDottedFrontSsse3(text.data(), text.size());
#endif
  return takeDottedPlainly(text, extent);
}

/// Writes dotted decimal and a NUL, 16 octets at most; returns the length without the NUL.
unsigned writeDotted(const DottedOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
