// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/NetInt.h"

namespace Wirl {

/// IP authentication header, without the authentication data behind it (RFC 4302).
class AhHdr {
 public:
  /// Next header: the octet, and its name.
  U8 nextHdr() const noexcept { return nextHdr_; }
  void nextHdrIs(U8 protocol) noexcept { nextHdr_ = protocol; }
  IpProtocolNumber nextHdrNum() const noexcept { return ipProtocolNumberOf(nextHdr_); }
  void nextHdrNumIs(IpProtocolNumber protocol) noexcept { nextHdr_ = protocol; }
  /// In words of 4 bytes, less 2.
  U8 payloadLen() const noexcept { return payloadLen_; }
  void payloadLenIs(U8 words) noexcept { payloadLen_ = words; }
  /// Header and authentication data, as the header says: 8 to 1,028.
  U16 headerBytes() const noexcept { return static_cast<U16>(payloadLen_ * 4 + 8); }
  U16 reserved() const noexcept { return reserved_; }
  void reservedIs(U16 reserved) noexcept { reserved_ = reserved; }
  /// Security parameters index.
  U32 spi() const noexcept { return spi_; }
  void spiIs(U32 spi) noexcept { spi_ = spi; }
  U32 sequenceNum() const noexcept { return sequenceNum_; }
  void sequenceNumIs(U32 number) noexcept { sequenceNum_ = number; }

 private:
  U8 nextHdr_ = 0;      // 0
  U8 payloadLen_ = 0;   // 1
  NetU16 reserved_;     // 2
  NetU32 spi_;          // 4
  NetU32 sequenceNum_;  // 8
};
static_assert(isHeaderImage<AhHdr, 12>);

class KIV_API AhHdrWrapper final : public HdrWrapper<AhHdrWrapper, AhHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( AhHdr ) ) <= pkt_->frontBytes()";
  AhHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

KIV_API AhHdrWrapper::Ptr ahHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl
