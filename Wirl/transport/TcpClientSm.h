// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <ostream>

#include "Wirl/transport/TcpSm.h"

namespace Wirl {

/// Keeps one TCP connection to a server: connects, retries after failures, hands over the connected socket,
/// and connects again when its user reports the connection lost.
///
///                 enabledIs(true)                 socket opened in netNs, bound, connect() under way
///     disabled ───────────────────> connecting ───────────────────────────────────┐
///                                   │       ^                                     │ established
///                     failed, or    │       │ the delay                           │
///                     connectTimeout│       │ is over                             v
///                                   v       │          connectionDel()
///                                  waiting  <──────────────────────────────── connected
///
///     close() while connected ──> closing ──> disabled     on connectionDel() or after closeTimeout, and at
///                                                          once to connecting if enabled anew meanwhile
///     close() while connecting or waiting, and enabledIs(false) from everywhere ──> disabled
///
/// In use:
///
///     auto client = Wirl::tcpClientSmFactory("toCollector");
///     client->remoteAddrIs(Wirl::IpGenAddr("10.0.0.1"));
///     client->remotePortIs(7000);
///     Kiv::Reactor onConnection(client->connection, [&] {
///       pam = client->connection() ? Wirl::simpleTcpPduPamFactory(client->connection(), factory) : nullptr;
///     });
///     client->enabledIs(true);
///
/// and when the Pam reports `rxErrorReason` or `txErrorReason`, call `connectionDel()`.
///
/// The machine watches the socket only while it is connecting; the user watches the connection. Both hold the
/// socket, which closes when the last of them drops it. So disabling the machine closes nothing that a user
/// still holds.
///
/// To end without losing data in either direction, call the Pam's `close()` and, when its `closed` is on,
/// `enabledIs(false)`. Without a Pam, send everything and call `close()` here, which tells the peer that no
/// more follows. The peer closes too once it has sent the rest. The user reports that end with
/// `connectionDel()` as always, and the machine is disabled. If the peer does not close within
/// `closeTimeout`, the machine is disabled anyway, and `lastErrorReason` says so. A user who already knew of
/// the peer's end calls `connectionDel()` right after `close()`. Closing a socket with unread data resets the
/// connection: the peer loses what it has not read yet. A machine that is enabled while it closes connects
/// when that is over.
///
/// The machine throws nothing that the network or the system refuses, not even for a missing namespace or
/// interface: `lastErrorReason` holds the reason, and the next try follows. A connection to itself, which TCP
/// permits if the client's own port is the one that it calls, counts as refused.
class KIV_API TcpClientSm final : public TcpSm {
 public:
  /// Where it stands.
  enum class State : Kiv::U8 { disabled, connecting, waiting, connected, closing };
  /// What moves it.
  enum class Event : Kiv::U8 { enable, disable, established, failed, clock, lost, close };

  KIV_ENTITY(TcpClientSm, TcpSm)
  KIV_ATTR(IpGenAddr, remoteAddr)  ///< The server's address.
  /// In host order.
  KIV_ATTR(U16, remotePort, 0)
  /// How long one try may take; the system's own limit of some two minutes holds as well.
  KIV_ATTR_RARE_READ(Kiv::Time, connectTimeout, std::chrono::seconds(10))
  /// How long `close()` waits for the peer.
  KIV_ATTR_RARE_READ(Kiv::Time, closeTimeout, std::chrono::seconds(5))
  /// A connection that lasted this long starts the back-off over.
  KIV_ATTR_RARE_READ(Kiv::Time, stableTime, std::chrono::seconds(10))
  KIV_ATTR_READ(State, state, State::disabled)  ///< Where it stands.
  /// The connected socket, non-blocking; null unless `connected` or `closing`.
  KIV_ATTR_READ(TcpFileDescriptor::PtrConst, connection)
  KIV_ATTR_READ(U32, attempts, 0)  ///< Attempts to connect.
  KIV_ATTR_READ(U32, connects, 0)
  KIV_ATTR_READ(U32, failures, 0)
  KIV_ATTR_READ(U32, timeouts, 0)  // of the failures

  /// Registrations come from `factory`; null: the activity loop's.
  explicit TcpClientSm(Kiv::String name, Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> factory = {});
  ~TcpClientSm() override;

  /// Throw `Kiv::RangeException` for a time that is not above zero; `stableTime` may be zero.
  void connectTimeoutIs(Kiv::Time time);
  void closeTimeoutIs(Kiv::Time time);
  void stableTimeIs(Kiv::Time time);

  bool enabled() const noexcept { return state() != State::disabled; }  ///< Whether it connects.
  /// Begins to connect, or ends whatever is under way. Throws `Kiv::RangeException`, and stays disabled, when
  /// there is no remote address or port, or the local address is of the other family.
  void enabledIs(bool on);
  /// Lets go of a connection that is of no more use and connects again when the back-off is over, or ends
  /// when `closing`. Does nothing without a connection.
  void connectionDel();
  /// The same for a connection that failed, as one whose peer accepts it and then refuses to talk: it counts
  /// in `failures`, `reason` becomes `lastErrorReason` (`lastError` is 0), and the back-off goes on, however
  /// long the connection lasted.
  void connectionDel(const Kiv::String& reason);
  /// The connection turned out well, for example since the peer has logged in: starts the back-off over.
  void connectionGood() noexcept;
  /// Ends in order; see above. What the user has not given to the socket by then cannot be sent any more.
  void close();

  /// The machine: what an event leads to, nothing where it is ignored.
  static constexpr std::optional<State> next(State state, Event event) noexcept {
    return following(kTransitions, state, event);
  }

 private:
  static constexpr auto kTransitions = std::to_array<Transition<State, Event>>({
      {State::disabled, Event::enable, State::connecting},
      {State::connecting, Event::established, State::connected},
      {State::connecting, Event::failed, State::waiting},
      {State::connecting, Event::clock, State::waiting},
      {State::connecting, Event::disable, State::disabled},
      {State::connecting, Event::close, State::disabled},
      {State::waiting, Event::clock, State::connecting},
      {State::waiting, Event::disable, State::disabled},
      {State::waiting, Event::close, State::disabled},
      {State::connected, Event::lost, State::waiting},
      {State::connected, Event::disable, State::disabled},
      {State::connected, Event::close, State::closing},
      {State::closing, Event::lost, State::disabled},
      {State::closing, Event::clock, State::disabled},
      {State::closing, Event::disable, State::disabled},
  });

  friend class TcpSm;

  std::optional<Event> enter(Change& change, State entered);
  std::optional<Event> tryToConnect(Change& change, bool first);
  void open();
  bool connectedNow() const;
  void handleClock() override;
  const Kiv::TraceHandle& trace() const noexcept override;
  std::pair<IpGenAddr, U16> endpoint() const override { return {remoteAddr(), remotePort()}; }

  /// One try to connect.
  struct Try {
    TcpFileDescriptor::PtrConst socket;
    IpGenAddr peer;
    U16 port;
    Kiv::Reactor onWritable;
  };
  std::unique_ptr<Try> try_;  // while connecting
  bool again_ = false;        // enabled anew while closing
  Kiv::Time connectedAt_{};
};

KIV_API std::ostream& operator<<(std::ostream& out, TcpClientSm::State state);
KIV_API std::ostream& operator<<(std::ostream& out, TcpClientSm::Event event);

/// Makes a machine on the activity loop.
KIV_API Kiv::Ptr<TcpClientSm> tcpClientSmFactory(Kiv::String name);

}  // namespace Wirl
