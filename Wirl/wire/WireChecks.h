// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/packet/UdpHdr.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/IcmpHdr.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/SctpHdr.h"
#include "Wirl/wire/TcpHdr.h"
#include "Wirl/wire/VrrpHdr.h"
#include "Wirl/wire/WireErrors.h"

namespace Wirl {

// Checks of what Ethernet and IP carry, before a receive path trusts it. Bad contents are told by the code
// that is returned and by a trace (handle "WireChecks": failures at level 3, entries at level 8), never by an
// exception. Nothing is written to the packet, and nothing is read outside of it, whatever its fields say. A
// null packet or header ends the process.
//
// Each check comes in two forms.
//
// With the packet and the IP header in it, which must have passed `checkEthIpHdr` or `checkEthIp6Hdr`.
// Extension headers of IPv6 are walked over. The header pointer is null unless the header was found whole; it
// is set for codes that find fault with what the header says or covers. A fragment gives `ipFragment`: only
// the whole datagram can be checked. The headers, and for checks that look at more than a header and a
// checksum all of the message, must lie in the packet's first piece, else `pktTooShort`; data may lie in
// either. Codes of all of these: `pktTooShort`, `badIpHdrLen`, `badIpPayloadLen`, `badIp6PayloadLen`,
// `badIp6ExtHdr`, `ipFragment`, and that the protocol is another one.
//
// With the octets of the message alone, up to the end that IP gives it.

/// UDP (RFC 768, RFC 8200 section 8.1): the length field and the checksum. Octets behind the length that the
/// header says are left alone (RFC 9868). A checksum of 0 was not computed: legal over IPv4, `noUdpChecksum`
/// over IPv6, where a tunnel may choose to take it (RFC 6935). A frame that this machine's kernel is sending,
/// as seen on a packet socket, may still have the sum of the pseudo-header in that field, for the device to
/// complete: `partialUdpChecksum`. Codes: `nonUdpProto`, `badUdpLen`, `noUdpChecksum`, `partialUdpChecksum`,
/// `badUdpChecksum`.
KIV_API PktCode checkUdp(const Pkt::Ptr& pkt, IpHdr* ipHdr, UdpHdr*& udpHdr);
KIV_API PktCode checkUdp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, UdpHdr*& udpHdr);
KIV_API PktCode checkUdp(const IpHdr& ipHdr, std::span<const U8> message);
KIV_API PktCode checkUdp(const Ip6Hdr& ip6Hdr, std::span<const U8> message);

/// TCP (RFC 9293): the data offset and the checksum. Codes: `nonTcpProto`, `badTcpLen`, `partialTcpChecksum`
/// as with UDP, `badTcpChecksum`.
KIV_API PktCode checkTcp(const Pkt::Ptr& pkt, IpHdr* ipHdr, TcpHdr*& tcpHdr);
KIV_API PktCode checkTcp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, TcpHdr*& tcpHdr);
KIV_API PktCode checkTcp(const IpHdr& ipHdr, std::span<const U8> message);
KIV_API PktCode checkTcp(const Ip6Hdr& ip6Hdr, std::span<const U8> message);

/// SCTP (RFC 9260): the common header and its CRC-32. Codes: `nonSctpProto`, `badSctpLen`, `badSctpChecksum`.
KIV_API PktCode checkSctp(const Pkt::Ptr& pkt, IpHdr* ipHdr, SctpHdr*& sctpHdr);
KIV_API PktCode checkSctp(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, SctpHdr*& sctpHdr);
KIV_API PktCode checkSctp(std::span<const U8> message);

/// ICMP (RFC 792): eight bytes and the checksum. Codes: `nonIcmpProto`, `badIcmpLen`, `badIcmpChecksum`.
KIV_API PktCode checkIcmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IcmpHdr*& icmpHdr);
KIV_API PktCode checkIcmp(std::span<const U8> message);

/// ICMPv6 (RFC 4443): four bytes and the checksum. Unlike `checkIcmp6CheckSum` it leaves the field as it is
/// and walks over extension headers. Codes: `nextHdrIsNotIcmp6`, `icmp6PayloadLenTooShortForHdr`,
/// `badIcmp6Checksum`.
KIV_API PktCode checkIcmp6(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);
KIV_API PktCode checkIcmp6(const Ip6Hdr& ip6Hdr, std::span<const U8> message);

/// A message of neighbour discovery, by the rules of RFC 4861 for its receipt (sections 6.1, 7.1, 8.1), in
/// this order: type (`notNdType`), hop limit 255 (`badNdHopLimit`), what `checkIcmp6` checks, code 0
/// (`badNdCode`), the length that the type needs (`icmp6PayloadLenTooShortForHdr`), the options
/// (`icmp6OptLenZero`, `icmp6OptLenExceedPayloadLen`, `badNdOptLen`). Then, for solicitations:
/// `icmp6NsTgtMcast`, `unspecifiedSrcAddrAndNotSolicitedNodeDst`, `unspecSrcAddrSrcLinkLayerAddr` (also for
/// router solicitations), `noSrcLinkLayerOptInMcastNs`; advertisements: `icmp6NaTgtMcast`,
/// `icmp6McastDstIpAndNonZeroSolicitation`; router advertisements and redirects: `ndSrcNotLinkLocal`;
/// redirects: `redirectDstMcast`, `redirectBadTarget`.
KIV_API PktCode checkNd(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);
KIV_API PktCode checkNd(const Ip6Hdr& ip6Hdr, std::span<const U8> message);
/// The same for who expects one type; another one gives `notIcmp6NsType` or `notIcmp6NaType`, the header
/// pointer set.
KIV_API PktCode checkNs(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6NsHdr*& nsHdr);
KIV_API PktCode checkNa(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6NaHdr*& naHdr);

