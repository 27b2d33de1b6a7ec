// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Kiv/Assert.h"
#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/IpHdrFields.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpTtl.h"

namespace Wirl {

/// IPv4 header (RFC 791) without its options. Setters cut a number to its field and leave the neighbouring
/// bits alone. Do not trust a received header: the lengths in it may be anything.
class KIV_API IpHdr : public HdrImage<20> {
 public:
  static constexpr U8 ipVersion4 = 4;                ///< What the version field holds.
  static constexpr U16 headerLenByteMultiplier = 4;  ///< Octets that the header length counts at a time.

  WIRL_HDR(IpHdr, "ip");
  WIRL_FIELD(IpVersionAndHeaderLen, versionAndHeaderLen, 0, 8, .kind = hidden);
  WIRL_FIELD(IpVersion, version, 0, 4);
  /// In words of 4 bytes, options included.
  WIRL_FIELD(IpHdrLen, headerLen, 4, 4, .key = "headerLength", .scale = headerLenByteMultiplier);
  WIRL_FIELD(IpTos, tos, 8, 8, .kind = hidden);
  WIRL_FIELD(IpDscp, dscp, 8, 6);
  /// Explicit congestion notification (RFC 3168).
  WIRL_FIELD(U8, ecn, 14, 2);
  /// Of the datagram, in bytes, this header included.
  WIRL_FIELD(IpTotalLen, totalLen, 16, 16, .key = "totalLength");
  WIRL_FIELD(U16, totalLenU16, 16, 16, .kind = hidden);
  WIRL_FIELD(IpId, id, 32, 16);
  WIRL_FIELD(U16, idU16, 32, 16, .kind = hidden);
  WIRL_FIELD(IpFragmentOffsetAndFlags, fragmentOffsetAndFlags, 48, 16, .kind = hidden);
  /// The next three as one number.
  WIRL_FIELD(U8, flags, 48, 3);
  WIRL_FIELD(bool, reservedFragFlag, 48, 1, .kind = hidden);
  WIRL_FIELD(bool, dontFrag, 49, 1, .kind = hidden);
  WIRL_FIELD(bool, moreFrag, 50, 1, .kind = hidden);
  /// In units of 8 bytes.
  WIRL_FIELD(IpFragmentOffset, fragmentOffset, 51, 13);
  WIRL_FIELD(IpTtl, ttl, 64, 8);
  /// The octet as it stands.
  WIRL_FIELD(IpProto, protocol, 72, 8);
  WIRL_FIELD(IpChecksum, checksum, 80, 16);
  WIRL_FIELD(U16, checksumU16, 80, 16, .kind = hidden);
  WIRL_FIELD(IpAddr, src, 96, 32);
  WIRL_FIELD(IpAddr, dst, 128, 32);

  /// The header's length in bytes, 0 to 60.
  U16 headerBytes() const noexcept { return static_cast<U16>(headerLen() * headerLenByteMultiplier); }
  /// A length that is not a multiple of 4 ends the process.
  void headerBytesIs(U16 b) {
    KIV_ASSERT_AS(b % headerLenByteMultiplier == 0, "(b % 4) == 0");
    headerLenIs(static_cast<U8>(b / headerLenByteMultiplier));
  }
  /// Whether the header is longer than 20 octets.
  bool hasOptions() const noexcept { return headerBytes() > sizeof(IpHdr); }
  /// The total length without the header; 0 if it is less than the header.
  U16 payloadLen() const noexcept {
    const U16 total = totalLenU16();
    return static_cast<U16>(total > headerBytes() ? total - headerBytes() : 0);
  }

  /// The protocol, if it is one that goes over IPv4; else `ipProtoUnknown`. ESP (50) and the extension
  /// headers of IPv6 are not among them.
  IpProtocolNumber protocolNum() const noexcept;
  void protocolNumIs(IpProtocolNumber protocol) noexcept { protocolIs(protocol); }

  /// Over `headerBytes()` bytes from the start of this header, which must be there, with the checksum field
  /// as it stands. To send, set the field to 0 first and store the result; a good received header gives 0.
  IpChecksum computedChecksum() const;
  /// The checksum that the header should have, host order.
  U16 computedChecksumU16() const { return computedChecksum().value(); }

  /// The fields by name, in one line.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const IpHdr& hdr);
};
static_assert(isHeaderImage<IpHdr, 20>);

/// Type octet of an IPv4 option: the first octet, and the only one of options without a length.
class IpHdrOptionCommon : public HdrImage<1> {
 public:
  IpHdrOptionCommon() noexcept = default;
  explicit IpHdrOptionCommon(U8 type) noexcept { typeIs(type); }

  WIRL_HDR(IpHdrOptionCommon, "ipOption");
  WIRL_FIELD(U8, type, 0, 8);
  /// Into every fragment.
  WIRL_FIELD(bool, copied, 0, 1, .kind = hidden);
  WIRL_FIELD(U8, optionClass, 1, 2, .kind = hidden);
  WIRL_FIELD(U8, number, 3, 5, .kind = hidden);
};
static_assert(isHeaderImage<IpHdrOptionCommon, 1>);

/// Router alert option (RFC 2113): routers look at the datagram. Well-formed as it is constructed.
class IpHdrRouterAlertOption : public HdrImage<4, IpHdrOptionCommon> {
 public:
  static constexpr U8 routerAlertType = 148;  ///< Copied, class 0, number 20.

  IpHdrRouterAlertOption() noexcept {
    typeIs(routerAlertType);
    lengthIs(4);
  }

  WIRL_HDR(IpHdrRouterAlertOption, "ipRouterAlert");
  WIRL_FIELD(U8, length, 8, 8);
  WIRL_FIELD(U16, value, 16, 16);

  IpHdrOptionCommon& common() noexcept { return *this; }              ///< What all options begin with.
  const IpHdrOptionCommon& common() const noexcept { return *this; }  ///< What all options begin with.
};
static_assert(isHeaderImage<IpHdrRouterAlertOption, 4>);

WIRL_HDR_WRAPPER(IpHdr, ipHdrWrapperFactory);
WIRL_HDR_WRAPPER(IpHdrOptionCommon, ipHdrOptionCommonWrapperFactory);
WIRL_HDR_WRAPPER(IpHdrRouterAlertOption, ipHdrRouterAlertOptionWrapperFactory);

}  // namespace Wirl
