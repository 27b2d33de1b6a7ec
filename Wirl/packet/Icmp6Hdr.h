// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <string_view>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6Addr.h"

namespace Wirl {

/// Types of ICMPv6 messages (RFC 4443, RFC 2710, RFC 4861). Every octet is a value of the type. The text of
/// each is its name.
enum Icmp6TypeNumber : Kiv::U8 {
  icmp6TypeDstUnreachable = 1,
  icmp6TypePacketTooBig = 2,
  icmp6TypeTimeExceeded = 3,
  icmp6TypeParameterProblem = 4,
  icmp6TypeEchoRequest = 128,
  icmp6TypeEchoReply = 129,
  icmp6TypeMldQuery = 130,
  icmp6TypeMldReport = 131,
  icmp6TypeMldDone = 132,
  icmp6TypeRouterSolicitation = 133,
  icmp6TypeRouterAdvertisement = 134,
  icmp6TypeNeighborSolicitation = 135,
  icmp6TypeNeighborAdvertisement = 136,
  icmp6TypeRedirect = 137,
  icmp6TypeMldv2Report = 143,
};

/// Types of neighbour-discovery options (RFC 4861, RFC 3971, RFC 4191, RFC 8106). Every octet is a value of
/// the type. The text of each is its name.
enum Icmp6OptionTypeNumber : Kiv::U8 {
  icmp6OptSrcLinkLayerAddr = 1,
  icmp6OptTgtLinkLayerAddr = 2,
  icmp6OptPrefixInfo = 3,
  icmp6OptRedirectedHdr = 4,
  icmp6OptMtu = 5,
  icmp6OptNonce = 14,
  icmp6OptRouteInfo = 24,
  icmp6OptRdnss = 25,
  icmp6OptDnssl = 31,
};

/// The member's name; empty for an octet without one. Streams write the number of such an octet.
KIV_API std::string_view icmp6TypeNumberText(Icmp6TypeNumber type) noexcept;
/// The name of an option's type; "unknown" where it has none.
KIV_API std::string_view icmp6OptionTypeNumberText(Icmp6OptionTypeNumber type) noexcept;
KIV_API std::ostream& operator<<(std::ostream& out, Icmp6TypeNumber type);
KIV_API std::ostream& operator<<(std::ostream& out, Icmp6OptionTypeNumber type);

/// Start of every ICMPv6 message (RFC 4443).
class Icmp6Hdr : public HdrImage<4> {
 public:
  WIRL_HDR(Icmp6Hdr, "icmp6");
  WIRL_FIELD(
      Icmp6TypeNumber, type, 0, 8,
      .text = [](U64 type) { return icmp6TypeNumberText(static_cast<Icmp6TypeNumber>(type)); });
  WIRL_FIELD(U8, code, 8, 8);
  /// Over the pseudo-header of IPv6 and the whole message.
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
  WIRL_FIELD(U16, checksumU16, 16, 16, .kind = hidden);
};
static_assert(isHeaderImage<Icmp6Hdr, 4>);

// Messages of neighbour discovery (RFC 4861 section 4), without the options behind them. Each begins as
// `Icmp6Hdr` does; the default constructors set the type.

class Icmp6RsHdr : public HdrImage<8, Icmp6Hdr> {
 public:
  Icmp6RsHdr() noexcept { typeIs(icmp6TypeRouterSolicitation); }
  WIRL_HDR(Icmp6RsHdr, "icmp6");
};
static_assert(isHeaderImage<Icmp6RsHdr, 8>);

class Icmp6RaHdr : public HdrImage<16, Icmp6Hdr> {
 public:
  Icmp6RaHdr() noexcept { typeIs(icmp6TypeRouterAdvertisement); }
  WIRL_HDR(Icmp6RaHdr, "icmp6");
  WIRL_FIELD(U8, curHopLimit, 32, 8);
  /// Addresses by DHCPv6.
  WIRL_FIELD(bool, managed, 40, 1);
  /// Other configuration by DHCPv6.
  WIRL_FIELD(bool, otherConfig, 41, 1);
  /// In seconds.
  WIRL_FIELD(U16, routerLifetime, 48, 16);
  /// In milliseconds.
  WIRL_FIELD(U32, reachableTime, 64, 32);
  /// In milliseconds.
  WIRL_FIELD(U32, retransTimer, 96, 32);
};
static_assert(isHeaderImage<Icmp6RaHdr, 16>);

class Icmp6NsHdr : public HdrImage<24, Icmp6Hdr> {
 public:
  Icmp6NsHdr() noexcept { typeIs(icmp6TypeNeighborSolicitation); }
  WIRL_HDR(Icmp6NsHdr, "icmp6");
  WIRL_FIELD(Ip6Addr, target, 64, 128);
};
static_assert(isHeaderImage<Icmp6NsHdr, 24>);

class Icmp6NaHdr : public HdrImage<24, Icmp6Hdr> {
 public:
  Icmp6NaHdr() noexcept { typeIs(icmp6TypeNeighborAdvertisement); }
  WIRL_HDR(Icmp6NaHdr, "icmp6");
  WIRL_FIELD(bool, router, 32, 1);
  WIRL_FIELD(bool, solicited, 33, 1);
  WIRL_FIELD(bool, override, 34, 1);
  WIRL_FIELD(Ip6Addr, target, 64, 128);
};
static_assert(isHeaderImage<Icmp6NaHdr, 24>);

/// Start of every neighbour-discovery option.
class Icmp6OptionCommonHdr : public HdrImage<2> {
 public:
  WIRL_HDR(Icmp6OptionCommonHdr, "option");
  WIRL_FIELD(
      Icmp6OptionTypeNumber, type, 0, 8,
      .text = [](U64 type) { return icmp6OptionTypeNumberText(static_cast<Icmp6OptionTypeNumber>(type)); });
  /// Of the whole option, in units of 8 bytes.
  WIRL_FIELD(U8, len, 8, 8, .key = "length", .scale = 8);

