// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>

#include "Kiv/Time.h"
#include "Kiv/Types.h"

namespace Wirl::detail {

/// Delays between tries: they double from failure to failure, up to a cap, until a success resets them.
class Backoff {
 public:
  /// The delay before the next try. `min` and `max` are above zero; if min > max, `max` holds.
  constexpr Kiv::Time next(Kiv::Time min, Kiv::Time max) noexcept {
    const Kiv::Time doubled = delay_ > max / 2 ? max : delay_ * 2;
    return delay_ = std::min(std::max(doubled, min), max);
  }
  constexpr void reset() noexcept { delay_ = Kiv::Time::zero(); }

 private:
  Kiv::Time delay_{};
};

/// `delay`, less a random part of up to `percent` of it (100 at most).
Kiv::Time jittered(Kiv::Time delay, Kiv::U8 percent) noexcept;

}  // namespace Wirl::detail
