// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The activity loop beside sd-event, in one thread: one of the two drives the other. Needs libsystemd
/// (libsystemd-dev); the library itself does not.

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include <exception>
#include <utility>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Reactor.h"

namespace Wirl {

/// Puts the calling thread's activity loop into an `sd_event` loop, for as long as this object lives.
///
///     Wirl::LoopInSdEvent inside(event);
///     sd_event_loop(event);
///     inside.rethrow();
///
class LoopInSdEvent {
 public:
  /// Throws `Kiv::ErrnoException` if sd-event refuses.
  explicit LoopInSdEvent(sd_event* event) : loop_(&Kiv::activityLoop()), event_(event) {
    const int fd = loop_->descriptor();
    const int result = sd_event_add_io(event, &source_, fd, EPOLLIN, &LoopInSdEvent::ready, this);
    if (result < 0) throw Kiv::ErrnoException(-result, "sd_event_add_io");
  }
  ~LoopInSdEvent() {
    if (gone_) *gone_ = true;
    sd_event_source_disable_unref(source_);
  }
  LoopInSdEvent(const LoopInSdEvent&) = delete;
  LoopInSdEvent& operator=(const LoopInSdEvent&) = delete;

  /// Throws what a reactor threw: that ended `sd_event_loop`, since exceptions cannot pass through it.
  void rethrow() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  }

 private:
  static int ready(sd_event_source*, int, uint32_t, void* adapter) {
    auto* const self = static_cast<LoopInSdEvent*>(adapter);
    const Kiv::Ptr<Kiv::ActivityLoop> loop = self->loop_;
    if (loop->running()) return 0;
    sd_event* const event = self->event_;
    bool gone = false;  // a reactor may destroy the adapter
    self->gone_ = &gone;
    try {
      loop->poll();
    } catch (...) {
      sd_event_exit(event, 1);
      if (!gone) self->failure_ = std::current_exception();
    }
    if (!gone) self->gone_ = nullptr;
    return 0;
  }

  const Kiv::Ptr<Kiv::ActivityLoop> loop_;
  sd_event* const event_;
  sd_event_source* source_ = nullptr;
  bool* gone_ = nullptr;
  std::exception_ptr failure_;
};

/// Lets the activity loop of the calling thread drive an `sd_event` loop. Call `wake()` after adding or
/// enabling a source from outside of sd-event's callbacks: sd-event looks at those when it turns.
class SdEventInLoop {
 public:
  /// Drives `event` from this thread's loop.
  explicit SdEventInLoop(sd_event* event)
      : event_(event),
        clock_(Kiv::makePtr<Kiv::Clock>("SdEventInLoop")),
        descriptor_(Kiv::makePtr<Kiv::FileDescriptor>("SdEventInLoop")) {
    onReady_ = Kiv::Reactor(descriptor_->readableCount, [this] { turn(); });
    onTime_ = Kiv::Reactor(clock_->expiredCount, [this] { turn(); });
    descriptor_->descriptorIs(sd_event_get_fd(event));
    wake();
  }
  ~SdEventInLoop() { descriptor_->descriptorIs(-1); }
  SdEventInLoop(const SdEventInLoop&) = delete;
  SdEventInLoop& operator=(const SdEventInLoop&) = delete;

  /// Has sd-event turn in the next pass of the activity loop.
  void wake() { clock_->timeMinIs(clock_->loop().now()); }

 private:
  static constexpr int kBudget = 64;  // sources served in one turn

  void turn() {
    const Kiv::Ptr<Kiv::Clock> clock = clock_;
    sd_event* const event = event_;
    // The turn that finds nothing has also armed the timers in sd-event's descriptor.
    for (int i = 0; i < kBudget; ++i) {
      if (sd_event_run(event, 0) <= 0) return;
      if (clock->references() == 1) return;  // a callback destroyed this object
    }
    clock->timeMinIs(clock->loop().now());
  }

  sd_event* const event_;
  const Kiv::Ptr<Kiv::Clock> clock_;
  const Kiv::Ptr<Kiv::FileDescriptor> descriptor_;
  Kiv::Reactor onReady_;
  Kiv::Reactor onTime_;
};

}  // namespace Wirl
