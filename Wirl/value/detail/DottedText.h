// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/value/detail/Simd.h"

namespace Wirl::detail {

using DottedOctets = std::array<Kiv::U8, 4>;

/// What stood at the front of a text: octets, and how many characters they took; none when there were none.
struct Dotted {
  DottedOctets octets;
  std::size_t length;
};

/// Reads dotted decimal from the front of `text`, each in its own way.
Dotted takeDottedLoop(std::string_view text) noexcept;
#if WIRL_HAS_SSSE3
WIRL_SSSE3 Dotted takeDottedSsse3(const char* text, std::size_t size) noexcept;
#endif

inline Dotted takeDotted(std::string_view text) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return takeDottedSsse3(text.data(), text.size());
#endif
  return takeDottedLoop(text);
}

/// Writes dotted decimal and a NUL, 16 octets at most; returns the length without the NUL.
unsigned writeDotted(const DottedOctets& octets, char* out) noexcept;

}  // namespace Wirl::detail
