// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "Wirl/kernel/NetlinkPam.h"

struct nlmsghdr;

namespace Wirl {

/// Asks the kernel by netlink, one request after the other, and hears what it tells unasked.
///
///     request() ──> queue ──> one in flight ──> its messages ──> the answer       event()  what groups tell
///
/// Requests are answered in the order in which they were made. A dump ends with NLMSG_DONE, another request
/// with its acknowledgement, which this class asks for. The functions given to `request` run in the loop, and
/// may do everything; after `enabledIs(false)` none of them runs any more.
///
/// One socket carries both: what the kernel tells arrives in the order in which it happened, answers among
/// it.
class KIV_API NetlinkClient : public Kiv::Entity {
 public:
  KIV_ENTITY(NetlinkClient, Kiv::Entity)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR(U32, groups, 0)  ///< Groups whose messages it gets; a bit each.
  KIV_ATTR(U32, rxBuf, 4u << 20)
  KIV_ATTR_READ(Kiv::Ptr<NetlinkPam>, pam)  ///< The socket; null: closed.
  KIV_ATTR_READ(U32, rxOverruns, 0)
  KIV_ATTR_READ(U32, badDatagrams, 0)

  /// How a request ended.
  struct Answer {
    int error = 0;             ///< 0, an errno of the kernel, or of the send
    std::string text;          ///< the kernel's own words, if it had any
    bool interrupted = false;  ///< a dump during which things changed: it may lack or repeat some
  };
  /// Gets the messages that answer no question.
  using OnMessage = std::function<void(const nlmsghdr& message)>;
  using OnAnswer = std::function<void(const Answer& answer)>;  ///< Gets the end of an answer.

  /// One of that name and netlink protocol, of the namespace.
  NetlinkClient(Kiv::String name, S32 protocol, const NamespaceName& ns);
  ~NetlinkClient() override;

  /// Opens or closes the socket; throws as `NetlinkPam::enabledIs`. Closing drops all requests.
  void enabledIs(bool on);
  bool enabled() const noexcept { return pam() != nullptr; }

  /// Queues a request: a whole netlink message in host byte order, whose sequence number this class sets.
  /// Ends the process if the octets are no message.
  void request(std::string_view message, OnMessage onMessage, OnAnswer onAnswer);
  /// Requests without an answer yet.
  std::size_t requestsPending() const noexcept { return queue_.size(); }

 protected:
  /// A message that is no answer.
  virtual void event(const nlmsghdr&) {}
  /// All that had arrived was taken. What happened in this pass is known now.
  virtual void passEnded() {}
  /// The kernel had no room for a datagram: something was not told.
  virtual void overrun() {}

 private:
  struct Queued {
    std::string message;
    OnMessage onMessage;
    OnAnswer onAnswer;
    bool interrupted = false;
  };

  void receive();
  void take(const Pkt& datagram);
  void take(const nlmsghdr& message);
  void send();
  void answered(Answer answer);

  const S32 protocol_;
  std::deque<Queued> queue_;  // the first is in flight
  U32 sequence_ = 0;          // of the one in flight
  U32 turn_ = 0;              // of opening and closing
  Kiv::Reactor onReadable_;
};

}  // namespace Wirl
