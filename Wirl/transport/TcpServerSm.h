// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <array>
#include <optional>
#include <ostream>

#include "Wirl/transport/TcpSm.h"

namespace Wirl {

class TcpServerSm;

/// One accepted connection. It counts as open at its server until its last holder lets go of it. To end it
/// without losing data, call its Pam's `close()` and let go of both when the Pam's `closed` is on.
class KIV_API TcpServerConnection final : public TcpFileDescriptor {
 public:
  using PtrConst = Kiv::Ptr<const TcpServerConnection>;
  ~TcpServerConnection() override;

  const IpGenAddr& peerAddr() const noexcept { return peerAddr_; }  ///< The peer's address.
  /// In host order.
  U16 peerPort() const noexcept { return peerPort_; }

 private:
  friend class TcpServerSm;
  struct Counter : Kiv::PtrInterface {
    U32 open = 0;
    TcpServerSm* server = nullptr;  // null once it is gone
  };
  TcpServerConnection(int descriptor, bool edgeTriggered, const IpGenAddr& peerAddr, U16 peerPort,
                      Kiv::Ptr<Counter> counter) noexcept;

  const Kiv::Ptr<Counter> counter_;
  const IpGenAddr peerAddr_;
  const U16 peerPort_;
};

/// Listens for TCP connections and hands them over, up to a number of open ones.
///
///     disabled ──enabledIs(true)──> opening      socket opened in netNs, bound, listening; decided at once
///                                   │   ^  │
///                            failed │   │  └── opened ──┐
///                                   v   │ delay over    v
///                                  waiting           listening  <──┬───────────────────────┐
///                                                     │     │      │ an open one           │ acceptPause
///                                      maxConnections │     │      │ was closed            │ is over
///                                      are open       v     │      │                       │
///                                                    full ──┼──────┘                       │
///                                                           │ accept() failed              │
///                                                           └────────────────────────> paused
///     listening: the socket is of no more use ──> waiting; and, full and paused too: a key was refused
///     from everywhere: enabledIs(false) ──> disabled
///
/// In use:
///
///     auto server = Wirl::tcpServerSmFactory("collector");
///     server->localAddrIs(Wirl::IpGenAddr("10.0.0.1"));
///     server->localPortIs(7000);
///     Kiv::Reactor onReadable(server->readableCount, [&] {
///       while (auto connection = server->accept()) peers.push_back(...);
///     });
///     server->enabledIs(true);
///
/// `readableCount` goes up while connections wait. As with a Pam, the client pulls until null, inside its
/// reactor. Until it does, the machine is told again in every pass of the loop, which then never sleeps: an
/// enabled server needs somebody who accepts. To make connections wait, set `maxConnections` to the number of
/// open ones, or to 0. After `acceptBudget` connections of one event `accept()` gives null too, so that the
/// rest of the loop has its turn; the next event follows.
///
/// With `maxConnections` open, the machine stops watching the socket but keeps the port open: the kernel
/// completes further connections and queues up to `backlog` of them until an open one is closed. It leaves
/// the rest unanswered, so their peers try again.
///
/// If the process or the system runs out of descriptors or memory, the machine accepts nothing for
/// `acceptPause`; waiting connections are not lost. It skips connections that their peers gave up meanwhile.
///
/// The machine throws nothing that the system refuses, such as a missing namespace, interface or address, or
/// a port that is taken: `lastErrorReason` holds the reason, and the next try follows. Once it listens, the
/// socket stays in its namespace, even when that loses its name, and at its interface: if the interface was
/// deleted and made again, disable and enable the machine.
///
/// Disabling closes the port. The kernel resets the connections in its queue; those handed over live on and
/// still count.
class KIV_API TcpServerSm final : public TcpSm {
 public:
  /// Where it stands.
  enum class State : Kiv::U8 { disabled, opening, waiting, listening, full, paused };
  /// What moves it.
  enum class Event : Kiv::U8 { enable, disable, opened, failed, clock, limit, exhausted };

