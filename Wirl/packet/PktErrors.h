// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/NboAttrLog.h"
#include "Kiv/Types.h"

namespace Wirl {

/// The result of a packet check: one code for each way in which a packet can be bad, grouped by layer. The
/// text of each is its name.
enum PktErrors : Kiv::S32 {
  noError = 0,        ///< The check passed.
  pktTooShort = -1,   ///< The headers that the check needs do not lie whole in the packet's first piece.
  wrongEthType = -2,  ///< Not the EtherType that the check needs.
  badArpPkt = -3,     ///< Malformed ARP packet.
  nonOnLink = -4,     ///< The address is not on a connected link.

  badIpHdrChecksum = -50,  ///< IPv4 header checksum wrong.
  badIpPayloadLen = -51,   ///< IPv4 total length larger than the bytes present.
  nonIpHdr = -52,          ///< The version field is not 4.

  nonIp6Hdr = -101,         ///< The version field is not 6.
  badIp6PayloadLen = -102,  ///< IPv6 payload length larger than the bytes present, or too small for ICMPv6.

  nextHdrIsNotIcmp6 = -200,
  badIcmp6Checksum = -201,
  unspecifiedSrcAddrAndNotSolicitedNodeDst = -202,
  icmp6PayloadLenTooShortForHdr = -203,
  notIcmp6NsType = -204,
  icmp6NsTgtMcast = -205,  ///< Target of a neighbour solicitation is a multicast address.
  icmp6OptLenExceedPayloadLen = -206,
  icmp6OptLenZero = -207,
  icmp6TypeNotSupported = -208,  ///< Options are looked for in a type without neighbour-discovery options.
  unspecSrcAddrSrcLinkLayerAddr = -209,
  noSrcLinkLayerOptInMcastNs = -210,
  notIcmp6NaType = -211,
  icmp6NaTgtMcast = -212,  ///< Target of a neighbour advertisement is a multicast address.
  icmp6McastDstIpAndNonZeroSolicitation = -213,

  nonVrrpMac = -300,      ///< The destination MAC address is not a VRRP one.
  nonVrrpDstAddr = -301,  ///< The destination address is not the VRRP multicast address.
  nonVrrpProto = -302,
  badVrrpLen = -303,
  badVrrpVersion = -304,
  badVrrpChecksum = -305,
  vrrpVridMacMismatch = -306,  ///< The virtual router id does not match the MAC address.
  badVrrpAuth = -307,
  badVrrpLinkLocal = -308,

  nextHdrIsNotAh = -400,
  badAhLen = -401,  ///< Too short for the AH header or for its authentication data.
  nonAhHmac96 = -402,
};

/// The member's name; empty for a value without one.
KIV_API std::string_view pktErrorsText(PktErrors code) noexcept;
/// The code that the whole of `text` names, or nothing.
KIV_API std::optional<PktErrors> pktErrorsFromText(std::string_view text) noexcept;
/// The same; throws `Kiv::RangeException` "Invalid PktErrors" for any other text.
KIV_API PktErrors pktErrorsFromString(std::string_view text);
/// The name; the number for a value without one.
KIV_API std::ostream& operator<<(std::ostream& out, PktErrors code);
/// As 32 bits.
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, PktErrors code);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, PktErrors& code);

}  // namespace Wirl
