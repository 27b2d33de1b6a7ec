// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The activity loop beside libevent, in one thread: one of the two drives the other. Needs libevent
/// (libevent-dev); the library itself does not.

#include <event2/event.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/Reactor.h"

namespace Wirl {

/// Puts the calling thread's activity loop into an `event_base`, for as long as this object lives.
///
///     Wirl::LoopInEvent inside(base);
///     event_base_dispatch(base);
///     inside.rethrow();
///
/// Its event keeps `event_base_dispatch` from returning; it goes by `event_base_loopbreak`.
class LoopInEvent {
 public:
  /// Throws `Kiv::ErrnoException` if libevent refuses.
  explicit LoopInEvent(event_base* base) : loop_(&Kiv::activityLoop()), base_(base) {
    event_ = event_new(base, loop_->descriptor(), EV_READ | EV_PERSIST, &LoopInEvent::ready, this);
    if (!event_) throw Kiv::ErrnoException(ENOMEM, "event_new");
    if (event_add(event_, nullptr) != 0) {
      event_free(event_);
      throw Kiv::ErrnoException(EINVAL, "event_add");
    }
  }
  ~LoopInEvent() {
    if (gone_) *gone_ = true;
    event_free(event_);
  }
  LoopInEvent(const LoopInEvent&) = delete;
  LoopInEvent& operator=(const LoopInEvent&) = delete;

  /// Throws what a reactor threw: that broke off `event_base_dispatch`, since exceptions cannot pass through
  /// it.
  void rethrow() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  }

 private:
  static void ready(evutil_socket_t, short, void* adapter) {
    auto* const self = static_cast<LoopInEvent*>(adapter);
    const Kiv::Ptr<Kiv::ActivityLoop> loop = self->loop_;
    if (loop->running()) return;
    event_base* const base = self->base_;
    bool gone = false;  // a reactor may destroy the adapter
    self->gone_ = &gone;
    try {
      loop->poll();
    } catch (...) {
      event_base_loopbreak(base);
      if (!gone) self->failure_ = std::current_exception();
    }
    if (!gone) self->gone_ = nullptr;
  }

  const Kiv::Ptr<Kiv::ActivityLoop> loop_;
  event_base* const base_;
  event* event_ = nullptr;
  bool* gone_ = nullptr;
  std::exception_ptr failure_;
};

/// Lets the activity loop of the calling thread drive an `event_base`. libevent offers no descriptor to wait
/// for, so a clock looks after it every `period`: that is how late its callbacks may run. Prefer
/// `LoopInEvent` where latency counts.
class EventInLoop {
 public:
  /// Drives `base` from this thread's loop, and looks at it once a `period` at least.
  explicit EventInLoop(event_base* base, Kiv::Time period = std::chrono::milliseconds(1))
      : base_(base), period_(period), clock_(Kiv::makePtr<Kiv::Clock>("EventInLoop")) {
    onTime_ = Kiv::Reactor(clock_->expiredCount, [this] {
      clock_->timeMinIs(clock_->loop().now() + period_);  // first: a callback may destroy this object
      event_base_loop(base_, EVLOOP_NONBLOCK);
    });
    clock_->timeMinIs(clock_->loop().now());
  }
  EventInLoop(const EventInLoop&) = delete;
  EventInLoop& operator=(const EventInLoop&) = delete;

 private:
  event_base* const base_;
  const Kiv::Time period_;
  const Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Reactor onTime_;
};

}  // namespace Wirl
