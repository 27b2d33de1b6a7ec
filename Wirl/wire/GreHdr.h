// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// GRE header (RFC 2784) without its optional fields: checksum (and offset), key (RFC 2890), sequence number,
/// and routing (RFC 1701). Version 1 is that of PPTP (RFC 2637), with an acknowledgement.
class GreHdr : public HdrImage<4> {
 public:
  static constexpr U16 ppp = 0x880b;  ///< Protocol type of PPTP.

  WIRL_HDR(GreHdr, "gre");
  /// The whole of the first 16 bits: what is present, and the version.
  WIRL_FIELD(U16, flags, 0, 16, .kind = hex);
  WIRL_FIELD(bool, checksumPresent, 0, 1, .kind = hidden);
  WIRL_FIELD(bool, routingPresent, 1, 1, .kind = hidden);
  WIRL_FIELD(bool, keyPresent, 2, 1, .kind = hidden);
  WIRL_FIELD(bool, seqPresent, 3, 1, .kind = hidden);
  WIRL_FIELD(bool, ackPresent, 8, 1, .kind = hidden);
  WIRL_FIELD(U8, version, 13, 3);
  /// An EtherType.
  WIRL_FIELD(U16, protocol, 16, 16, .kind = hex);

  /// With the optional fields, but for the entries of routing.
  U16 headerBytes() const noexcept {
    return static_cast<U16>(seqOffset() + (seqPresent() ? 4 : 0) + (hasAck() ? 4 : 0));
  }
  /// Whether an acknowledgement number follows (version 1).
  bool hasAck() const noexcept { return protocol() == ppp && ackPresent(); }
  /// Whether a checksum and an offset follow.
  bool hasChecksum() const noexcept { return checksumPresent() || routingPresent(); }
  /// Of the optional fields, from the start of the header.
  U16 keyOffset() const noexcept { return static_cast<U16>(sizeof(GreHdr) + (hasChecksum() ? 4 : 0)); }
  /// Where the sequence number is, in octets from the header's start.
  U16 seqOffset() const noexcept { return static_cast<U16>(keyOffset() + (keyPresent() ? 4 : 0)); }
};
static_assert(isHeaderImage<GreHdr, 4>);

/// Optional fields of a GRE header that was found whole, at the offsets that it gives.
class GreChecksumField : public HdrImage<4> {
 public:
  WIRL_HDR(GreChecksumField, "gre");
  /// Over the GRE header and what it carries.
  WIRL_FIELD(IpChecksum, checksum, 0, 16);
  WIRL_FIELD(U16, offset, 16, 16);
};
/// The key, where it is present.
class GreKeyField : public HdrImage<4> {
 public:
  WIRL_HDR(GreKeyField, "gre");
  WIRL_FIELD(U32, key, 0, 32);
};
/// The sequence number, where it is present.
class GreSeqField : public HdrImage<4> {
 public:
  WIRL_HDR(GreSeqField, "gre");
  WIRL_FIELD(U32, seqNum, 0, 32, .key = "seq");
};

/// Header of mirrored frames in GRE, version 2 (type II): the frame is behind it.
class ErspanHdr : public HdrImage<8> {
 public:
  static constexpr U16 greProtocol = 0x88be;   ///< EtherType of mirrored frames.
  static constexpr U16 greProtocol3 = 0x22eb;  ///< Type III, with a header of 12 bytes or 20.

  WIRL_HDR(ErspanHdr, "erspan");
  WIRL_FIELD(U8, version, 0, 4);
  WIRL_FIELD(U16, vlan, 4, 12);
  WIRL_FIELD(U8, priority, 16, 3);
  WIRL_FIELD(bool, truncated, 21, 1);
  WIRL_FIELD(U16, session, 22, 10);
};
static_assert(isHeaderImage<ErspanHdr, 8>);

}  // namespace Wirl
