// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/Reactor.h"
#include "Kiv/Trace.h"
#include "Wirl/transport/TcpFd.h"
#include "Wirl/transport/detail/Backoff.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/NamespaceName.h"

namespace Wirl {

/// What the state machines of TCP connections, `TcpClientSm` and `TcpServerSm`, have in common.
///
/// Each is driven by its table of transitions: an event that the table has no row for in the present state is
/// ignored. What a state does stands in one switch, run on entering it; leaving one always ends the watch on
/// its socket and its deadline. Attributes change first, all of them, and reactors run when the machine has
/// come to rest, once for each attribute that is not what it was (a try that fails at once leaves `state` as it
/// was, and shows in `attempts` and `failures`): they may set anything, disable the machine or let go of the
/// last pointer to it. When one throws, the others run before the exception leaves.
///
/// Whatever goes wrong when a socket is opened or watched, be it an exception of a user's factory, is a failure
/// like those of the network: the next try comes.
///
/// The attributes that can be set may be changed at any time. Those of the socket are read when one is opened,
/// times when a wait of their kind begins, a server's `edgeTriggered` with each connection.
class KIV_API TcpSm : public Kiv::Entity {
 public:
  KIV_ENTITY(TcpSm, Kiv::Entity)
  /// Where the socket is bound; `ipunknown`, and port 0 (in host order): the system's choice.
  KIV_ATTR_RARE(IpGenAddr, localAddr)
  KIV_ATTR(U16, localPort, 0)
  /// The interface that the socket is tied to, also the scope of link-local addresses; empty: none.
  KIV_ATTR_RARE(Kiv::String, interface)
  KIV_ATTR_RARE(NamespaceName, netNs, NamespaceName("default"))
  /// How the connections report readiness.
  KIV_ATTR(bool, edgeTriggered, false)
  /// After a failure the next try waits `backoffMin`, then twice as long each time, but no longer than
  /// `backoffMax`; a success brings the delay back. Nothing random is added.
  KIV_ATTR_RARE_READ(Kiv::Time, backoffMin, std::chrono::milliseconds(500))
  KIV_ATTR_RARE_READ(Kiv::Time, backoffMax, std::chrono::seconds(30))
  /// The errno of the last failure, and the call and text, as "connect: Connection refused". They stay.
  KIV_ATTR_RARE_READ(S32, lastError, 0)
  KIV_ATTR_RARE_READ(Kiv::String, lastErrorReason)

  /// Throw `Kiv::RangeException` for a time that is not above zero.
  void backoffMinIs(Kiv::Time time);
  void backoffMaxIs(Kiv::Time time);
  ~TcpSm() override;

 protected:
  using Factory = Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory>;
  template <typename State, typename Event>
  struct Transition {
    State from;
    Event event;
    State to;
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

  /// Takes `machine`, which is this one, through what its table says: from event to event until it rests.
  template <typename Machine>
  void step(Machine& machine, typename Machine::Event event) {
    const auto former = machine.state();
    for (std::optional pending = event; pending;) {
      const auto to = Machine::next(machine.state(), *pending);
      if (!to) break;
      KIV_TRACE(trace(), 5) << name() << ": " << machine.state() << " -> " << *to << " on " << *pending;
      storeAttr(machine.state, *to);
      pending = machine.enter(*to);
    }
    if (machine.state() != former) changed(machine.state.notifiees());
  }
  /// The same, and tells.
  template <typename Machine>
  void drive(Machine& machine, typename Machine::Event event) {
    if (Machine::next(machine.state(), event)) {
      prepare();
      step(machine, event);
    }
    notifyChanged();
  }
  template <typename Attr, typename Value>
  void put(Attr& attr, const Value& value) {
    if (storeAttr(attr, value)) changed(attr.notifiees());
  }

  virtual void handleClock() = 0;

  /// A socket with the options above, bound if anything says where. Throws `Kiv::ErrnoException`.
  TcpFileDescriptor::PtrConst openSocket(AddressFamily af, bool edge, bool server) const;
  /// The index of `interface` for the socket's namespace, 0 for none.
  U32 scopeOf(const TcpFileDescriptor& socket) const noexcept;
  void watchIs(const TcpFileDescriptor::PtrConst& socket);
  const Kiv::Ptr<TcpFileDescriptorEventRegistration>& watch() const noexcept { return watch_; }
  void watchDel() noexcept { watch_ = nullptr; }

  /// Makes what a transition needs to come to its end, so that it does not begin without memory for that.
  void prepare();
  /// The same for events of the loop, where nobody else would try again: without memory it is false, and the
  /// clock, if there is one yet, comes (again) a moment later.
  bool prepared() noexcept;
  /// Runs `handleClock()` after `delay`, in place of a deadline that there is.
  void deadlineIs(Kiv::Time delay) noexcept;
  void deadlineDel() noexcept;
  /// For states that rest without one: gives its memory back.
  void clockDel() noexcept;
  void backoffDeadlineIs() { deadlineIs(backoff_.next(backoffMin(), backoffMax())); }
  void backoffReset() noexcept { backoff_.reset(); }

  void failureIs(const Kiv::ErrnoException& failure) noexcept { failureIs(failure.error(), failure.what()); }
  /// Of the exception that is being handled, whichever it is.
  void failureIs() noexcept;
  /// Throws `Kiv::RangeException` with the text unless `time` is above zero.
  static void checkPositive(Kiv::Time time, const char* text);

  /// Keeps reactors waiting until the machine rests: `notifyChanged()`.
  void changed(Kiv::NotifieeList& notifiees);
  void notifyChanged();

  virtual const Kiv::TraceHandle& trace() const noexcept = 0;

 private:
  void failureIs(int error, const char* reason) noexcept;

  const Factory factory_;
  Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Reactor onClock_;
  Kiv::Ptr<TcpFileDescriptorEventRegistration> watch_;
  detail::Backoff backoff_;
  std::vector<Kiv::NotifieeList*> changed_;
};

}  // namespace Wirl
