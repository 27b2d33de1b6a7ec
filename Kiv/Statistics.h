// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>
#include <vector>

#include "Kiv/ActivityLoop.h"
#include "Kiv/String.h"
#include "Kiv/Time.h"
#include "Kiv/Types.h"

namespace Kiv {

/// What a loop has done since it is measured (`ActivityLoop::measuredIs`). Times are those of the monotonic
/// clock, also where the loop itself runs on simulated time.
struct LoopStatistics {
  /// What a reactor ran for.
  enum class Event : U8 { readable, writable, clock, posted };
  static constexpr unsigned kEvents = 4;  ///< How many values `Event` has.

  /// The longest run of the reactors to one source: a descriptor or a clock by its name, or "posted" work.
  struct Slow {
    String name;                    ///< At most `kNameBytes` octets of it.
    Event event = Event::readable;  ///< What the reactors ran for.
    Time longest{};                 ///< How long the longest run took.
  };
  static constexpr unsigned kSlowest = 8;     ///< How many sources are kept.
  static constexpr unsigned kNameBytes = 47;  ///< How much of a name is kept.

  U64 passes = 0;             ///< How often the loop came round.
  U64 events[kEvents] = {};   ///< Indexed by `Event`.
  Time measured{};            ///< How long the loop has been measured.
  Time inReactors{};          ///< How much of this was spent in reactors and posted work.
  std::vector<Slow> slowest;  ///< The longest run first, each name and event once, `kSlowest` at most.

  /// The sum over all kinds.
  U64 allEvents() const noexcept {
    U64 sum = 0;
    for (const U64 each : events) sum += each;
    return sum;
  }
};

/// The name of an enumerator: "readable" and so on.
KIV_API std::string_view eventName(LoopStatistics::Event event) noexcept;

/// A loop of this process.
struct LoopOfThread {
  ActivityLoop::Handle loop;
  S32 thread = 0;  ///< The thread's number in the kernel, as gettid(2) gives it.
};

/// The loops of the threads of this process, in the order in which they were made. May be called from any
/// thread. A loop may end at any time; its handle then refuses work.
KIV_API std::vector<LoopOfThread> activityLoops();

}  // namespace Kiv
