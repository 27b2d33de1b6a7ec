// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/RawIpPam.h"

namespace Wirl {

/// A raw IPv4 socket in a namespace (RFC 791); see `RawIpPam`. Received packets begin with their IPv4 header.
/// The kernel writes the header of what is sent, except with `ipHdrIncl`.
///
/// The `rx...` attributes come from the control messages that the options ask for, and else from the packet's
/// header: only `rxIfIndex` needs `ipPktInfo`, and `rxOrigDstIpAddr` `ipRecvOrigDstAddr`. The option
/// `ipv6Checksum` means nothing here.
///
///     auto pam = Wirl::ipSocketPamFactory("ospf", Wirl::ipProtoOspf, L3::VrfName("red").nsName());
///     pam->optionsIs(Wirl::IpSocketOptions::ipPktInfo);
///     Kiv::Reactor onReadable(pam->readableCount, [&] {
///       while (auto pkt = pam->rxPkt()) hello(*pkt, pam->rxIfIndex());
///     });
///     pam->enabledIs(true);
///     pam->handleMcastGroup(Wirl::IpAddr("224.0.0.5"), true, ifIndex);
class KIV_API IpSocketPam final : public RawIpPam {
 public:
  /// One of that name and IP protocol, of the namespace.
  IpSocketPam(Kiv::String name, IpProtocolNumber number, const NamespaceName& ns)
      : RawIpPam(std::move(name), number, ns, ipv4Family_) {}
  ~IpSocketPam() override;
};

KIV_API Kiv::Ptr<IpSocketPam> ipSocketPamFactory(Kiv::String name, IpProtocolNumber protocol,
                                                 const NamespaceName& netNs);

}  // namespace Wirl
