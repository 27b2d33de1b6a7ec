// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The activity loop beside libuv, in one thread: one of the two drives the other. Needs libuv (libuv1-dev);
/// the library itself does not.

#include <uv.h>

#include <exception>
#include <utility>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Reactor.h"

namespace Wirl {

/// Puts the calling thread's activity loop into a libuv loop, for as long as this object lives.
///
///     Wirl::LoopInUv inside(uv_default_loop());
///     uv_run(uv_default_loop(), UV_RUN_DEFAULT);
///     inside.rethrow();
///
/// Its handle keeps `uv_run` from returning; it goes by `uv_stop`. After the destructor the libuv loop has to
/// turn once more before `uv_loop_close`, which frees the handle.
class LoopInUv {
 public:
  /// Throws `Kiv::ErrnoException` if libuv refuses.
  explicit LoopInUv(uv_loop_t* uv) : loop_(&Kiv::activityLoop()), poll_(new uv_poll_t) {
    if (const int error = uv_poll_init(uv, poll_, loop_->descriptor())) {
      delete poll_;
      throw Kiv::ErrnoException(-error, "uv_poll_init");
    }
    poll_->data = this;
    if (const int error = uv_poll_start(poll_, UV_READABLE, &LoopInUv::ready)) {
      close();
      throw Kiv::ErrnoException(-error, "uv_poll_start");
    }
  }
  ~LoopInUv() { close(); }
  LoopInUv(const LoopInUv&) = delete;
  LoopInUv& operator=(const LoopInUv&) = delete;

  /// Throws what a reactor threw: that stopped the libuv loop, since exceptions cannot pass through it.
  void rethrow() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  }

 private:
  static void ready(uv_poll_t* poll, int, int) {
    auto* const self = static_cast<LoopInUv*>(poll->data);
    const Kiv::Ptr<Kiv::ActivityLoop> loop = self->loop_;
    if (loop->running()) return;
    try {
      loop->poll();
    } catch (...) {
      uv_stop(poll->loop);
      if (poll->data) static_cast<LoopInUv*>(poll->data)->failure_ = std::current_exception();
    }
  }
  void close() {
    poll_->data = nullptr;
    uv_poll_stop(poll_);
    uv_close(reinterpret_cast<uv_handle_t*>(poll_),
             [](uv_handle_t* handle) { delete reinterpret_cast<uv_poll_t*>(handle); });
  }

  const Kiv::Ptr<Kiv::ActivityLoop> loop_;
  uv_poll_t* const poll_;  // freed by libuv
  std::exception_ptr failure_;
};

/// Lets the activity loop of the calling thread drive a libuv loop. Call `wake()` after starting a handle or
/// request from outside of libuv's callbacks: libuv looks at those when it turns.
class UvInLoop {
 public:
  /// Drives `uv` from this thread's loop.
  explicit UvInLoop(uv_loop_t* uv)
      : uv_(uv),
        clock_(Kiv::makePtr<Kiv::Clock>("UvInLoop")),
        descriptor_(Kiv::makePtr<Kiv::FileDescriptor>("UvInLoop")) {
    onReady_ = Kiv::Reactor(descriptor_->readableCount, [this] { turn(); });
    onTime_ = Kiv::Reactor(clock_->expiredCount, [this] { turn(); });
    descriptor_->descriptorIs(uv_backend_fd(uv));
    wake();
  }
  ~UvInLoop() { descriptor_->descriptorIs(-1); }
  UvInLoop(const UvInLoop&) = delete;
  UvInLoop& operator=(const UvInLoop&) = delete;

  /// Has libuv turn in the next pass of the activity loop.
  void wake() { clock_->timeMinIs(clock_->loop().now()); }

 private:
  void turn() {
    const Kiv::Ptr<Kiv::Clock> clock = clock_;
    uv_loop_t* const uv = uv_;
    uv_run(uv, UV_RUN_NOWAIT);  // may destroy this object
    if (clock->references() == 1) return;
    const int timeout = uv_backend_timeout(uv);  // milliseconds
    const Kiv::Time now = clock->loop().now();
    clock->timeMinIs(timeout < 0 ? Kiv::timeInfinite : now + std::chrono::milliseconds(timeout));
  }

  uv_loop_t* const uv_;
  const Kiv::Ptr<Kiv::Clock> clock_;
  const Kiv::Ptr<Kiv::FileDescriptor> descriptor_;
  Kiv::Reactor onReady_;
  Kiv::Reactor onTime_;
};

}  // namespace Wirl
