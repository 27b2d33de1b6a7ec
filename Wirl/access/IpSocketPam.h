// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/RawIpPam.h"

namespace Wirl {

/// A raw IPv4 socket in a namespace (RFC 791); see `RawIpPam`. A received packet begins with its IPv4 header.
/// The kernel writes the header of a packet sent, except with `ipHdrIncl`.
///
/// The `rx...` attributes come from the received header, or from control messages where an option asks for
/// them. Only `rxIfIndex` needs an option (`ipPktInfo`), and `rxOrigDstIpAddr` (`ipRecvOrigDstAddr`).
/// `ipv6Checksum` has no effect.
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
