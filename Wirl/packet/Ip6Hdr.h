// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/IpHdrFields.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpTtl.h"

namespace Wirl {

/// The protocol that a next-header octet of IPv6 says, if it is one that goes over IPv6; else
/// `ipProtoUnknown`. ESP (50), AH (51), RSVP, GRE and SCTP are not among them.
KIV_API IpProtocolNumber nextHeaderNumber(U8 octet) noexcept;

/// IPv6 header (RFC 8200). Setters cut a number to its field and leave the neighbouring bits alone.
class KIV_API Ip6Hdr : public HdrImage<40> {
 public:
  static constexpr U8 ipVersion6 = 6;  ///< What the version field holds.

  WIRL_HDR(Ip6Hdr, "ip6");
  WIRL_FIELD(IpVersionTrafficClassAndFlowLabel, versionTrafficClassAndFlowLabel, 0, 32, .kind = hidden);
  WIRL_FIELD(IpVersion, version, 0, 4);
  WIRL_FIELD(IpTrafficClass, trafficClass, 4, 8);
  WIRL_FIELD(IpFlowLabel, flowLabel, 12, 20);
  /// Bytes behind this header, extension headers included.
  WIRL_FIELD(U16, payloadLen, 32, 16, .key = "payloadLength");
  /// The next-header octet as it stands.
  WIRL_FIELD(IpProto, protocol, 48, 8, .key = "nextHeader");
  WIRL_FIELD(IpTtl, hopLimit, 56, 8);
  WIRL_FIELD(Ip6Addr, src, 64, 128);
  WIRL_FIELD(Ip6Addr, dst, 192, 128);

  /// The next-header octet through `nextHeaderNumber`.
  IpProtocolNumber protocolNum() const noexcept { return nextHeaderNumber(protocol()); }
  void protocolNumIs(IpProtocolNumber protocol) noexcept { protocolIs(protocol); }

  /// Word sum of the pseudo-header of upper-layer checksums (RFC 8200, section 8.1): the starting value for
  /// `ipChecksumCalc`.
  U32 pseudoHdrSum(U32 upperLayerBytes, U8 nextHeader) const;

  /// The fields by name, in one line.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const Ip6Hdr& hdr);
};
static_assert(isHeaderImage<Ip6Hdr, 40>);

/// Type of an option in a hop-by-hop or destination options header.
class Ip6HdrOptionType {
 public:
  static constexpr U8 pad1 = 0;         ///< Type of one octet of padding.
  static constexpr U8 padN = 1;         ///< Type of padding of two octets and more.
  static constexpr U8 routerAlert = 5;  ///< Type of the router alert (RFC 2711).

  constexpr Ip6HdrOptionType() noexcept = default;
  constexpr explicit Ip6HdrOptionType(U8 value) noexcept : value_(value) {}

  constexpr U8 value() const noexcept { return value_; }
  /// What a node does that does not know the option, 2 bits.
  constexpr U8 action() const noexcept { return static_cast<U8>(value_ >> 6); }
  /// Whether the option's data may change on the way.
  constexpr bool mayChange() const noexcept { return (value_ & 0x20) != 0; }
  constexpr U8 number() const noexcept { return value_ & 0x1f; }

  friend constexpr auto operator<=>(const Ip6HdrOptionType&, const Ip6HdrOptionType&) noexcept = default;
  friend std::ostream& operator<<(std::ostream& out, Ip6HdrOptionType type) {
    return out << unsigned{type.value_};
  }

 private:
  U8 value_ = 0;
};
static_assert(isHeaderImage<Ip6HdrOptionType, 1>);

/// Start of a hop-by-hop options, destination options or routing header.
class Ip6HdrOptionCommon : public HdrImage<2> {
 public:
  WIRL_HDR(Ip6HdrOptionCommon, "ip6Options");
  WIRL_FIELD(U8, nextHdr, 0, 8, .key = "nextHeader");
  /// In units of 8 bytes behind the first 8.
  WIRL_FIELD(U8, hdrExtLen, 8, 8, .key = "length");

  /// The protocol behind it.
  IpProtocolNumber nextHdrNum() const noexcept { return nextHeaderNumber(nextHdr()); }
  void nextHdrNumIs(IpProtocolNumber protocol) noexcept { nextHdrIs(protocol); }
  /// Of the whole extension header.
  U16 headerBytes() const noexcept { return static_cast<U16>((hdrExtLen() + 1) * 8); }
};
static_assert(isHeaderImage<Ip6HdrOptionCommon, 2>);

/// One octet of padding.
class Ip6HdrPad1 : public HdrImage<1> {
 public:
  Ip6HdrPad1() noexcept { typeIs(Ip6HdrOptionType(Ip6HdrOptionType::pad1)); }

  WIRL_HDR(Ip6HdrPad1, "ip6Pad1");
  WIRL_FIELD(Ip6HdrOptionType, type, 0, 8);
};
static_assert(isHeaderImage<Ip6HdrPad1, 1>);

/// Two octets of padding; as many zeros follow as the length says.
class Ip6HdrPadN : public HdrImage<2> {
 public:
  Ip6HdrPadN() noexcept { typeIs(Ip6HdrOptionType(Ip6HdrOptionType::padN)); }

  WIRL_HDR(Ip6HdrPadN, "ip6PadN");
  WIRL_FIELD(Ip6HdrOptionType, type, 0, 8);
  WIRL_FIELD(U8, length, 8, 8);
};
static_assert(isHeaderImage<Ip6HdrPadN, 2>);

/// Hop-by-hop options header with the router alert option (RFC 2711); an `Ip6HdrPadN` behind it makes it 8
/// bytes.
class Ip6HdrRouterAlertOption : public HdrImage<6, Ip6HdrOptionCommon> {
 public:
  Ip6HdrRouterAlertOption() noexcept {
    typeIs(Ip6HdrOptionType(Ip6HdrOptionType::routerAlert));
    lengthIs(2);
  }

  WIRL_HDR(Ip6HdrRouterAlertOption, "ip6RouterAlert");
  WIRL_FIELD(Ip6HdrOptionType, type, 16, 8);
  WIRL_FIELD(U8, length, 24, 8, .key = "optionLength");
  WIRL_FIELD(U16, value, 32, 16);

  Ip6HdrOptionCommon& common() noexcept { return *this; }              ///< What all options begin with.
  const Ip6HdrOptionCommon& common() const noexcept { return *this; }  ///< What all options begin with.
};
static_assert(isHeaderImage<Ip6HdrRouterAlertOption, 6>);

WIRL_HDR_WRAPPER(Ip6Hdr, ip6HdrWrapperFactory);
WIRL_HDR_WRAPPER(Ip6HdrOptionCommon, ip6HdrOptionCommonWrapperFactory);
WIRL_HDR_WRAPPER(Ip6HdrRouterAlertOption, ip6HdrRouterAlertOptionWrapperFactory);
WIRL_HDR_WRAPPER(Ip6HdrPad1, ip6HdrPad1WrapperFactory);
WIRL_HDR_WRAPPER(Ip6HdrPadN, ip6HdrPadNWrapperFactory);

}  // namespace Wirl
