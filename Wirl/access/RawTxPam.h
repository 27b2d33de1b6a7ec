// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/PacketPam.h"

namespace Wirl {

/// Sends whole Ethernet frames on any interface of a namespace and receives nothing; see `PacketPam`.
/// `txIfIndex` chooses the interface; it refuses index 0 (ENXIO in `txErrno`).
class KIV_API RawTxPam : public PacketPam {
 public:
  KIV_ENTITY(RawTxPam, PacketPam)
  KIV_ATTR(U32, txIfIndex, 0)

  RawTxPam(Kiv::String name, const NamespaceName& ns) : PacketPam(std::move(name), ns) {}
  ~RawTxPam() override;

 protected:
  void sendPkt(const Pkt::Ptr& pkt) override;
  U32 doTxPktBulk(std::span<const Pkt::Ptr> pkts) override;
  bool receives() const override { return false; }
  void doGetRxPkt() override;
};

KIV_API Kiv::Ptr<RawTxPam> rawTxPamFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
