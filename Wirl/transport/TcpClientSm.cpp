// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpClientSm.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

Kiv::TraceHandle handle("TcpClientSm");

/// Whether both ends are the same socket: its SYN came back to it and counted as the answer.
bool connectedToItself(int socket, const detail::SockAddr& peer) {
  detail::SockAddr local;
  return getsockname(socket, local.get(), &local.length()) == 0 && local.port() == peer.port() &&
         local.address() == peer.address();
}

}  // namespace

TcpClientSm::TcpClientSm(Kiv::String name, Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> factory)
    : TcpSm(std::move(name), std::move(factory)) {}

TcpClientSm::~TcpClientSm() = default;

void TcpClientSm::connectTimeoutIs(Kiv::Time time) {
  checkPositive(time, "TcpClientSm::connectTimeout <= 0 not allowed");
  connectTimeout.set(time);
}

void TcpClientSm::closeTimeoutIs(Kiv::Time time) {
  checkPositive(time, "TcpClientSm::closeTimeout <= 0 not allowed");
  closeTimeout.set(time);
}

void TcpClientSm::stableTimeIs(Kiv::Time time) {
  if (time < Kiv::Time::zero()) throw Kiv::RangeException("TcpClientSm::stableTime < 0 not allowed");
  stableTime.set(time);
}

const Kiv::TraceHandle& TcpClientSm::trace() const noexcept {
  return handle;
}

void TcpClientSm::enabledIs(bool on) {
  if (on && !enabled()) {
    if (remoteAddr().isUnspecified()) {
      throw Kiv::RangeException("TcpClientSm::remoteAddr unspecified not allowed");
    }
    if (remotePort() == 0) throw Kiv::RangeException("TcpClientSm::remotePort 0 not allowed");
    if (localAddr().af() != AddressFamily::ipunknown && localAddr().af() != remoteAddr().af()) {
      throw Kiv::RangeException("TcpClientSm::localAddr of another family than remoteAddr not allowed");
    }
  }
  again_ = on && state() == State::closing;
  drive(*this, on ? Event::enable : Event::disable);
}

void TcpClientSm::connectionDel() {
  if (connection()) prepare();  // may throw, and then nothing has happened
  if (connection() && Kiv::activityLoop().now() - connectedAt_ >= stableTime()) backoffReset();
  drive(*this, Event::lost);
}

void TcpClientSm::connectionDel(const Kiv::String& reason) {
  Change change(this);
  if (connection()) {
    prepare();
    change.put(failures, failures() + 1);
    failureIs(change, 0, reason.c_str());
  }
  drive(change, *this, Event::lost);
}

void TcpClientSm::connectionGood() noexcept {
  if (connection()) backoffReset();
}

void TcpClientSm::close() {
  again_ = false;
  drive(*this, Event::close);
}

/// What the states do. Returns the event that follows at once, if any.
std::optional<TcpClientSm::Event> TcpClientSm::enter(Change& change, State entered) {
  watchDel();
  deadlineDel();
  const std::unique_ptr<Try> former = std::move(try_);
  if (entered != State::closing) change.put(connection, TcpFileDescriptor::PtrConst());
  switch (entered) {
    case State::disabled:
      backoffReset();
      if (std::exchange(again_, false)) return Event::enable;
      clockDel();
      break;
    case State::connecting:
      change.put(attempts, attempts() + 1);
      return tryToConnect(change, true);
    case State::waiting:
      backoffDeadlineIs();
      break;
    case State::connected:
      connectedAt_ = Kiv::activityLoop().now();
      change.put(connects, connects() + 1);
      change.put(connection, former->socket);
      clockDel();
      break;
    case State::closing:
      // If this fails, the connection is broken, and its user will notice.
      shutdown(connection()->descriptor(), SHUT_WR);
      deadlineIs(closeTimeout());
      break;
  }
  return std::nullopt;
}

/// Starts a try (`first`) or looks at its result. Returns the event if it is decided.
std::optional<TcpClientSm::Event> TcpClientSm::tryToConnect(Change& change, bool first) {
  try {
    if (first) open();
    if (connectedNow()) return Event::established;
    if (first) {
      watchIs(try_->socket);
      try_->onWritable = Kiv::Reactor(watch()->writableCount, [this] {
        if (!prepared()) return;
        Change following(this);
        if (const std::optional<Event> event = tryToConnect(following, false))
          drive(following, *this, *event);
      });
      watch()->notifyOnWritableIs(true);
      watch()->enabledIs(true);
      deadlineIs(connectTimeout());
    }
    return std::nullopt;
  } catch (...) {
    change.put(failures, failures() + 1);
    failureIs(change);
    return Event::failed;
  }
}

void TcpClientSm::open() {
  // Attributes may have changed since the machine was enabled.
  if (remoteAddr().isUnspecified() || remotePort() == 0) throw failed(EDESTADDRREQ, "connect");
  try_.reset(new Try{openSocket(remoteAddr().af(), edgeTriggered(), false), remoteAddr(), remotePort(), {}});
}

/// Calls connect(2) again: starts the attempt, or reports the result of the one in progress.
bool TcpClientSm::connectedNow() const {
  const int fd = try_->socket->descriptor();
  const detail::SockAddr peer(try_->peer, try_->port, scopeOf(*try_->socket));
  if (::connect(fd, peer.get(), peer.length()) == 0 || errno == EISCONN) {
    if (!connectedToItself(fd, peer)) return true;
    const linger abort = {1, 0};  // or it would keep the port for a minute after it is closed
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    throw failed(ECONNREFUSED, "connect");
  }
  if (errno == EINPROGRESS || errno == EALREADY || errno == EINTR) return false;
  throw failed(errno, "connect");
}

void TcpClientSm::handleClock() {
  Change change(this);
  Event event = Event::clock;
  if (state() == State::connecting) {
    // The kernel may have decided already: then its result counts.
    if (const std::optional<Event> decided = tryToConnect(change, false)) {
      event = *decided;
    } else {
      change.put(timeouts, timeouts() + 1);
      change.put(failures, failures() + 1);
      callFailed(change, ETIMEDOUT, "connect");
    }
  } else if (state() == State::closing) {
    callFailed(change, ETIMEDOUT, "close");
  }
  drive(change, *this, event);
}

std::ostream& operator<<(std::ostream& out, TcpClientSm::State state) {
  static constexpr const char* kNames[] = {"disabled", "connecting", "waiting", "connected", "closing"};
  return out << kNames[static_cast<std::size_t>(state)];
}

std::ostream& operator<<(std::ostream& out, TcpClientSm::Event event) {
  static constexpr const char* kNames[] = {"enable", "disable", "established", "failed",
                                           "clock",  "lost",    "close"};
  return out << kNames[static_cast<std::size_t>(event)];
}

Kiv::Ptr<TcpClientSm> tcpClientSmFactory(Kiv::String name) {
  return Kiv::makePtr<TcpClientSm>(std::move(name));
}

}  // namespace Wirl
