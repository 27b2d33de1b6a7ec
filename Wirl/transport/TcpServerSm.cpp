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

/// Failures of accept(2) that concern the one connection, which is gone then: the peer gave up, or its network
/// failed.
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

/// More connections than those of one event wait for the next.
constexpr U32 kAcceptsOfEvent = 256;

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
std::optional<TcpServerSm::Event> TcpServerSm::enter(State entered) {
  watchDel();
  onReadable_.drop();
  deadlineDel();
  switch (entered) {
    case State::opening:
      return open();
    case State::listening:
      return listen();
    case State::full:
      break;
    case State::paused:
      deadlineIs(acceptPause());
      break;
    case State::waiting:
      backoffDeadlineIs();
      socket_ = nullptr;
      put(listeningPort, U16{0});
      break;
    case State::disabled:
      backoffReset();
      clockDel();
      socket_ = nullptr;
      put(listeningPort, U16{0});
      break;
  }
  return std::nullopt;
}

std::optional<TcpServerSm::Event> TcpServerSm::open() {
  try {
    if (localAddr().af() == AddressFamily::ipunknown) throw Kiv::ErrnoException(EAFNOSUPPORT, "bind");
    socket_ = openSocket(localAddr().af(), false, true);
    const int queue = static_cast<int>(std::min(backlog(), U32{INT_MAX}));
    if (::listen(socket_->descriptor(), queue) < 0) throw Kiv::ErrnoException(errno, "listen");
  } catch (...) {
    put(openErrors, openErrors() + 1);
    failureIs();
    return Event::failed;
  }
  backoffReset();
  detail::SockAddr local;
  getsockname(socket_->descriptor(), local.get(), &local.length());
  put(listeningPort, local.port());
  return Event::opened;
}

std::optional<TcpServerSm::Event> TcpServerSm::listen() {
  if (openConnections() >= maxConnections()) return Event::limit;
  try {
    watchIs(socket_);
    acceptedOfEvent_ = 0;
    onReadable_ = Kiv::Reactor(watch()->readableCount, [this] {
      if (!prepared()) return;
      const Kiv::Ptr<TcpServerSm> alive(references() > 0 ? this : nullptr);
      acceptedOfEvent_ = 0;
      put(readableCount, readableCount() + 1);
      notifyChanged();
    });
    watch()->notifyOnReadableIs(true);
    watch()->enabledIs(true);
  } catch (...) {
    put(acceptErrors, acceptErrors() + 1);
    failureIs();
    return Event::exhausted;
  }
  return std::nullopt;
}

TcpServerConnection::PtrConst TcpServerSm::accept() {
  const Kiv::Ptr<TcpServerSm> alive(references() > 0 ? this : nullptr);
  notifyChanged();
  prepare();
  for (int failed = 0; state() == State::listening && acceptedOfEvent_ < kAcceptsOfEvent;) {
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
        put(accepted, accepted() + 1);
        if (openConnections() >= maxConnections()) step(*this, Event::limit);
        return connection;
      }
      ::close(fd);
      errno = ENOMEM;
    }
    const int error = errno;
    if (error == EAGAIN) break;
    put(acceptErrors, acceptErrors() + 1);
    failureIs(Kiv::ErrnoException(error, "accept"));
    if (endsTheSocket(error)) {
      step(*this, Event::failed);
    } else if (!concernsOne(error) || ++failed == kFailuresInARow) {
      step(*this, Event::exhausted);
    }
  }
  notifyChanged();
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
