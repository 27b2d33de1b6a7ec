// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/Reactor.h"
#include "Kiv/Trace.h"
#include "Wirl/transport/TcpFd.h"
#include "Wirl/transport/TcpSocketOptions.h"
#include "Wirl/transport/detail/Backoff.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/NamespaceName.h"

namespace Wirl {

/// Base of the state machines of TCP connections, `TcpClientSm` and `TcpServerSm`.
///
/// Each is driven by its table of transitions: an event without a row for the present state is ignored. One
/// switch holds what the states do on entry. Every transition first ends the watch on the socket and the
/// deadline. All attributes are stored first; reactors run when the machine is at rest, once for each
/// attribute that changed (a try that fails at once leaves `state` as it was, and shows in `attempts` and
/// `failures`). They may set anything, disable the machine or drop the last pointer to it. If one throws, the
/// others run before the exception leaves.
///
/// Whatever goes wrong while a socket is opened or watched, even an exception of a user's factory, counts as
/// a failure like those of the network: the next try follows.
///
/// The attributes with a setter may change at any time. The machine reads those of the socket when it opens
/// one, times when a wait of their kind begins, and a server's `edgeTriggered` with each connection.
class KIV_API TcpSm : public Kiv::Entity {
 public:
  KIV_ENTITY(TcpSm, Kiv::Entity)
  /// Where the socket is bound; `ipunknown`, and port 0 (in host order): the system's choice.
  KIV_ATTR_RARE(IpGenAddr, localAddr)
  KIV_ATTR_RARE(U16, localPort)  ///< The port to bind, host order; 0: the system's choice.
  /// The interface that the socket is tied to, also the scope of link-local addresses; empty: none.
  KIV_ATTR_RARE(Kiv::String, interface)
  KIV_ATTR_RARE(NamespaceName, netNs, NamespaceName("default"))
  /// How the connections report readiness.
  KIV_ATTR_RARE(bool, edgeTriggered)
  /// After a failure the next try waits `backoffMin`, then twice as long each time, up to `backoffMax`; a
  /// success starts over. Each delay is shortened by a random part of up to `backoffJitter` percent, so that
  /// many machines do not try in step.
  KIV_ATTR_RARE_READ(Kiv::Time, backoffMin, std::chrono::milliseconds(500))
  /// The longest pause between two attempts.
  KIV_ATTR_RARE_READ(Kiv::Time, backoffMax, std::chrono::seconds(30))
  KIV_ATTR_RARE(Kiv::U8, backoffJitter, Kiv::U8{25})  ///< How far pauses vary by chance, in per cent.
  /// The errno of the last failure, and the call and text, as "connect: Connection refused". They stay.
  KIV_ATTR_RARE_READ(S32, lastError, 0)
  KIV_ATTR_RARE_READ(Kiv::String, lastErrorReason)  ///< What failed last.

  /// Throw `Kiv::RangeException` for a time that is not above zero.
  void backoffMinIs(Kiv::Time time);
  void backoffMaxIs(Kiv::Time time);

  /// Further options of the sockets: made at the first call, or shared with other machines by `optionsIs`.
  /// Null: the defaults of `TcpSocketOptions`, and no memory for them.
  const Kiv::Ptr<TcpSocketOptions>& options();
  void optionsIs(const Kiv::Ptr<TcpSocketOptions>& options);
  /// Called with each new socket, between socket(2) and bind(2), behind all options: for what no attribute
  /// sets. An exception counts as a failure of the try.
  using SocketHook = std::function<void(int socket, AddressFamily af)>;
  /// Runs `hook` with each new socket, before it connects or listens.
  void socketHookIs(SocketHook hook);
  ~TcpSm() override;

 protected:
  /// Makes the registrations that watch sockets.
  using Factory = Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>;
  /// One row of the table: what an event does in a state.
  template <typename State, typename Event>
  struct Transition {
    State from;   ///< Where it stands.
    Event event;  ///< What happens.
    State to;     ///< Where it stands then.
  };
  /// What the table says; nothing where it has no row.
  template <typename State, typename Event, std::size_t Rows>
  static constexpr std::optional<State> following(
      const std::array<Transition<State, Event>, Rows>& transitions, State state, Event event) noexcept {
    for (const auto& row : transitions) {
      if (row.from == state && row.event == event) return row.to;
    }
    return std::nullopt;
  }

