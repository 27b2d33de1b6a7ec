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

// Checks for a receive path, to be made before it trusts the headers of a packet. A bad packet gives a code
// and a trace (handle "PktChecks": failures at level 3, entries at level 8), never an exception. A check that
// takes the packet never reads or writes outside of its first piece, whatever the fields say. A check sets a
// header pointer if the header is complete and of the right kind, and null otherwise. A null packet or header
// ends the process.

// Checks of a frame, from the front of the packet. The headers must lie in the packet's first piece; the
// payload may be in either piece.

/// Ethernet and IPv4: the EtherType, the version, the lengths against the bytes present, and the header's
/// checksum. Codes: `pktTooShort` (also for a header whose own length runs past the first piece),
/// `wrongEthType`, `nonIpHdr`, `badIpPayloadLen`, `badIpHdrChecksum`. Sets a wrong checksum to 0; otherwise
/// does not change the packet. Accepts a header length below 20 bytes, and computes the checksum of that
/// many.
KIV_API PktErrors checkEthIpHdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, IpHdr*& ipHdr);

/// Ethernet and IPv6: the EtherType, the version, and the payload length against the bytes present. Codes:
/// `pktTooShort`, `wrongEthType`, `nonIp6Hdr`, `badIp6PayloadLen`.
KIV_API PktErrors checkEthIp6Hdr(const Pkt::Ptr& pkt, EthHdr*& ethHdr, Ip6Hdr*& ip6Hdr);

// Checks of what an IP header carries. The header must have passed a check above, because its length field
// bounds these. Prefer the forms that take the packet: if the datagram is not entirely in the packet's first
// piece, they return `pktTooShort` and change nothing. The forms without the packet are for packets in one
// piece, as received ones are. They cannot see where the piece ends: with a datagram in two pieces they read
// memory behind the first one, and the ICMPv6 checksum is even written there.

/// Checks the checksum of the ICMPv6 message right behind the IPv6 header, without skipping extension
/// headers. Leaves 0 in the checksum field. Codes: `nextHdrIsNotIcmp6`, `badIp6PayloadLen` (fewer than 4
/// bytes), `badIcmp6Checksum`; with the last one the header pointer is set.
KIV_API PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);
KIV_API PktErrors checkIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr*& icmp6Hdr);

/// Computes and stores the checksum of the ICMPv6 message at `icmp6Hdr`, over the IPv6 payload length. Does
/// not check that the payload has room for a header. Code: `nextHdrIsNotIcmp6`.
KIV_API PktErrors setIcmp6CheckSum(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr);
KIV_API PktErrors setIcmp6CheckSum(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr);

/// Finds the last option of a type in a neighbour solicitation, neighbour advertisement or router
/// solicitation that passed `checkIcmp6CheckSum`. If there is none, the result is null with `noError`. The
/// option lies in the message with all the bytes that its length says; the caller checks whether its type
/// needs more. Codes: `icmp6TypeNotSupported`, `icmp6OptLenExceedPayloadLen`, `icmp6OptLenZero`. A bad option
/// ends the search; an option of the type found before it is still returned.
KIV_API PktErrors getIcmp6Opt(Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr, Icmp6OptionCommonHdr*& option,
                              Icmp6OptionTypeNumber type);
KIV_API PktErrors getIcmp6Opt(const Pkt::Ptr& pkt, Ip6Hdr* ip6Hdr, Icmp6Hdr* icmp6Hdr,
                              Icmp6OptionCommonHdr*& option, Icmp6OptionTypeNumber type);

/// Checks the authentication header behind an IPv4 header: its authentication data and at least one byte
/// after them must be there. Codes: `nextHdrIsNotAh`, `badAhLen`. The header pointer is also set if only the
/// data are too short.
KIV_API PktErrors checkIpAhHdr(IpHdr* ipHdr, AhHdr*& ahHdr);
KIV_API PktErrors checkIpAhHdr(const Pkt::Ptr& pkt, IpHdr* ipHdr, AhHdr*& ahHdr);

/// Finds the header of `protocol` behind an IPv6 header, walking over the extension headers between:
/// hop-by-hop options, routing, fragment, destination options and authentication. `bytes` is the number of
/// bytes from the IPv6 header on, in one piece. The walk ends there, or at the end of the payload length if
/// that is earlier. Every step takes 8 bytes or more.
///
/// Returns `noError` and sets `*hdr` to the first header of that protocol; at least one byte of it is there.
/// `*hdr` is null if the chain ends at another protocol, or in a fragment that is not the first one. Returns
/// `pktTooShort`, with null, if a header of the chain runs past the end.
KIV_API PktErrors getNextProtoHdr(Ip6Hdr* ip6Hdr, U32 bytes, char** hdr, U32 protocol);

}  // namespace Wirl
