// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Kiv/ActivityLoop.h"
#include "Kiv/Entity.h"
#include "Kiv/Time.h"

namespace Kiv {

/// Fires once at a set time of its loop: clears its pending time, then counts `expiredCount` up.
///
///     auto clock = Kiv::makePtr<Kiv::Clock>("retry");
///     Kiv::Reactor onRetry(clock->expiredCount, [&] { connect(); });
///     clock->timeMinIs(Kiv::activityLoop().now() + 250ms);
///
/// It fires at or after the time, never before; clocks of equal times fire in the order in which they were
/// set. A time set from a reactor fires in a later pass of the loop, even when it is past already, so that a
/// clock that keeps setting itself does not keep descriptors from being served.
class KIV_API Clock : public Entity {
 public:
  KIV_ENTITY(Clock, Entity)
  KIV_ATTR_DERIVED(Time, timeMin)
  KIV_ATTR_COUNTER(U32, expiredCount)

  /// A clock of the calling thread's loop.
  explicit Clock(String name);
  ~Clock() override;

  /// The pending time; infinite when there is none.
  Time timeMin() const noexcept { return timeMin_; }
  /// Sets or moves the pending time; `timeInfinite` cancels it. Takes no memory.
  void timeMinIs(Time time) noexcept;
  /// The loop that drives it.
  ActivityLoop& loop() const noexcept { return *loop_; }

 private:
  friend class ActivityLoop;

  const Ptr<ActivityLoop> loop_;
  Time timeMin_ = timeInfinite;
  // Where the loop has it: a position in one of the loop's lists of clocks.
  enum class Place : U8 { none, fresh, heap, due } place_ = Place::none;
  std::size_t index_ = 0;
};

}  // namespace Kiv