  /// Null for `factory`: on the activity loop. Deadlines are clocks of the activity loop in any case, which
  /// is made here, and throws `Kiv::ErrnoException` where it cannot be.
  TcpSm(Kiv::String name, Factory factory);

  /// Takes `machine`, which is this one, through its table: from event to event until it rests.
  template <typename Machine>
  void step(Change& change, Machine& machine, typename Machine::Event event) {
    const auto former = machine.state();
    for (std::optional pending = event; pending;) {
      const auto to = Machine::next(machine.state(), *pending);
      if (!to) break;
      KIV_TRACE(trace(), 5) << name() << ": " << machine.state() << " -> " << *to << " on " << *pending;
      storeAttr(machine.state, *to);
      pending = machine.enter(change, *to);
    }
    if (machine.state() != former) change.changed(machine.state);
  }
  /// The same, and tells.
  template <typename Machine>
  void drive(Change& change, Machine& machine, typename Machine::Event event) {
    if (Machine::next(machine.state(), event)) {
      prepare();
      step(change, machine, event);
    }
    change.tell();
  }
  template <typename Machine>
  void drive(Machine& machine, typename Machine::Event event) {
    Change change(this);
    drive(change, machine, event);
  }

  virtual void handleClock() = 0;  ///< The deadline has come.
  /// Keys have changed.
  virtual void handleKeys() {}

  /// A socket with the options above, bound if anything says where. Throws what the kernel (as a
  /// `Kiv::ErrnoException`) or the hook refuses.
  TcpFileDescriptor::PtrConst openSocket(AddressFamily af, bool edge, bool server);
  /// Gives a listening socket the present keys. Throws `Kiv::ErrnoException`.
  void keysUpdate(const TcpFileDescriptor& socket);
  /// The index of `interface` for the socket's namespace, 0 for none.
  U32 scopeOf(const TcpFileDescriptor& socket) const noexcept;
  void watchIs(const TcpFileDescriptor::PtrConst& socket);
  const Kiv::Ptr<TcpFileDescriptorEventRegistration>& watch() const noexcept { return watch_; }
  /// Disables the registration, too: its loop may hold it, and would go on delivering.
  void watchDel() noexcept;

  /// Makes the clock that a transition needs, so that none begins without memory for it.
  void prepare();
  /// The same for events of the loop, where nobody else would try again. False without memory; the clock, if
  /// there is one yet, then runs (again) a moment later.
  bool prepared() noexcept;
  /// Runs `handleClock()` after `delay`, in place of a deadline that there is.
  void deadlineIs(Kiv::Time delay) noexcept;
  void deadlineDel() noexcept;
  /// For states that rest without one: gives its memory back.
  void clockDel() noexcept;
  void backoffDeadlineIs() noexcept;  ///< Sets the clock to the next attempt, after a pause that grows.
  void backoffReset() noexcept { backoff_.reset(); }  ///< The next pause is the shortest again.

  /// Records a failure in `lastError` and `lastErrorReason`, and traces it.
  void failureIs(Change& change, const Kiv::ErrnoException& failure) noexcept;
  void failureIs(Change& change, int error, const char* reason) noexcept;
  /// For the exception that is being handled, of any type.
  void failureIs(Change& change) noexcept;
  /// For a failed system call.
  void callFailed(Change& change, int error, const char* call) noexcept;
  /// Throws `Kiv::RangeException` with the text unless `time` is above zero.
  static void checkPositive(Kiv::Time time, const char* text);
  /// An exception for the failed `call`. Names the socket's other end or its own, and the namespace.
  Kiv::ErrnoException failed(int error, const char* call) const;

  /// The address and port that the machine is about.
  virtual std::pair<IpGenAddr, U16> endpoint() const = 0;
  virtual const Kiv::TraceHandle& trace() const noexcept = 0;

 private:
  /// What most machines have no use for.
  struct Extras {
    Factory factory;
    Kiv::Ptr<TcpSocketOptions> options;
    Kiv::Reactor onKeys;
    TcpSocketOptions::Keys keys;  // of the last socket
    SocketHook hook;
  };
  Extras& extras();

  std::unique_ptr<Extras> extras_;
  Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Reactor onClock_;
  Kiv::Ptr<TcpFileDescriptorEventRegistration> watch_;
  detail::Backoff backoff_;
};

}  // namespace Wirl
