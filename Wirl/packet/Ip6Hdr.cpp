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
  // The addresses lie side by side.
  return ipChecksumChunk(reinterpret_cast<const char*>(&src_), sizeof(src_) + sizeof(dst_),
                         lengthAndProtocol);
}

std::ostream& operator<<(std::ostream& out, const Ip6Hdr& hdr) {
  return out << "IPv6 version " << hdr.version() << " trafficClass " << hdr.trafficClass() << " flowLabel "
             << hdr.flowLabel() << " payloadLen " << hdr.payloadLen() << " nextHeader " << hdr.protocol()
             << " hopLimit " << hdr.hopLimit() << " src " << hdr.src() << " dst " << hdr.dst();
}

Ip6HdrWrapper::Ptr ip6HdrWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new Ip6HdrWrapper(std::move(pkt), offset);
}

Ip6HdrOptionCommonWrapper::Ptr ip6HdrOptionCommonWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new Ip6HdrOptionCommonWrapper(std::move(pkt), offset);
}

Ip6HdrRouterAlertOptionWrapper::Ptr ip6HdrRouterAlertOptionWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new Ip6HdrRouterAlertOptionWrapper(std::move(pkt), offset);
}

Ip6HdrPad1Wrapper::Ptr ip6HdrPad1WrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new Ip6HdrPad1Wrapper(std::move(pkt), offset);
}

Ip6HdrPadNWrapper::Ptr ip6HdrPadNWrapperFactory(Pkt::Ptr pkt, U32 offset) {
  return new Ip6HdrPadNWrapper(std::move(pkt), offset);
}

}  // namespace Wirl
