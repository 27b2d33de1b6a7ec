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
/// come to rest: they may set anything, disable the machine or let go of the last pointer to it.
///
/// The attributes here that can be set are read when a socket is opened. They may be changed at any time.
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
  /// `backoffMax`; a success brings the delay back.
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

  /// Null for `factory`: on the activity loop. Deadlines are clocks of the activity loop in any case.
  TcpSm(Kiv::String name, Factory factory);

  virtual void handleClock() = 0;

  /// A socket with the options above, bound if anything says where. Throws `Kiv::ErrnoException`.
  TcpFileDescriptor::PtrConst openSocket(AddressFamily af, bool edge, bool server) const;
  /// The index of `interface` for the socket's namespace, 0 for none.
  U32 scopeOf(const TcpFileDescriptor& socket) const noexcept;
  void watchIs(const TcpFileDescriptor::PtrConst& socket);
  const Kiv::Ptr<TcpFileDescriptorEventRegistration>& watch() const noexcept { return watch_; }
  void watchDel() noexcept { watch_ = nullptr; }

  /// Runs `handleClock()` after `delay`, in place of a deadline that there is.
  void deadlineIs(Kiv::Time delay);
  void deadlineDel() noexcept;
  void backoffDeadlineIs() { deadlineIs(backoff_.next(backoffMin(), backoffMax())); }
  void backoffReset() noexcept { backoff_.reset(); }

  void failureIs(const Kiv::ErrnoException& failure);
  /// Throws `Kiv::RangeException` with the text unless `time` is above zero.
  static void checkPositive(Kiv::Time time, const char* text);

  /// Keeps reactors waiting until the machine rests: `notifyChanged()`.
  void changed(Kiv::NotifieeList& notifiees) { changed_.push_back(&notifiees); }
  void notifyChanged();

 private:
  const Factory factory_;
  Kiv::Ptr<Kiv::Clock> clock_;  // while there is a deadline
  Kiv::Reactor onClock_;
  Kiv::Ptr<TcpFileDescriptorEventRegistration> watch_;
  detail::Backoff backoff_;
  std::vector<Kiv::NotifieeList*> changed_;
};

}  // namespace Wirl
