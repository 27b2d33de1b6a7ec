// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/Exchange.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Wirl/kernel/detail/Attrs.h"

namespace Wirl::detail {

namespace {

// The acknowledgements of a datagram all wait in the socket at once, each in a buffer of its own.
constexpr std::size_t kMostInDatagram = 256;
constexpr std::size_t kMostOctets = 32768;
constexpr int kPatienceMs = 5000;

}  // namespace

std::vector<Outcome> exchange(NetlinkPam& pam, U32& sequence, std::span<const std::string> requests,
                              const std::function<void(const nlmsghdr&)>& take) {
  std::vector<Outcome> outcomes(requests.size(), Outcome{ENODATA, {}});
  for (std::size_t begin = 0; begin < requests.size();) {
    std::string datagram;
    const U32 first = sequence + 1;
    std::size_t end = begin;
    while (end < requests.size() && end - begin < kMostInDatagram &&
           (end == begin || datagram.size() + requests[end].size() <= kMostOctets)) {
      std::string request = requests[end++];
      request.resize(padded(request.size()));
      nlmsghdr header;
      std::memcpy(&header, request.data(), sizeof(header));
      header.nlmsg_seq = ++sequence;
      header.nlmsg_flags |= NLM_F_ACK;
      std::memcpy(request.data(), &header, sizeof(header));
      datagram += request;
    }
    const auto pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(datagram);
    const U32 lost = pam.txErrors() + pam.txDrops();
    pam.txPktIs(pkt);
    if (pam.txErrors() + pam.txDrops() != lost) {
      std::fill(outcomes.begin() + static_cast<std::ptrdiff_t>(begin), outcomes.end(),
                Outcome{pam.txErrno(), {}});
      return outcomes;
    }
    const U32 overruns = pam.rxOverruns();
    for (std::size_t waiting = end - begin; waiting > 0;) {
      const Pkt::Ptr answer = pam.rxPkt();
      if (!answer) {
        pollfd ready{pam.fileDesc() ? pam.fileDesc()->descriptor() : -1, POLLIN, 0};
        if (pam.rxOverruns() != overruns || ready.fd < 0 || poll(&ready, 1, kPatienceMs) <= 0) break;
        continue;
      }
      if (pam.rxPortId() != 0) continue;
      const std::string text = answer->stringValue();
      std::vector<U64> aligned(text.size() / 8 + 1);
      std::memcpy(aligned.data(), text.data(), text.size());
      forEachMessage({reinterpret_cast<const char*>(aligned.data()), text.size()},
                     [&](const nlmsghdr& message) {
                       if (message.nlmsg_type >= NLMSG_MIN_TYPE) {
                         if (take) take(message);
                         return;
                       }
                       const U32 index = message.nlmsg_seq - first;
                       if (message.nlmsg_type != NLMSG_ERROR || index >= end - begin || waiting == 0) return;
                       const Ack ack = ackOf(message);
                       outcomes[begin + index] = {ack.error, std::string(ack.text)};
                       --waiting;
                     });
    }
    begin = end;
  }
  return outcomes;
}

}  // namespace Wirl::detail
