// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/RawTxPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>

namespace Wirl {

RawTxPam::~RawTxPam() = default;

void RawTxPam::doGetRxPkt() {}

namespace {

sockaddr_ll onInterface(U32 ifIndex) {
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = static_cast<int>(ifIndex);
  return to;
}

}  // namespace

void RawTxPam::sendPkt(const Pkt::Ptr& pkt) {
  if (txIfIndex() == 0) return refuse(ENXIO);
  const sockaddr_ll to = onInterface(txIfIndex());
  sendFrame(pkt, &to);
}

U32 RawTxPam::doTxPktBulk(std::span<const Pkt::Ptr> pkts) {
  if (txIfIndex() == 0) return Pam::doTxPktBulk(pkts);  // refuses one after the other
  const sockaddr_ll to = onInterface(txIfIndex());
  return sendFrames(pkts, &to);
}

Kiv::Ptr<RawTxPam> rawTxPamFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<RawTxPam>(std::move(name), netNs);
}

}  // namespace Wirl
