// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace Kiv {

/// A point of the monotonic clock or a span of it, in nanoseconds. Takes every finer or equal
/// `std::chrono` duration: `loop.now() + 5ms`.
using Time = std::chrono::nanoseconds;

/// Later than everything: nothing is pending.
inline constexpr Time timeInfinite = Time::max();

/// `seconds` as a span, cut to whole nanoseconds; too large a value gives `timeInfinite`, a negative one 0.
constexpr Time timeOfSeconds(double seconds) noexcept {
  if (!(seconds > 0)) return Time::zero();
  return seconds >= 9.2e9 ? timeInfinite : Time(static_cast<Time::rep>(seconds * 1e9));
}

/// `start + span`; saturates at both ends instead of overflowing.
constexpr Time timeAfter(Time start, Time span) noexcept {
  Time::rep sum = 0;
  if (!__builtin_add_overflow(start.count(), span.count(), &sum)) return Time(sum);
  return span > Time::zero() ? timeInfinite : Time::min();
}

}  // namespace Kiv
