// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpServerSm.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

Kiv::TraceHandle handle("TcpServerSm");

/// Failures of accept(2) that concern the one connection, which is gone then: the peer gave up, or its
/// network failed.
bool concernsOne(int error) {
  switch (error) {
    case ECONNABORTED:
    case EINTR:
    case EPROTO:
    case EPERM:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET:
    case ENOPROTOOPT:
    case EOPNOTSUPP:
      return true;
    default:
      return false;
  }
}

/// Failures that do not pass: it is no listening socket any more (shut down or destroyed by someone).
bool endsTheSocket(int error) {
  return error == EINVAL || error == EBADF || error == ENOTSOCK;
}

/// More of those in a row, and the machine pauses.
constexpr int kFailuresInARow = 64;

/// Readable events without an accept() after which a trace says so.
constexpr U32 kEventsNotAccepted = 1000;

}  // namespace

TcpServerConnection::TcpServerConnection(int descriptor, bool edgeTriggered, const IpGenAddr& peerAddr,
                                         U16 peerPort, Kiv::Ptr<Counter> counter) noexcept
    : TcpFileDescriptor(descriptor, edgeTriggered),
      counter_(std::move(counter)),
      peerAddr_(peerAddr),
      peerPort_(peerPort) {
  ++counter_->open;
}

TcpServerConnection::~TcpServerConnection() {
  --counter_->open;
  if (counter_->server) counter_->server->connectionClosed();
}

TcpServerSm::TcpServerSm(Kiv::String name, Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> factory)
    : TcpSm(std::move(name), std::move(factory)), counter_(Kiv::makePtr<TcpServerConnection::Counter>()) {
  counter_->server = this;
}

TcpServerSm::~TcpServerSm() {
  counter_->server = nullptr;
}

void TcpServerSm::acceptPauseIs(Kiv::Time time) {
  checkPositive(time, "TcpServerSm::acceptPause <= 0 not allowed");
  acceptPause.set(time);
}

const Kiv::TraceHandle& TcpServerSm::trace() const noexcept {
  return handle;
}

void TcpServerSm::enabledIs(bool on) {
  if (on && !enabled() && localAddr().af() == AddressFamily::ipunknown) {
    throw Kiv::RangeException("TcpServerSm::localAddr without family not allowed");
  }
  drive(*this, on ? Event::enable : Event::disable);
}

/// What the states do. Returns the event that follows at once, if any.
std::optional<TcpServerSm::Event> TcpServerSm::enter(Change& change, State entered) {
  watchDel();
  onReadable_.drop();
  deadlineDel();
  switch (entered) {
    case State::opening:
      return open(change);
    case State::listening:
      return listen(change);
    case State::full:
      break;
    case State::paused:
      deadlineIs(acceptPause());
      break;
    case State::waiting:
      backoffDeadlineIs();
      socket_ = nullptr;
      change.put(listeningPort, U16{0});
      break;
    case State::disabled:
      backoffReset();
      clockDel();
      socket_ = nullptr;
      change.put(listeningPort, U16{0});
      break;
  }
  return std::nullopt;
}

std::optional<TcpServerSm::Event> TcpServerSm::open(Change& change) {
  try {
    if (localAddr().af() == AddressFamily::ipunknown) throw failed(EAFNOSUPPORT, "bind");
    socket_ = openSocket(localAddr().af(), false, true);
    const int queue = static_cast<int>(std::min(backlog(), U32{INT_MAX}));
    if (::listen(socket_->descriptor(), queue) < 0) throw failed(errno, "listen");
  } catch (...) {
    change.put(openErrors, openErrors() + 1);
    failureIs(change);
    return Event::failed;
  }
  backoffReset();
  detail::SockAddr local;
  getsockname(socket_->descriptor(), local.get(), &local.length());
  change.put(listeningPort, local.port());
  return Event::opened;
}

std::optional<TcpServerSm::Event> TcpServerSm::listen(Change& change) {
  if (openConnections() >= maxConnections()) return Event::limit;
  try {
    watchIs(socket_);
    acceptedOfEvent_ = 0;
    onReadable_ = Kiv::Reactor(watch()->readableCount, [this] {
      if (prepared()) readableEvent();
    });
    watch()->notifyOnReadableIs(true);
    watch()->enabledIs(true);
  } catch (...) {
    change.put(acceptErrors, acceptErrors() + 1);
    failureIs(change);
    return Event::exhausted;
  }
  return std::nullopt;
}

