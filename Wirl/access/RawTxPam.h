// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/PacketPam.h"

namespace Wirl {

/// Sends whole Ethernet frames on any interface of a namespace, chosen for each by `txIfIndex`, and receives
/// nothing; see `PacketPam`. A packet for interface index 0 is refused (ENXIO in `txErrno`).
class KIV_API RawTxPam : public PacketPam {
 public:
  KIV_ENTITY(RawTxPam, PacketPam)
  KIV_ATTR(U32, txIfIndex, 0)

  RawTxPam(Kiv::String name, const NamespaceName& ns) : PacketPam(std::move(name), ns) {}
  ~RawTxPam() override;

 protected:
  void sendPkt(const Pkt::Ptr& pkt) override;
  void configure() override;
  void doGetRxPkt() override;
};

KIV_API Kiv::Ptr<RawTxPam> rawTxPamFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
