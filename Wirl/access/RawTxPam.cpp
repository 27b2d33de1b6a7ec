// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/RawTxPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>

namespace Wirl {

RawTxPam::~RawTxPam() = default;

void RawTxPam::doGetRxPkt() {}

void RawTxPam::sendPkt(const Pkt::Ptr& pkt) {
  if (txIfIndex() == 0) return refuse(ENXIO);
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = static_cast<int>(txIfIndex());
  sendFrame(pkt, &to);
}

Kiv::Ptr<RawTxPam> rawTxPamFactory(Kiv::String name, const NamespaceName& netNs) {
  return Kiv::makePtr<RawTxPam>(std::move(name), netNs);
}

}  // namespace Wirl
