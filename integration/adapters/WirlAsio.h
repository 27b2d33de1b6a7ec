// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The activity loop beside Asio, in one thread: one of the two drives the other. Needs Asio's headers
/// (libasio-dev); the library itself does not.

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <memory>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Clock.h"
#include "Kiv/Reactor.h"

namespace Wirl {

/// Puts the calling thread's activity loop into an `io_context`, for as long as this object lives: while that
/// runs in this thread, the activity loop's descriptors, clocks and posted work are served. What a reactor
/// throws leaves through `io_context::run()`, which may be called again.
///
///     asio::io_context io;
///     Wirl::LoopInAsio inside(io);
///     io.run();
///
/// Its wait counts as work: `run()` returns by `io.stop()`, or once this object is gone.
class LoopInAsio {
 public:
  /// Puts this thread's loop into `io`.
  explicit LoopInAsio(asio::io_context& io)
      : loop_(&Kiv::activityLoop()), watched_(std::make_shared<Watched>(io, loop_->descriptor())) {
    wait(*loop_, watched_);
  }
  ~LoopInAsio() {
    watched_->stopped = true;
    watched_->descriptor.release();  // the activity loop owns the descriptor
  }
  LoopInAsio(const LoopInAsio&) = delete;
  LoopInAsio& operator=(const LoopInAsio&) = delete;

 private:
  struct Watched {
    Watched(asio::io_context& io, int fd) : descriptor(io, fd) {}
    asio::posix::stream_descriptor descriptor;
    bool stopped = false;  // completions may be queued when the adapter goes
  };
  struct WaitAgain {
    ~WaitAgain() {
      if (!watched->stopped) wait(loop, watched);
    }
    Kiv::ActivityLoop& loop;
    const std::shared_ptr<Watched>& watched;
  };

  static void wait(Kiv::ActivityLoop& loop, const std::shared_ptr<Watched>& watched) {
    watched->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                   [&loop, watched](const asio::error_code& error) {
                                     if (error || watched->stopped) return;
                                     const WaitAgain again{loop, watched};
                                     if (!loop.running()) loop.poll();
                                   });
  }

  const Kiv::Ptr<Kiv::ActivityLoop> loop_;
  const std::shared_ptr<Watched> watched_;
};

/// Lets the activity loop of the calling thread drive an `io_context`. Asio offers no descriptor to wait for,
/// so a clock looks after the `io_context` every `period`: that is how late its handlers may run. Prefer
/// `LoopInAsio` where latency counts. What a handler throws leaves through the activity loop's `run()`.
class AsioInLoop {
 public:
  /// Drives `io` from this thread's loop, and looks at it once a `period` at least.
  explicit AsioInLoop(asio::io_context& io, Kiv::Time period = std::chrono::milliseconds(1))
      : io_(io), period_(period), clock_(Kiv::makePtr<Kiv::Clock>("AsioInLoop")) {
    onTime_ = Kiv::Reactor(clock_->expiredCount, [this] {
      clock_->timeMinIs(clock_->loop().now() +
                        period_);  // first: a handler may throw, or destroy this object
      if (io_.stopped()) io_.restart();
      io_.poll();
    });
    clock_->timeMinIs(clock_->loop().now());
  }
  AsioInLoop(const AsioInLoop&) = delete;
  AsioInLoop& operator=(const AsioInLoop&) = delete;

 private:
  asio::io_context& io_;
  const Kiv::Time period_;
  const Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Reactor onTime_;
};

}  // namespace Wirl
