// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"

namespace Wirl {

/// UDP header (RFC 768).
class UdpHdr {
 public:
  U16 srcPort() const noexcept { return srcPort_; }
  void srcPortIs(U16 port) noexcept { srcPort_ = port; }
  U16 dstPort() const noexcept { return dstPort_; }
  void dstPortIs(U16 port) noexcept { dstPort_ = port; }
  /// In bytes, of header and data.
  U16 len() const noexcept { return len_; }
  void lenIs(U16 bytes) noexcept { len_ = bytes; }
  /// In bytes; 0 where the length field is below the header's.
  U16 payloadLen() const noexcept { return len_ < 8 ? U16{0} : static_cast<U16>(len_ - 8); }
  /// Over the pseudo-header, the header and the data; 0 where the sender computed none. A computed 0 is sent
  /// as 0xffff.
  IpChecksum checksum() const noexcept { return checksum_; }
  void checksumIs(IpChecksum checksum) noexcept { checksum_ = checksum; }
  U16 checksumU16() const noexcept { return checksum_.value(); }
  void checksumU16Is(U16 checksum) noexcept { checksum_ = IpChecksum(checksum); }

 private:
  NetU16 srcPort_;       // 0
  NetU16 dstPort_;       // 2
  NetU16 len_;           // 4
  IpChecksum checksum_;  // 6
};
static_assert(isHeaderImage<UdpHdr, 8>);

class KIV_API UdpHdrWrapper final : public HdrWrapper<UdpHdrWrapper, UdpHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( UdpHdr ) ) <= pkt_->frontBytes()";
  UdpHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

KIV_API UdpHdrWrapper::Ptr udpHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl
