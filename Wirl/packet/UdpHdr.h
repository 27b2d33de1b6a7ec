// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"

namespace Wirl {

/// User datagram header (RFC 768).
class UdpHdr : public HdrImage<8> {
 public:
  WIRL_HDR(UdpHdr, "udp");
  WIRL_FIELD(U16, srcPort, 0, 16);
  WIRL_FIELD(U16, dstPort, 16, 16);
  /// In bytes, of header and data.
  WIRL_FIELD(U16, len, 32, 16, .key = "length");
  /// Over the pseudo-header, the header and the data; 0 where the sender computed none. A computed 0 is sent
  /// as 0xffff.
  WIRL_FIELD(IpChecksum, checksum, 48, 16);
  WIRL_FIELD(U16, checksumU16, 48, 16, .kind = hidden);

  /// In bytes; 0 where the length field is below the header's.
  U16 payloadLen() const noexcept { return len() < 8 ? U16{0} : static_cast<U16>(len() - 8); }
};
static_assert(isHeaderImage<UdpHdr, 8>);

WIRL_HDR_WRAPPER(UdpHdr, udpHdrWrapperFactory);

}  // namespace Wirl
