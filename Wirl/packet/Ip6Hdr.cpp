// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Ip6Hdr.h"

#include "Wirl/packet/Checksum.h"

namespace Wirl {

IpProtocolNumber nextHeaderNumber(U8 octet) noexcept {
  switch (octet) {
    case ipProtoIpv6HopByHop:
    case ipProtoIcmp:
    case ipProtoIgmp:
    case ipProtoTcp:
    case ipProtoUdp:
    case ipProtoIpv6Route:
    case ipProtoIpv6Frag:
    case ipProtoIcmpv6:
    case ipProtoIpv6NoNxt:
    case ipProtoIpv6Opts:
    case ipProtoOspf:
    case ipProtoPim:
    case ipProtoVrrp:
    case ipProtoNetworkBoot:
      return static_cast<IpProtocolNumber>(octet);
    default:
      return ipProtoUnknown;
  }
}

U32 Ip6Hdr::pseudoHdrSum(U32 upperLayerBytes, U8 nextHeader) const {
  const U32 lengthAndProtocol = (upperLayerBytes >> 16) + (upperLayerBytes & 0xffff) + nextHeader;
  constexpr U32 kAddresses = 8;  // offset of the two addresses, which lie side by side
  return ipChecksumChunk(reinterpret_cast<const char*>(this) + kAddresses, sizeof(Ip6Hdr) - kAddresses,
                         lengthAndProtocol);
}

std::ostream& operator<<(std::ostream& out, const Ip6Hdr& hdr) {
  return out << "IPv6 version " << hdr.version() << " trafficClass " << hdr.trafficClass() << " flowLabel "
             << hdr.flowLabel() << " payloadLen " << hdr.payloadLen() << " nextHeader " << hdr.protocol()
             << " hopLimit " << hdr.hopLimit() << " src " << hdr.src() << " dst " << hdr.dst();
}

}  // namespace Wirl
