// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/value/IpAddr.h"

namespace Wirl {

/// Types of ICMP messages (RFC 792, RFC 950, RFC 1256). Every octet is a value of the type.
enum IcmpTypeNumber : Kiv::U8 {
  icmpTypeEchoReply = 0,
  icmpTypeDstUnreachable = 3,
  icmpTypeSourceQuench = 4,
  icmpTypeRedirect = 5,
  icmpTypeEchoRequest = 8,
  icmpTypeRouterAdvertisement = 9,
  icmpTypeRouterSolicitation = 10,
  icmpTypeTimeExceeded = 11,
  icmpTypeParameterProblem = 12,
  icmpTypeTimestampRequest = 13,
  icmpTypeTimestampReply = 14,
  icmpTypeInformationRequest = 15,
  icmpTypeInformationReply = 16,
  icmpTypeAddressMaskRequest = 17,
  icmpTypeAddressMaskReply = 18,
  icmpTypeExtendedEchoRequest = 42,
  icmpTypeExtendedEchoReply = 43,
};

/// The member's name; empty for an octet without one.
KIV_API std::string_view icmpTypeNumberText(IcmpTypeNumber type) noexcept;
/// Whether a message of that type has, behind 8 octets, the front of the datagram that it is about.
constexpr bool icmpIsError(U8 type) noexcept {
  return type >= icmpTypeDstUnreachable && type <= icmpTypeParameterProblem && type != icmpTypeEchoRequest &&
         type != icmpTypeRouterAdvertisement && type != icmpTypeRouterSolicitation && type != 6 && type != 7;
}

/// What all ICMP messages begin with (RFC 792).
class IcmpHdr : public HdrImage<4> {
 public:
  WIRL_HDR(IcmpHdr, "icmp");
  WIRL_FIELD(
      IcmpTypeNumber, type, 0, 8,
      .text = [](U64 type) { return icmpTypeNumberText(static_cast<IcmpTypeNumber>(type)); });
  WIRL_FIELD(U8, code, 8, 8);
  /// Over the whole message.
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
};
static_assert(isHeaderImage<IcmpHdr, 4>);

/// Echo, timestamp, information and address mask requests and replies.
class IcmpEchoHdr : public HdrImage<8, IcmpHdr> {
 public:
  WIRL_HDR(IcmpEchoHdr, "icmp");
  WIRL_FIELD(U16, id, 32, 16);
  WIRL_FIELD(U16, seqNum, 48, 16, .key = "seq");
};
static_assert(isHeaderImage<IcmpEchoHdr, 8>);

/// Timestamps in milliseconds since midnight UT; the highest bit marks others.
class IcmpTimestampHdr : public HdrImage<20, IcmpEchoHdr> {
 public:
  WIRL_HDR(IcmpTimestampHdr, "icmp");
  WIRL_FIELD(U32, originate, 64, 32);
  WIRL_FIELD(U32, receive, 96, 32);
  WIRL_FIELD(U32, transmit, 128, 32);
};
static_assert(isHeaderImage<IcmpTimestampHdr, 20>);

/// Address mask request and reply (RFC 950).
class IcmpAddressMaskHdr : public HdrImage<12, IcmpEchoHdr> {
 public:
  WIRL_HDR(IcmpAddressMaskHdr, "icmp");
  WIRL_FIELD(IpAddr, mask, 64, 32);
};
static_assert(isHeaderImage<IcmpAddressMaskHdr, 12>);

/// Destination unreachable, with the length of RFC 4884 and the MTU of RFC 1191; time exceeded and source
/// quench have the same form.
class IcmpUnreachableHdr : public HdrImage<8, IcmpHdr> {
 public:
  WIRL_HDR(IcmpUnreachableHdr, "icmp");
  /// In words of 4 bytes, of the original datagram where extensions follow it; 0 where none do.
  WIRL_FIELD(U8, originalWords, 40, 8, .scale = 4);
  /// In bytes, of the next link, where fragmentation is needed (code 4).
  WIRL_FIELD(U16, mtu, 48, 16);
};
static_assert(isHeaderImage<IcmpUnreachableHdr, 8>);

/// Redirect (RFC 792); the datagram's beginning follows.
class IcmpRedirectHdr : public HdrImage<8, IcmpHdr> {
 public:
  WIRL_HDR(IcmpRedirectHdr, "icmp");
  WIRL_FIELD(IpAddr, gateway, 32, 32);
};
static_assert(isHeaderImage<IcmpRedirectHdr, 8>);

/// Parameter problem (RFC 792); the datagram's beginning follows.
class IcmpParameterProblemHdr : public HdrImage<8, IcmpHdr> {
 public:
  WIRL_HDR(IcmpParameterProblemHdr, "icmp");
  /// Octet of the original datagram that is wrong.
  WIRL_FIELD(U8, pointer, 32, 8);
};
static_assert(isHeaderImage<IcmpParameterProblemHdr, 8>);

/// Router advertisement (RFC 1256), without its addresses.
class IcmpRouterAdvertisementHdr : public HdrImage<8, IcmpHdr> {
 public:
  WIRL_HDR(IcmpRouterAdvertisementHdr, "icmp");
  WIRL_FIELD(U8, addressCount, 32, 8);
  /// In words of 4 bytes, of an address with its preference.
  WIRL_FIELD(U8, entryWords, 40, 8);
  /// In seconds.
  WIRL_FIELD(U16, lifetime, 48, 16);
};
static_assert(isHeaderImage<IcmpRouterAdvertisementHdr, 8>);

/// An address of a router advertisement.
class IcmpRouterAddress : public HdrImage<8> {
 public:
  WIRL_HDR(IcmpRouterAddress, "router");
  WIRL_FIELD(IpAddr, address, 0, 32);
  /// Signed, in two's complement: the highest is preferred.
  WIRL_FIELD(U32, preference, 32, 32);
};

}  // namespace Wirl
