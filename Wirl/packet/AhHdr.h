// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/NetInt.h"

namespace Wirl {

/// IP authentication header, without the authentication data behind it (RFC 4302).
class AhHdr : public HdrImage<12> {
 public:
  WIRL_HDR(AhHdr, "ah");
  /// Next header: the octet, and its name.
  WIRL_FIELD(U8, nextHdr, 0, 8, .key = "nextHeader");
  /// The protocol behind it.
  IpProtocolNumber nextHdrNum() const noexcept { return ipProtocolNumberOf(nextHdr()); }
  void nextHdrNumIs(IpProtocolNumber protocol) noexcept { nextHdrIs(protocol); }
  /// In words of 4 bytes, less 2.
  WIRL_FIELD(U8, payloadLen, 8, 8, .key = "length");
  WIRL_FIELD(U16, reserved, 16, 16);
  /// Security parameters index.
  WIRL_FIELD(U32, spi, 32, 32, .kind = hex);
  WIRL_FIELD(U32, sequenceNum, 64, 32, .key = "seq");

  /// Header and authentication data, as the header says: 8 to 1,028.
  U16 headerBytes() const noexcept { return static_cast<U16>(payloadLen() * 4 + 8); }
};
static_assert(isHeaderImage<AhHdr, 12>);

WIRL_HDR_WRAPPER(AhHdr, ahHdrWrapperFactory);

}  // namespace Wirl
