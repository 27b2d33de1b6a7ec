// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

// Messages and options of ICMPv6 beside those of `Icmp6Hdr.h`: errors and echo (RFC 4443), neighbour
// discovery (RFC 4861 and others), listener discovery (RFC 2710, RFC 3810).

/// Destination unreachable and time exceeded; the front of the datagram that they are about follows.
class Icmp6ErrorHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  WIRL_HDR(Icmp6ErrorHdr, "icmp6");
};
class Icmp6PacketTooBigHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  WIRL_HDR(Icmp6PacketTooBigHdr, "icmp6");
  /// In bytes.
  WIRL_FIELD(U32, mtu, 32, 32);
};
class Icmp6ParameterProblemHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  WIRL_HDR(Icmp6ParameterProblemHdr, "icmp6");
  WIRL_FIELD(U32, pointer, 32, 32);
};
class Icmp6EchoHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  WIRL_HDR(Icmp6EchoHdr, "icmp6");
  WIRL_FIELD(U16, id, 32, 16);
  WIRL_FIELD(U16, seqNum, 48, 16, .key = "seq");
};
static_assert(isHeaderImage<Icmp6EchoHdr, 8>);

/// Redirect (RFC 4861 section 4.5); options follow.
class Icmp6RedirectHdr : public HdrImage<40, Icmp6Hdr> {
 public:
  Icmp6RedirectHdr() noexcept { typeIs(icmp6TypeRedirect); }
  WIRL_HDR(Icmp6RedirectHdr, "icmp6");
  WIRL_FIELD(Ip6Addr, target, 64, 128);
  WIRL_FIELD(Ip6Addr, destination, 192, 128);
};
static_assert(isHeaderImage<Icmp6RedirectHdr, 40>);

/// The options behind the fixed part of a neighbour-discovery message.
using NdOptions = OptionList<NdOptionFormat>;

// Options as `WireOption::as` gives them. The link-layer address, prefix and MTU options are those of
// `Icmp6Hdr.h`; here are they with their types.
class NdSrcLinkLayerAddrOption : public Icmp6LinkLayerAddrOptionHdr {
 public:
  static constexpr U8 kType = icmp6OptSrcLinkLayerAddr;
};
class NdTgtLinkLayerAddrOption : public Icmp6LinkLayerAddrOptionHdr {
 public:
  static constexpr U8 kType = icmp6OptTgtLinkLayerAddr;
};
class NdPrefixInfoOption : public Icmp6PrefixInfoOptionHdr {
 public:
  static constexpr U8 kType = icmp6OptPrefixInfo;
};
class NdMtuOption : public Icmp6MtuOptionHdr {
 public:
  static constexpr U8 kType = icmp6OptMtu;
};
/// Redirected header (RFC 4861): the front of the datagram follows.
class NdRedirectedHdrOption : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = icmp6OptRedirectedHdr;
  WIRL_HDR(NdRedirectedHdrOption, "redirectedHeader");
};
/// RFC 3971: at least 6 octets.
class NdNonceOption : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = icmp6OptNonce;
  WIRL_HDR(NdNonceOption, "nonce");
};
/// RFC 4191: 0, 8 or 16 octets of prefix follow.
class NdRouteInfoOption : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = icmp6OptRouteInfo;
  WIRL_HDR(NdRouteInfoOption, "routeInfo");
  WIRL_FIELD(U8, prefixLen, 16, 8);
  /// 0 medium, 1 high, 3 low.
  WIRL_FIELD(U8, preference, 27, 2);
  /// In seconds.
  WIRL_FIELD(U32, lifetime, 32, 32);
};
/// Recursive name servers (RFC 8106): addresses follow.
class NdRdnssOption : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = icmp6OptRdnss;
  WIRL_HDR(NdRdnssOption, "rdnss");
  WIRL_FIELD(U32, lifetime, 32, 32);
};
/// Search list (RFC 8106): names follow.
class NdDnsslOption : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = icmp6OptDnssl;
  WIRL_HDR(NdDnsslOption, "dnssl");
  WIRL_FIELD(U32, lifetime, 32, 32);
};
/// Prefix of NAT64 (RFC 8781): 12 octets of it follow.
class NdPref64Option : public HdrImage<4, Icmp6OptionCommonHdr> {
 public:
  static constexpr U8 kType = 38;
  WIRL_HDR(NdPref64Option, "pref64");
  WIRL_FIELD(U16, lifetime, 16, 13, .scale = 8);
  WIRL_FIELD(U8, prefixLenCode, 29, 3);
};

/// Query, report and done of MLD (RFC 2710), and the start of a query of version 2.
class MldHdr : public HdrImage<24, Icmp6Hdr> {
 public:
  WIRL_HDR(MldHdr, "icmp6");
  /// In milliseconds; of version 2 a code from 32768 on.
  WIRL_FIELD(U16, maxResponse, 32, 16);
  WIRL_FIELD(Ip6Addr, group, 64, 128);
};
static_assert(isHeaderImage<MldHdr, 24>);

/// Query of version 2 (RFC 3810); the sources follow.
class Mld2QueryHdr : public HdrImage<28, MldHdr> {
 public:
  WIRL_HDR(Mld2QueryHdr, "icmp6");
  WIRL_FIELD(bool, suppress, 196, 1);
  WIRL_FIELD(U8, robustness, 197, 3);
  /// In seconds, a code from 128 on.
  WIRL_FIELD(U8, queryInterval, 200, 8);
  WIRL_FIELD(U16, sourceCount, 208, 16);
};
static_assert(isHeaderImage<Mld2QueryHdr, 28>);

/// Report of version 2; the records follow: `MldRecords(view.payload())`.
class Mld2ReportHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  Mld2ReportHdr() noexcept { typeIs(icmp6TypeMldv2Report); }
  WIRL_HDR(Mld2ReportHdr, "icmp6");
  WIRL_FIELD(U16, recordCount, 48, 16);
};
static_assert(isHeaderImage<Mld2ReportHdr, 8>);

/// What a record of a report begins with; the sources follow, then auxiliary data.
class MldRecordHdr : public HdrImage<20> {
 public:
  WIRL_HDR(MldRecordHdr, "record");
  WIRL_FIELD(U8, type, 0, 8);
  WIRL_FIELD(U8, auxWords, 8, 8);
  WIRL_FIELD(U16, sourceCount, 16, 16);
  WIRL_FIELD(Ip6Addr, group, 32, 128);
};
static_assert(isHeaderImage<MldRecordHdr, 20>);

using MldRecords = OptionList<GroupRecordFormat<16>>;

}  // namespace Wirl
