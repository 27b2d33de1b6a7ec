// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Whether text may follow what is read.
enum class Extent { front, whole };

/// What stood at the front of a text: octets as a number, the first one least significant, and how many
/// characters they took; none when they were not there. Small enough to be returned in registers.
struct Taken {
  Kiv::U64 octets;  // of no meaning where `length` is 0
  std::size_t length;

  /// Itself, but nothing when there is more text and none may follow.
  constexpr Taken within(std::size_t size, Extent extent) const noexcept {
    return extent == Extent::whole && length != size ? Taken{0, 0} : *this;
  }
};

}  // namespace Wirl::detail
