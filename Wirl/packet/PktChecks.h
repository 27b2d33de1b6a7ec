// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/AhHdr.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/packet/PktErrors.h"

namespace Wirl {

// What a receive path asks before it trusts the headers of a packet. Bad contents are told by the code that
// is returned and by a trace (handle "PktChecks": failures at level 3, entries at level 8), never by an
// exception. A check that gets the packet reads and writes nothing outside of its first piece, whatever its
// fields say. A header pointer is set once the header was found whole and of the right kind; it is null from
// the first check that fails on. A null packet or header ends the process.

// Checks of a frame, from the front of the packet. The headers must lie whole in the packet's first piece;
// what is behind them may be in either.

/// Ethernet and IPv4: the EtherType, the version, the lengths against the bytes present, and the header's
/// checksum. Codes: `pktTooShort` (also for a header whose own length runs past the first piece),
/// `wrongEthType`, `nonIpHdr`, `badIpPayloadLen`, `badIpHdrChecksum`. The packet is left as it was, except
/// that a wrong checksum is set to 0. A header length below 20 bytes is not looked at: the checksum is then
/// that of as many bytes.
KIV_API PktErrors checkEthIpHdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, IpHdr*& ipHdr);

/// Ethernet and IPv6: the EtherType, the version, and the payload length against the bytes present. Codes:
/// `pktTooShort`, `wrongEthType`, `nonIp6Hdr`, `badIp6PayloadLen`.
KIV_API PktErrors checkEthIp6Hdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr);

// Checks of what an IP header carries. The header must have passed the check above: its length field, found
// right there, is what bounds these. Take the forms with the packet: they return `pktTooShort` where the
// datagram is not all in the packet's first piece, and change nothing then. The forms without are for a
// packet that is known to lie in one piece, as received ones do. They cannot see where a piece ends: of a
// datagram in two pieces they read, and those of the ICMPv6 checksum write, the memory that follows the first
// one.

/// The checksum of the ICMPv6 message right behind the IPv6 header; extension headers are not skipped. The
/// checksum field is 0 afterwards. Codes: `nextHdrIsNotIcmp6`, `badIp6PayloadLen` (fewer than 4 bytes),
/// `badIcmp6Checksum`; with the last one the header pointer is set.
KIV_API PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);
KIV_API PktErrors checkIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);

/// Computes and stores the checksum of the ICMPv6 message at `icmp6Hdr`, as long as the IPv6 payload, which
/// is not asked to be long enough for a header. Code: `nextHdrIsNotIcmp6`.
KIV_API PktErrors setIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr);
KIV_API PktErrors setIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr);

/// The last option of a type in a neighbour solicitation, neighbour advertisement or router solicitation that
/// passed `checkIcmp6CheckSum`; null, with `noError`, when there is none. The whole option, as long as it
/// says, lies in the message; whether that is long enough for its type is still to be looked at. Codes:
/// `icmp6TypeNotSupported`, `icmp6OptLenExceedPayloadLen`, `icmp6OptLenZero`; where a bad option ends the
/// search, the last one in front of it is given all the same.
KIV_API PktErrors getIcmp6Opt(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                              Icmp6OptionTypeNumber type);
KIV_API PktErrors getIcmp6Opt(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr,
                              Icmp6OptionCommonHdr*& option, Icmp6OptionTypeNumber type);

/// The authentication header behind an IPv4 header, with its authentication data and at least one byte behind
/// them. Codes: `nextHdrIsNotAh`, `badAhLen`; the header pointer is set where only the data are too short.
KIV_API PktErrors checkIpAhHdr(IpHdr* ipHdr, AhHdr*& ahHdr);
KIV_API PktErrors checkIpAhHdr(const Pkt::Ptr& pkt, IpHdr* ipHdr, AhHdr*& ahHdr);

/// Finds the header of `protocol` behind an IPv6 header, walking over the extension headers between:
/// hop-by-hop options, routing, fragment, destination options and authentication. `bytes` are there from the
/// IPv6 header on, in one piece; the payload length ends the walk too. Every step takes 8 bytes or more.
///
/// `noError` with `*hdr` at the first header of that protocol, of which at least one byte is there; or with
/// null when there is none: the chain ends at another protocol, or in a fragment that is not the first one.
/// `pktTooShort`, with null, where a header of the chain runs past the end.
KIV_API PktErrors getNextProtoHdr(Ip6Hdr* ip6Hdr, U32 bytes, char** hdr, U32 protocol);

}  // namespace Wirl
