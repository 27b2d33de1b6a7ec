// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Whether text may follow what is read.
enum class Extent { front, whole };

/// The octets read from the front of a text, as a number whose least significant octet is the first, and the
/// number of characters that they took: 0 if they were not there. Small enough to be returned in registers.
struct Taken {
  Kiv::U64 octets;  // undefined if `length` is 0
  std::size_t length;

  /// Itself, or nothing if text follows that may not.
  constexpr Taken within(std::size_t size, Extent extent) const noexcept {
    return extent == Extent::whole && length != size ? Taken{0, 0} : *this;
  }
};

}  // namespace Wirl::detail