/// What is accepted in an event is told at its end: then every connection has its owner, whatever reactors
/// throw.
void TcpServerSm::readableEvent() {
  Change change(this);
  const struct End {
    Change*& ofEvent;
    ~End() { ofEvent = nullptr; }
  } end{ofEvent_};
  ofEvent_ = &change;
  acceptedOfEvent_ = 0;
  if (eventsNotAccepted_ < kEventsNotAccepted && ++eventsNotAccepted_ == kEventsNotAccepted) {
    KIV_TRACE(trace(), 0) << name() << ": " << kEventsNotAccepted
                          << " readable events and nobody called accept()";
  }
  change.run([this] { readableCountInc(1); });
  change.tell();
}

TcpServerConnection::PtrConst TcpServerSm::accept() {
  eventsNotAccepted_ = 0;
  prepare();
  if (ofEvent_ && !accepted_) return acceptNext(*ofEvent_);
  Change change(this);
  if (!accepted_) accepted_ = acceptNext(change);
  change.tell();
  return std::exchange(accepted_, nullptr);
}

TcpServerConnection::PtrConst TcpServerSm::acceptNext(Change& change) {
  const auto withinBudget = [this] { return acceptBudget() == 0 || acceptedOfEvent_ < acceptBudget(); };
  for (int failures = 0; state() == State::listening && withinBudget();) {
    detail::SockAddr peer;
    // Not by TcpFileDescriptor::socketAccept(): the peer's address comes with the call.
    const int fd = accept4(socket_->descriptor(), peer.get(), &peer.length(), SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      const TcpServerConnection::PtrConst connection(
          new (std::nothrow) TcpServerConnection(fd, edgeTriggered(), peer.address(), peer.port(), counter_));
      if (connection) {
        KIV_TRACE(trace(), 5) << name() << ": " << peer.address() << " port " << peer.port()
                              << " accepted as " << fd;
        ++acceptedOfEvent_;
        change.put(accepted, accepted() + 1);
        if (openConnections() >= maxConnections()) step(change, *this, Event::limit);
        return connection;
      }
      ::close(fd);
      errno = ENOMEM;
    }
    const int error = errno;
    if (error == EAGAIN) break;
    change.put(acceptErrors, acceptErrors() + 1);
    callFailed(change, error, "accept");
    if (endsTheSocket(error)) {
      step(change, *this, Event::failed);
    } else if (!concernsOne(error) || ++failures == kFailuresInARow) {
      step(change, *this, Event::exhausted);
    }
  }
  return nullptr;
}

/// Runs inside a destructor, under whatever let go of the connection: what follows waits for the loop.
void TcpServerSm::connectionClosed() noexcept {
  if (state() == State::full) deadlineIs(Kiv::Time::zero());
}

void TcpServerSm::handleMaxConnections() {
  if (state() == State::full) deadlineIs(Kiv::Time::zero());
  if (state() == State::listening && openConnections() >= maxConnections()) drive(*this, Event::limit);
}

void TcpServerSm::handleKeys() {
  if (!socket_) return;
  Change change(this);
  try {
    return keysUpdate(*socket_);
  } catch (...) {
    change.put(openErrors, openErrors() + 1);
    failureIs(change);
  }
  // Without the key the socket would take unsigned segments.
  drive(change, *this, Event::failed);
}

std::ostream& operator<<(std::ostream& out, TcpServerSm::State state) {
  static constexpr const char* kNames[] = {"disabled", "opening", "waiting", "listening", "full", "paused"};
  return out << kNames[static_cast<std::size_t>(state)];
}

std::ostream& operator<<(std::ostream& out, TcpServerSm::Event event) {
  static constexpr const char* kNames[] = {"enable", "disable", "opened",   "failed",
                                           "clock",  "limit",   "exhausted"};
  return out << kNames[static_cast<std::size_t>(event)];
}

Kiv::Ptr<TcpServerSm> tcpServerSmFactory(Kiv::String name) {
  return Kiv::makePtr<TcpServerSm>(std::move(name));
}

}  // namespace Wirl
