// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpClientSm.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Kiv/Trace.h"
#include "Wirl/transport/detail/SockAddr.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("TcpClientSm");

/// Whether both ends are one: the SYN met its own sender, and that was an answer.
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
  handle(on ? Event::enable : Event::disable);
}

void TcpClientSm::handle(Event event) {
  std::optional<Event> pending = event;
  while (pending) {
    const std::optional<State> to = next(state(), *pending);
    if (!to) break;
    KIV_TRACE(trace, 5) << name() << ": " << state() << " -> " << *to << " on " << *pending;
    put(state, *to);
    pending = enter(*to);
  }
  notifyChanged();
}

/// What the states do. Returns the event that follows at once, if any.
std::optional<TcpClientSm::Event> TcpClientSm::enter(State entered) {
  watchDel();
  deadlineDel();
  const std::unique_ptr<Try> former = std::move(try_);
  if (entered != State::closing) put(connection, TcpFileDescriptor::PtrConst());
  switch (entered) {
    case State::disabled:
      backoffReset();
      break;
    case State::connecting:
      put(attempts, attempts() + 1);
      return tryToConnect(true);
    case State::waiting:
      backoffDeadlineIs();
      break;
    case State::connected:
      backoffReset();
      put(connects, connects() + 1);
      put(connection, former->socket);
      break;
    case State::closing:
      // Where it fails the connection is broken, as its user will find.
      shutdown(connection()->descriptor(), SHUT_WR);
      deadlineIs(closeTimeout());
      break;
  }
  return std::nullopt;
}

/// Begins (`first`), or sees how it has gone; the event, if it is decided.
std::optional<TcpClientSm::Event> TcpClientSm::tryToConnect(bool first) {
  try {
    if (first) open();
    if (connectedNow()) return Event::established;
    if (first) {
      watchIs(try_->socket);
      try_->onWritable = Kiv::Reactor(watch()->writableCount, [this] {
        if (const std::optional<Event> event = tryToConnect(false)) handle(*event);
      });
      watch()->notifyOnWritableIs(true);
      watch()->enabledIs(true);
      deadlineIs(connectTimeout());
    }
    return std::nullopt;
  } catch (const Kiv::ErrnoException& failure) {
    fail(failure);
    return Event::failed;
  }
}

void TcpClientSm::open() {
  // Attributes may have changed since the machine was enabled.
  if (remoteAddr().isUnspecified()) throw Kiv::ErrnoException(EDESTADDRREQ, "connect");
  try_.reset(new Try{openSocket(remoteAddr().af(), edgeTriggered(), false), remoteAddr(), remotePort(), {}});
}

/// Asks by connect(2), which begins what has not begun, and tells what has become of what has.
bool TcpClientSm::connectedNow() const {
  const int fd = try_->socket->descriptor();
  const detail::SockAddr peer(try_->peer, try_->port, scopeOf(*try_->socket));
  if (::connect(fd, peer.get(), peer.length()) == 0 || errno == EISCONN) {
    if (connectedToItself(fd, peer)) throw Kiv::ErrnoException(ECONNREFUSED, "connect");
    return true;
  }
  if (errno == EINPROGRESS || errno == EALREADY || errno == EINTR) return false;
  throw Kiv::ErrnoException(errno, "connect");
}

void TcpClientSm::handleClock() {
  if (state() == State::connecting) {
    put(timeouts, timeouts() + 1);
    fail(Kiv::ErrnoException(ETIMEDOUT, "connect"));
  }
  handle(Event::clock);
}

void TcpClientSm::fail(const Kiv::ErrnoException& failure) {
  put(failures, failures() + 1);
  failureIs(failure);
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