  U16 bytes() const noexcept { return static_cast<U16>(len() * 8); }
};
static_assert(isHeaderImage<Icmp6OptionCommonHdr, 2>);

/// Source or target link-layer address, for Ethernet (RFC 2464).
class Icmp6LinkLayerAddrOptionHdr : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  Icmp6LinkLayerAddrOptionHdr() noexcept : Icmp6LinkLayerAddrOptionHdr(icmp6OptSrcLinkLayerAddr) {}
  explicit Icmp6LinkLayerAddrOptionHdr(Icmp6OptionTypeNumber type) noexcept {
    typeIs(type);
    lenIs(1);
  }
  WIRL_HDR(Icmp6LinkLayerAddrOptionHdr, "linkLayerAddr");
  WIRL_FIELD(EthAddr, addr, 16, 48);
};
static_assert(isHeaderImage<Icmp6LinkLayerAddrOptionHdr, 8>);

class Icmp6PrefixInfoOptionHdr : public HdrImage<32, Icmp6OptionCommonHdr> {
 public:
  Icmp6PrefixInfoOptionHdr() noexcept {
    typeIs(icmp6OptPrefixInfo);
    lenIs(4);
  }
  WIRL_HDR(Icmp6PrefixInfoOptionHdr, "prefixInfo");
  /// As the octet says: above 128 in a bad one.
  WIRL_FIELD(U8, prefixLen, 16, 8);
  WIRL_FIELD(bool, onLink, 24, 1);
  WIRL_FIELD(bool, autonomous, 25, 1);
  /// In seconds, all ones for ever.
  WIRL_FIELD(U32, validLifetime, 32, 32);
  WIRL_FIELD(U32, preferredLifetime, 64, 32);
  WIRL_FIELD(Ip6Addr, prefix, 128, 128);
};
static_assert(isHeaderImage<Icmp6PrefixInfoOptionHdr, 32>);

class Icmp6MtuOptionHdr : public HdrImage<8, Icmp6OptionCommonHdr> {
 public:
  Icmp6MtuOptionHdr() noexcept {
    typeIs(icmp6OptMtu);
    lenIs(1);
  }
  WIRL_HDR(Icmp6MtuOptionHdr, "mtu");
  /// In bytes.
  WIRL_FIELD(U32, mtu, 32, 32);
};
static_assert(isHeaderImage<Icmp6MtuOptionHdr, 8>);

WIRL_HDR_WRAPPER(Icmp6Hdr, icmp6HdrWrapperFactory);
WIRL_HDR_WRAPPER(Icmp6OptionCommonHdr, icmp6OptionCommonHdrWrapperFactory);

}  // namespace Wirl