/// Multicast listener discovery (RFC 2710, RFC 3810): what `checkIcmp6` checks, then hop limit 1
/// (`badMldHopLimit`), a link-local source, or none in reports (`mldSrcNotLinkLocal`), the length with all
/// sources and records that are counted (`badMldLen`); of a packet also the router alert in front of the
/// message (`noMldRouterAlert`). Other types of ICMPv6: `icmp6TypeNotSupported`.
KIV_API PktCode checkMld(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);
KIV_API PktCode checkMld(const Ip6Hdr& ip6Hdr, std::span<const U8> message);

/// IGMP (RFC 1112, RFC 2236, RFC 3376): length with all sources and records that are counted (`badIgmpLen`),
/// checksum (`badIgmpChecksum`); for queries, reports and leaves also a time to live of 1 (`badIgmpTtl`), and
/// groups that are multicast addresses, or none in a query (`badIgmpGroup`). Code: `nonIgmpProto`.
KIV_API PktCode checkIgmp(const Pkt::Ptr& pkt, IpHdr* ipHdr, IgmpHdr*& igmpHdr);
KIV_API PktCode checkIgmp(const IpHdr& ipHdr, std::span<const U8> message);

/// VRRP 2 over IPv4, 3 over both (RFC 3768, RFC 5798, RFC 9568), in this order: protocol (`nonVrrpProto`),
/// destination of the frame (`nonVrrpMac`) and of the datagram (`nonVrrpDstAddr`), time to live 255
/// (`badVrrpTtl`), version, type, router id, length of what is counted, checksum, source of the frame against
/// the router id (`vrrpVridMacMismatch`), authentication type of version 2 (none or text, else
/// `badVrrpAuth`), over IPv6 a link-local source and first address (`badVrrpLinkLocal`). The checksum of
/// version 3 over IPv4 may be with or without a pseudo-header: the RFCs differ. Without an Ethernet header
/// its addresses are not asked for.
KIV_API PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, IpHdr* ipHdr, VrrpHdr*& vrrpHdr);
KIV_API PktCode checkVrrp(const Pkt::Ptr& pkt, EthHdr* ethHdr, Ip6Hdr* ip6Hdr, VrrpHdr*& vrrpHdr);
KIV_API PktCode checkVrrp(const EthHdr* ethHdr, const IpHdr& ipHdr, std::span<const U8> message);
KIV_API PktCode checkVrrp(const EthHdr* ethHdr, const Ip6Hdr& ip6Hdr, std::span<const U8> message);

/// ARP for IPv4 over Ethernet (RFC 826, RFC 5227) behind an untagged Ethernet header: lengths and types
/// (`badArpPkt`), request or reply (`badArpOperation`), a sender that can be one station (`badArpSender`),
/// and that is on the connected network where one is given, or has no address yet (`nonOnLink`), and that is
/// the source of the frame (`arpSrcMacMismatch`). Codes: `pktTooShort`, `wrongEthType`.
KIV_API PktCode checkArp(const Pkt::Ptr& pkt, EthHdr*& ethHdr, EthArpHdr*& arpHdr,
                         const Prefix* connected = nullptr);
KIV_API PktCode checkArp(const EthHdr* ethHdr, std::span<const U8> message,
                         const Prefix* connected = nullptr);

// Checksums for who sends: computed over the message and stored in it. It is whole, in one piece, with a
// header; one that is too short for that ends the process. They also complete a partial checksum. UDP's 0
// becomes 0xffff.

KIV_API void setUdpChecksum(const IpHdr& ipHdr, std::span<U8> message);
KIV_API void setUdpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message);
KIV_API void setTcpChecksum(const IpHdr& ipHdr, std::span<U8> message);
KIV_API void setTcpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message);
KIV_API void setSctpChecksum(std::span<U8> message);
/// Also IGMP's.
KIV_API void setIcmpChecksum(std::span<U8> message);
KIV_API void setIcmp6Checksum(const Ip6Hdr& ip6Hdr, std::span<U8> message);
/// Of a register over its first 8 bytes (RFC 7761).
KIV_API void setPimChecksum(const IpHdr& ipHdr, std::span<U8> message);
KIV_API void setPimChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message);
/// Of version 2 over the message alone, of version 3 with the pseudo-header (RFC 5798).
KIV_API void setVrrpChecksum(const IpHdr& ipHdr, std::span<U8> message);
KIV_API void setVrrpChecksum(const Ip6Hdr& ip6Hdr, std::span<U8> message);

}  // namespace Wirl
