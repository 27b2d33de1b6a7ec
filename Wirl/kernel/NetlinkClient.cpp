// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NetlinkClient.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "Kiv/Assert.h"
#include "Wirl/kernel/detail/Attrs.h"

namespace Wirl {

NetlinkClient::NetlinkClient(Kiv::String name, S32 protocol, const NamespaceName& ns)
    : Entity(std::move(name)), netNs(ns), protocol_(protocol) {}

NetlinkClient::~NetlinkClient() = default;

void NetlinkClient::enabledIs(bool on) {
  if (on == enabled()) return;
  ++turn_;
  onReadable_.drop();
  std::deque<Queued>().swap(queue_);
  if (!on) return pam.set(nullptr);
  const auto opened = netlinkPamFactory(name(), protocol_, netNs());
  opened->groupsIs(groups());
  opened->extendedIs(true);
  opened->rxBufIs(rxBuf());
  opened->enabledIs(true);
  onReadable_ = Kiv::Reactor(opened->readableCount, [this] { receive(); });
  pam.set(opened);
}

void NetlinkClient::request(std::string_view message, OnMessage onMessage, OnAnswer onAnswer) {
  KIV_ASSERT_AS(message.size() >= sizeof(nlmsghdr), "a request is a netlink message", name());
  queue_.push_back({std::string(message), std::move(onMessage), std::move(onAnswer), false});
  if (queue_.size() == 1) send();
}

void NetlinkClient::send() {
  if (!enabled()) return;
  std::string& message = queue_.front().message;
  nlmsghdr header;
  std::memcpy(&header, message.data(), sizeof(header));
  if ((header.nlmsg_flags & NLM_F_DUMP) != NLM_F_DUMP) header.nlmsg_flags |= NLM_F_ACK;
  header.nlmsg_seq = ++sequence_;
  std::memcpy(message.data(), &header, sizeof(header));
  const auto pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(message);
  const U32 lost = pam()->txErrors() + pam()->txDrops();
  pam()->txPktIs(pkt);
  if (enabled() && pam()->txErrors() + pam()->txDrops() != lost) answered({pam()->txErrno(), {}, false});
}

void NetlinkClient::receive() {
  const auto alive = Kiv::keepAlive(this);
  const U32 turn = turn_;
  const Kiv::Ptr<NetlinkPam> from = pam();
  while (const Pkt::Ptr pkt = from->rxPkt()) {
    take(*pkt);
    if (turn_ != turn) return;
  }
  if (from->rxOverruns() != rxOverruns()) {
    rxOverruns.set(from->rxOverruns());
    if (turn_ != turn) return;
    overrun();
    if (turn_ != turn) return;
  }
  passEnded();
}

void NetlinkClient::take(const Pkt& datagram) {
  if (pam()->rxPortId() != 0 || datagram.numIovecs() != 1) return;  // of another process
  const std::string_view octets(reinterpret_cast<const char*>(datagram.front()), datagram.frontBytes());
  const U32 turn = turn_;
  const auto each = [&](const nlmsghdr& message) {
    if (turn_ == turn) take(message);
  };
  bool good;
  if (reinterpret_cast<std::uintptr_t>(octets.data()) % 4 == 0) {
    good = detail::forEachMessage(octets, each);
  } else {
    const auto aligned = std::make_unique<U64[]>(octets.size() / 8 + 1);
    std::memcpy(aligned.get(), octets.data(), octets.size());
    good = detail::forEachMessage({reinterpret_cast<const char*>(aligned.get()), octets.size()}, each);
  }
  if (!good && turn_ == turn) badDatagrams.set(badDatagrams() + 1);
}

void NetlinkClient::take(const nlmsghdr& message) {
  const bool ends = message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR;
  const bool ours = !queue_.empty() && message.nlmsg_seq == sequence_ && message.nlmsg_pid == pam()->portId();
  if (!ours) {
    if (message.nlmsg_type >= NLMSG_MIN_TYPE) event(message);
    return;
  }
  Queued& asked = queue_.front();
  if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) asked.interrupted = true;
  if (ends) {
    const detail::Ack ack = detail::ackOf(message);
    return answered({ack.error, std::string(ack.text), asked.interrupted});
  }
  if (message.nlmsg_type < NLMSG_MIN_TYPE) return;
  // What a change sets off is told to all that listen, with the number of the request as well.
  nlmsghdr request;
  std::memcpy(&request, asked.message.data(), sizeof(request));
  const bool isQuestion = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP || request.nlmsg_type % 4 == 2;
  if (!isQuestion) return event(message);
  if (!asked.onMessage) return;
  const OnMessage onMessage = asked.onMessage;
  onMessage(message);
}

void NetlinkClient::answered(Answer answer) {
  const Queued done = std::move(queue_.front());
  queue_.pop_front();
  ++sequence_;
  const U32 turn = turn_;
  if (!queue_.empty()) send();
  if (turn_ == turn && done.onAnswer) done.onAnswer(answer);
}

}  // namespace Wirl
