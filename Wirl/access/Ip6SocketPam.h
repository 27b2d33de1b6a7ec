// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/RawIpPam.h"

namespace Wirl {

/// A raw IPv6 socket in a namespace (RFC 3542); see `RawIpPam`. Received packets begin behind the IPv6 header
/// and its extension headers, whose contents show in the `rx...` attributes as the options ask for:
///
///     option                            kernel option           sets
///     ipFreeBind, ipTransparent         IPV6_FREEBIND, IPV6_TRANSPARENT
///     ipHdrIncl, ipMulticastLoop        IPV6_HDRINCL, IPV6_MULTICAST_LOOP
///     ipPktInfo                         IPV6_RECVPKTINFO        rxDstIpAddr, rxIfIndex
///     ipRecvTTL, ipRecvTOS              IPV6_RECVHOPLIMIT, IPV6_RECVTCLASS   rxTTL, rxTOS
///     ipRecvOrigDstAddr                 IPV6_RECVORIGDSTADDR    rxOrigDstIpAddr
///     ipRecvErr                         IPV6_RECVERR
///     ipRouterAlert                     IPV6_ROUTER_ALERT with value 0 (RFC 2711)
///     ipv6Checksum                      IPV6_CHECKSUM
///
/// What is not known is unspecified or 0. `txTTL` is the hop limit, `txTOS` the code point of the traffic
/// class. With `ipv6Checksum` the kernel writes the checksum (pseudo-header included) into what is sent and
/// drops what is received with a wrong one, at the place that the protocol has it: known for OSPF, PIM, VRRP,
/// RSVP, TCP, UDP; ICMPv6 always has it; enabling fails for others (EINVAL "setsockopt(IPV6_CHECKSUM)").
class KIV_API Ip6SocketPam final : public RawIpPam {
 public:
  /// One of that name and IP protocol, of the namespace.
  Ip6SocketPam(Kiv::String name, IpProtocolNumber number, const NamespaceName& ns)
      : RawIpPam(std::move(name), number, ns, ipv6Family_) {}
  ~Ip6SocketPam() override;
};

KIV_API Kiv::Ptr<Ip6SocketPam> ip6SocketPamFactory(Kiv::String name, IpProtocolNumber protocol,
                                                   const NamespaceName& netNs);

}  // namespace Wirl
