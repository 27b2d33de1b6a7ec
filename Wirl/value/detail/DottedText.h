// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Simd.h"
#include "Wirl/value/detail/Taken.h"

namespace Wirl::detail {

using DottedOctets = std::array<Kiv::U8, 4>;

// Reading dotted decimal from the front of a text, each function in its own way.

Taken<Kiv::U32> takeDottedLoop(std::string_view text) noexcept;
#if WIRL_HAS_SSSE3
WIRL_SSSE3 Taken<Kiv::U32> takeDottedSsse3(const char* text, std::size_t size, Extent extent) noexcept;
#endif

inline Taken<Kiv::U32> takeDotted(std::string_view text, Extent extent) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return takeDottedSsse3(text.data(), text.size(), extent);
#endif
  return takeDottedLoop(text).within(text.size(), extent);
}

/// Writes dotted decimal and a NUL, 16 octets at most; returns the length without the NUL.
unsigned writeDotted(const DottedOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
