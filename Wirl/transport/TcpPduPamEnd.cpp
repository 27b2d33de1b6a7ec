// SPDX-License-Identifier: Apache-2.0
// How a `TcpPduPam` ends: in order and in time.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "Kiv/Exception.h"
#include "Wirl/transport/TcpPduPam.h"
#include "Wirl/transport/detail/TcpPduPamTrace.h"

namespace Wirl {

using detail::tcpPduPamTrace;

struct TcpPduPam::Deadlines {
  const Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("TcpPduPam");
  Kiv::Reactor onClock;
  static constexpr Kiv::Time kCloseTimeout = std::chrono::seconds(5);
  Kiv::Time idleTimeout{}, writeTimeout{}, closeTimeout = kCloseTimeout;
  Kiv::Time heardAt = clock->loop().now();  // when the last octets came
  Kiv::Time sentAt = Kiv::timeInfinite;  // when the full socket took the last ones; infinite while it is not
  Kiv::Time closedAt{};                  // when close() was called
  Kiv::Time heldAt = Kiv::timeInfinite;  // since when a PDU waits for its client
};

void TcpPduPam::DeadlinesDelete::operator()(Deadlines* deadlines) const noexcept {
  delete deadlines;
}

TcpPduPam::Deadlines& TcpPduPam::deadlines() {
  if (!deadlines_) {
    auto made = std::unique_ptr<Deadlines, DeadlinesDelete>(new Deadlines);
    if (writer_.blocked()) made->sentAt = made->heardAt;
    made->onClock = Kiv::Reactor(made->clock->expiredCount, [this] { handleDeadline(); });
    deadlines_ = std::move(made);
  }
  return *deadlines_;
}

Kiv::Time TcpPduPam::idleTimeout() const noexcept {
  return deadlines_ ? deadlines_->idleTimeout : Kiv::Time();
}

Kiv::Time TcpPduPam::writeTimeout() const noexcept {
  return deadlines_ ? deadlines_->writeTimeout : Kiv::Time();
}

Kiv::Time TcpPduPam::closeTimeout() const noexcept {
  return deadlines_ ? deadlines_->closeTimeout : Deadlines::kCloseTimeout;
}

void TcpPduPam::idleTimeoutIs(Kiv::Time time) {
  if (time < Kiv::Time::zero()) throw Kiv::RangeException("TcpPduPam::idleTimeout < 0 not allowed");
  deadlines().idleTimeout = time;
  deadlinesSet();
}

void TcpPduPam::writeTimeoutIs(Kiv::Time time) {
  if (time < Kiv::Time::zero()) throw Kiv::RangeException("TcpPduPam::writeTimeout < 0 not allowed");
  deadlines().writeTimeout = time;
  deadlinesSet();
}

void TcpPduPam::closeTimeoutIs(Kiv::Time time) {
  if (time < Kiv::Time::zero()) throw Kiv::RangeException("TcpPduPam::closeTimeout < 0 not allowed");
  deadlines().closeTimeout = time;
  deadlinesSet();
}

// Deadlines -------------------------------------------------------------------------------------------------

namespace {

/// After this time a trace asks why nobody pulls a PDU.
constexpr Kiv::Time kHeld = std::chrono::seconds(10);

Kiv::Time due(bool runs, Kiv::Time since, Kiv::Time timeout) noexcept {
  return runs && timeout > Kiv::Time::zero() ? Kiv::timeAfter(since, timeout) : Kiv::timeInfinite;
}

}  // namespace

Kiv::Time TcpPduPam::idleDue() const noexcept {
  return due(fd() && readModeEnabled() && !readingIsOver(), deadlines_->heardAt, idleTimeout());
}

Kiv::Time TcpPduPam::writeDue() const noexcept {
  return due(writer_.blocked(), deadlines_->sentAt, writeTimeout());
}

Kiv::Time TcpPduPam::closeDue() const noexcept {
  return due(closing() && !(shutDown_ && readingIsOver()), deadlines_->closedAt, closeTimeout());
}

Kiv::Time TcpPduPam::heldDue() const noexcept {
  return due(readable(), deadlines_->heldAt, kHeld);
}

void TcpPduPam::deadlinesSet() noexcept {
  if (!deadlines_) return;
  deadlines_->clock->timeMinIs(std::min({idleDue(), writeDue(), closeDue(), heldDue()}));
}

/// The idle time starts over. The clock is left alone: it looks when it expires.
void TcpPduPam::heardNow() noexcept {
  heard_ = false;
  if (deadlines_) deadlines_->heardAt = deadlines_->clock->loop().now();
}

/// Follows a full socket, which took octets before (`some`) or not, and one that has room.
void TcpPduPam::blockedNow(bool some) noexcept {
  if (!deadlines_ || (!some && deadlines_->sentAt != Kiv::timeInfinite)) return;
  deadlines_->sentAt = deadlines_->clock->loop().now();
  if (writeDue() < deadlines_->clock->timeMin()) deadlinesSet();
}

void TcpPduPam::unblockedNow() noexcept {
  if (deadlines_) deadlines_->sentAt = Kiv::timeInfinite;
}

/// Follows an event that has left a PDU to its client: from here on the socket is not watched. Each pull
/// resets `eventsNotPulled_`.
void TcpPduPam::heldNow() noexcept {
  if (eventsNotPulled_ > 0) return;
  try {
    Deadlines& own = deadlines();
    own.heldAt = own.clock->loop().now();
    eventsNotPulled_ = 1;
    if (heldDue() < own.clock->timeMin()) deadlinesSet();
  } catch (const std::bad_alloc&) {
    // Then nobody asks.
  }
}

void TcpPduPam::handleDeadline() {
  const auto alive = Kiv::keepAlive(this);
  const Kiv::Time now = deadlines_->clock->loop().now();
  if (heldDue() <= now) {
    deadlines_->heldAt = Kiv::timeInfinite;
    if (eventsNotPulled_ == 0) {
      heldNow();  // another PDU
    } else {
      KIV_TRACE(tcpPduPamTrace, 0) << "a PDU waits for 10 s and nobody called rxPkt()" << *this;
    }
  }
  if (writeDue() <= now || (closeDue() <= now && !shutDown_)) return handleWriteError(ETIMEDOUT);
  if (closeDue() <= now) return handleReadError({TcpPduPamReadReturn::error, ETIMEDOUT, "Close timeout"});
  if (idleDue() <= now) {
    // What the client has not pulled, or the loop not reported, did arrive.
    int waiting = 0;
    ioctl(fileDescriptor()->descriptor(), FIONREAD, &waiting);
    if (!heard_ && waiting == 0 && !readable() && !reader_.hasMore()) {
      return handleReadError({TcpPduPamReadReturn::error, ETIMEDOUT, "Idle timeout"});
    }
    heardNow();
  }
  deadlinesSet();
}

// Closing ---------------------------------------------------------------------------------------------------

void TcpPduPam::close() {
  if (closing_ || !fd()) return;
  closed.notifiees();  // takes the memory that the attribute needs
  Deadlines& own = deadlines();
  own.closedAt = own.clock->loop().now();
  KIV_TRACE(tcpPduPamTrace, 5) << "Closing" << *this;
  closing_ = true;
  deadlinesSet();
  const auto alive = Kiv::keepAlive(this);
  writableSet(false);
  if (writer_.queued() > 0 && !writer_.blocked()) txFlush();
  closeSending();
}

/// Tells the peer that no more follows, once all is sent.
void TcpPduPam::closeSending() {
  if (!closing_ || shutDown_ || !fd() || !writer_.idle()) return;
  shutDown_ = true;
  // If this fails, the connection is broken, and reading says so.
  shutdown(fileDescriptor()->descriptor(), SHUT_WR);
  if (!rxErrorReason().empty()) closed.set(true);
  deadlinesSet();
}

}  // namespace Wirl
