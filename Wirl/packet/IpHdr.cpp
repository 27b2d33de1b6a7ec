// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/IpHdr.h"

namespace Wirl {

IpProtocolNumber IpHdr::protocolNum() const noexcept {
  const U8 octet = protocol();
  switch (octet) {
    case ipProtoIcmp:
    case ipProtoIgmp:
    case ipProtoTcp:
    case ipProtoUdp:
    case ipProtoRsvp:
    case ipProtoGre:
    case ipProtoAh:
    case ipProtoOspf:
    case ipProtoIpip:
    case ipProtoPim:
    case ipProtoVrrp:
    case ipProtoL2tp:
    case ipProtoIsis:
    case ipProtoSctp:
    case ipProtoNetworkBoot:
      return static_cast<IpProtocolNumber>(octet);
    default:
      return ipProtoUnknown;
  }
}

IpChecksum IpHdr::computedChecksum() const {
  KIV_ASSERT_AS(headerBytes() % 2 == 0, "(headerBytes() % 2) == 0");
  return ipChecksumCalc(reinterpret_cast<const char*>(this), headerBytes(), 0);
}

std::ostream& operator<<(std::ostream& out, const IpHdr& hdr) {
  out << "IPv4 version " << hdr.version() << " headerLen " << hdr.headerLen() << " tos " << hdr.tos()
      << " totalLen " << hdr.totalLen() << " id " << hdr.id();
  if (hdr.reservedFragFlag()) out << " reservedFragFlag";
  if (hdr.dontFrag()) out << " dontFrag";
  if (hdr.moreFrag()) out << " moreFrag";
  return out << " fragmentOffset " << hdr.fragmentOffset() << " ttl " << hdr.ttl() << " protocol "
             << hdr.protocol() << " checksum " << hdr.checksum() << " src " << hdr.src() << " dst "
             << hdr.dst();
}

}  // namespace Wirl