  KIV_ENTITY(TcpServerSm, TcpSm)
  /// Connections that may wait to be accepted, as for listen(2); net.core.somaxconn limits it. When the queue
  /// is full, further peers wait a second and longer.
  KIV_ATTR(U32, backlog, SOMAXCONN)
  /// Connections that may be open at a time; may change at any time, and closes none that is open.
  KIV_ATTR_HOOK(U32, maxConnections, 0xffffffff, handleMaxConnections)
  /// Connections that one event gives; 0: no bound.
  KIV_ATTR(U32, acceptBudget, 256)
  KIV_ATTR_READ(Kiv::Time, acceptPause, std::chrono::milliseconds(100))
  KIV_ATTR_READ(State, state, State::disabled)  ///< Where it stands.
  /// The local port in use (host order), also when the system chose it; 0 unless the port is open.
  KIV_ATTR_READ(U16, listeningPort, 0)
  KIV_ATTR_COUNTER(U32, readableCount)
  KIV_ATTR_READ(U32, accepted, 0)      ///< Connections accepted.
  KIV_ATTR_READ(U32, acceptErrors, 0)  ///< Times that accept(2) failed.
  KIV_ATTR_READ(U32, openErrors, 0)    ///< Times that the port could not be opened.
  KIV_ATTR_DERIVED(U32, openConnections)

  /// Registrations come from `factory`; null: the activity loop's.
  explicit TcpServerSm(Kiv::String name, Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> factory = {});
  ~TcpServerSm() override;

  /// Throws `Kiv::RangeException` for a time that is not above zero.
  void acceptPauseIs(Kiv::Time time);

  /// Whether the port is to be open.
  bool enabled() const noexcept { return state() != State::disabled; }
  /// Opens the port, or closes it. Throws `Kiv::RangeException`, and stays disabled, when the local address
  /// has no family.
  void enabledIs(bool on);

  /// The next connection that waits, non-blocking. Null if there is none, or none may be accepted now.
  /// Reactors are told of what it changes at the end of the readable event. Outside of an event they are told
  /// at once; if one throws, the next call returns the connection.
  TcpServerConnection::PtrConst accept();
  /// Connections handed over that somebody still holds.
  U32 openConnections() const noexcept { return counter_->open; }

  /// The machine: what an event leads to, nothing where it is ignored.
  static constexpr std::optional<State> next(State state, Event event) noexcept {
    return following(kTransitions, state, event);
  }

 private:
  friend class TcpServerConnection;

  static constexpr auto kTransitions = std::to_array<Transition<State, Event>>({
      {State::disabled, Event::enable, State::opening},
      {State::opening, Event::opened, State::listening},
      {State::opening, Event::failed, State::waiting},
      {State::opening, Event::disable, State::disabled},
      {State::waiting, Event::clock, State::opening},
      {State::waiting, Event::disable, State::disabled},
      {State::listening, Event::limit, State::full},
      {State::listening, Event::exhausted, State::paused},
      {State::listening, Event::failed, State::waiting},
      {State::listening, Event::disable, State::disabled},
      {State::full, Event::clock, State::listening},
      {State::full, Event::failed, State::waiting},
      {State::full, Event::disable, State::disabled},
      {State::paused, Event::clock, State::listening},
      {State::paused, Event::failed, State::waiting},
      {State::paused, Event::disable, State::disabled},
  });

  friend class TcpSm;

  std::optional<Event> enter(Change& change, State entered);
  std::optional<Event> open(Change& change);
  std::optional<Event> listen(Change& change);
  TcpServerConnection::PtrConst acceptNext(Change& change);
  void readableEvent();
  void connectionClosed() noexcept;
  void handleMaxConnections();
  void handleClock() override { drive(*this, Event::clock); }
  void handleKeys() override;
  const Kiv::TraceHandle& trace() const noexcept override;
  std::pair<IpGenAddr, U16> endpoint() const override { return {localAddr(), localPort()}; }

  TcpFileDescriptor::PtrConst socket_;      // from opening to disabled
  TcpServerConnection::PtrConst accepted_;  // on its way to the caller
  Change* ofEvent_ = nullptr;               // of the event in progress
  U32 acceptedOfEvent_ = 0;
  U32 eventsNotAccepted_ = 0;
  const Kiv::Ptr<TcpServerConnection::Counter> counter_;
  Kiv::Reactor onReadable_;
};

KIV_API std::ostream& operator<<(std::ostream& out, TcpServerSm::State state);
KIV_API std::ostream& operator<<(std::ostream& out, TcpServerSm::Event event);

/// Makes a machine on the activity loop.
KIV_API Kiv::Ptr<TcpServerSm> tcpServerSmFactory(Kiv::String name);

}  // namespace Wirl
