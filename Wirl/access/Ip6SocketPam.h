// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/RawIpPam.h"

namespace Wirl {

/// A raw IPv6 socket in a namespace (RFC 3542); see `RawIpPam`. A received packet begins behind the IPv6
/// header and its extension headers. The options choose which of their fields the `rx...` attributes show:
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
/// An attribute that the options do not ask for is unspecified or 0. `txTTL` is the hop limit, `txTOS` the
/// code point of the traffic class. With `ipv6Checksum` the kernel fills in the checksum, pseudo-header
/// included, of packets sent, and drops received packets whose checksum is wrong. This class knows where
/// OSPF, PIM, VRRP, RSVP, TCP and UDP keep it. Enabling fails for other protocols (EINVAL
/// "setsockopt(IPV6_CHECKSUM)"). ICMPv6 always has a checksum.
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
