// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"

namespace Wirl {

/// Entry of a stack of MPLS labels (RFC 3032).
class MplsHdr : public HdrImage<4> {
 public:
  static constexpr U32 ip4ExplicitNull = 0;  ///< The packet below is IPv4.
  static constexpr U32 routerAlert = 1;      ///< Routers are to look at it.
  static constexpr U32 ip6ExplicitNull = 2;  ///< The packet below is IPv6.
  /// Never on the wire: the last hop but one takes the label off.
  static constexpr U32 implicitNull = 3;
  static constexpr U32 entropyIndicator = 7;    ///< The next label is entropy (RFC 6790).
  static constexpr U32 associatedChannel = 13;  ///< Generic associated channel (RFC 5586).

  WIRL_HDR(MplsHdr, "mpls");
  WIRL_FIELD(U32, label, 0, 20);
  WIRL_FIELD(U8, trafficClass, 20, 3);
  /// The last entry of the stack.
  WIRL_FIELD(bool, bottom, 23, 1);
  WIRL_FIELD(U8, ttl, 24, 8);
};
static_assert(isHeaderImage<MplsHdr, 4>);

/// Control word of a pseudowire (RFC 4385), as a packet of it has that is no packet of IP.
class PwControlWord : public HdrImage<4> {
 public:
  WIRL_HDR(PwControlWord, "pwcw");
  /// 0; 1 begins an associated channel instead.
  WIRL_FIELD(U8, nibble, 0, 4);
  /// Of the pseudowire's own kind.
  WIRL_FIELD(U8, flags, 4, 4, .kind = hex);
  WIRL_FIELD(U8, fragmentation, 8, 2);
  /// In bytes, of the control word and the payload where they are below 64; else 0.
  WIRL_FIELD(U8, length, 10, 6);
  /// 0: sequence numbers are not used.
  WIRL_FIELD(U16, seqNum, 16, 16, .key = "seq");
};
static_assert(isHeaderImage<PwControlWord, 4>);

/// Associated channel header (RFC 4385, RFC 5586).
class PwAssociatedChannelHdr : public HdrImage<4> {
 public:
  WIRL_HDR(PwAssociatedChannelHdr, "pwach");
  WIRL_FIELD(U8, nibble, 0, 4);
  WIRL_FIELD(U8, version, 4, 4);
  WIRL_FIELD(U16, channelType, 16, 16, .kind = hex);
};
static_assert(isHeaderImage<PwAssociatedChannelHdr, 4>);

}  // namespace Wirl
