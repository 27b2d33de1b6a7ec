// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Kiv/Assert.h"
#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/IpHdrFields.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpTtl.h"

namespace Wirl {

/// IPv4 header (RFC 791) without its options. Setters cut a number to its field and leave the neighbouring
/// bits alone. What was received is not to be trusted: lengths in it may be anything.
class KIV_API IpHdr {
 public:
  static constexpr U8 ipVersion4 = 4;
  static constexpr U16 headerLenByteMultiplier = 4;

  IpVersion version() const noexcept { return versionAndHeaderLen().version; }
  void versionIs(U8 version) noexcept {
    versionAndHeaderLen_ = static_cast<U8>(version << 4 | (versionAndHeaderLen_ & 0x0f));
  }
  /// In words of 4 bytes, options included.
  IpHdrLen headerLen() const noexcept { return versionAndHeaderLen().headerLen; }
  void headerLenIs(U8 words) noexcept {
    versionAndHeaderLen_ = static_cast<U8>((versionAndHeaderLen_ & 0xf0) | (words & 0x0f));
  }
  IpVersionAndHeaderLen versionAndHeaderLen() const noexcept {
    return IpVersionAndHeaderLen(versionAndHeaderLen_);
  }

  /// The header's length in bytes, 0 to 60.
  U16 headerBytes() const noexcept { return static_cast<U16>(headerLen() * headerLenByteMultiplier); }
  /// A length that is not a multiple of 4 ends the process.
  void headerBytesIs(U16 b) {
    KIV_ASSERT_AS(b % headerLenByteMultiplier == 0, "(b % 4) == 0");
    headerLenIs(static_cast<U8>(b / headerLenByteMultiplier));
  }
  bool hasOptions() const noexcept { return headerBytes() > sizeof(IpHdr); }

  IpTos tos() const noexcept { return IpTos(tos_); }
  void tosIs(U8 tos) noexcept { tos_ = tos; }
  IpDscp dscp() const noexcept { return IpDscp::ofTos(tos_); }
  void dscpIs(IpDscp dscp) noexcept { tos_ = static_cast<U8>(dscp.tos() | ecn()); }
  /// Explicit congestion notification (RFC 3168), 2 bits.
  U8 ecn() const noexcept { return tos_ & 3; }
  void ecnIs(U8 ecn) noexcept { tos_ = static_cast<U8>((tos_ & ~3) | (ecn & 3)); }

  /// Of the datagram, in bytes, this header included.
  IpTotalLen totalLen() const noexcept { return IpTotalLen(totalLen_.value()); }
  U16 totalLenU16() const noexcept { return totalLen_; }
  void totalLenIs(U16 bytes) noexcept { totalLen_ = bytes; }
  /// What the total length leaves behind the header; 0 where it is less than the header.
  U16 payloadLen() const noexcept {
    return static_cast<U16>(totalLen_ > headerBytes() ? totalLen_ - headerBytes() : 0);
  }

  IpId id() const noexcept { return IpId(id_.value()); }
  U16 idU16() const noexcept { return id_; }
  void idU16Is(U16 id) noexcept { id_ = id; }

  IpFragmentOffsetAndFlags fragmentOffsetAndFlags() const noexcept {
    return IpFragmentOffsetAndFlags(fragmentOffsetAndFlags_.value());
  }
  void fragmentOffsetAndFlagsIs(IpFragmentOffsetAndFlags word) noexcept {
    fragmentOffsetAndFlags_ = word.value();
  }
  bool reservedFragFlag() const noexcept { return (fragmentOffsetAndFlags_ & 0x8000) != 0; }
  void reservedFragFlagIs(bool set) noexcept { fragmentBitsAre(0x8000, set << 15); }
  bool dontFrag() const noexcept { return (fragmentOffsetAndFlags_ & 0x4000) != 0; }
  void dontFragIs(bool set) noexcept { fragmentBitsAre(0x4000, set << 14); }
  bool moreFrag() const noexcept { return (fragmentOffsetAndFlags_ & 0x2000) != 0; }
  void moreFragIs(bool set) noexcept { fragmentBitsAre(0x2000, set << 13); }
  /// In units of 8 bytes.
  IpFragmentOffset fragmentOffset() const noexcept { return fragmentOffsetAndFlags().fragmentOffset; }
  void fragmentOffsetIs(U16 units) noexcept { fragmentBitsAre(0x1fff, units); }

  IpTtl ttl() const noexcept { return IpTtl(ttl_); }
  void ttlIs(IpTtl ttl) noexcept { ttl_ = ttl.value(); }

  /// The octet as it stands.
  IpProto protocol() const noexcept { return IpProto(protocol_); }
  void protocolIs(U8 protocol) noexcept { protocol_ = protocol; }
  /// The protocol, if it is one that goes over IPv4; else `ipProtoUnknown`. ESP (50) and the extension
  /// headers of IPv6 are not among them.
  IpProtocolNumber protocolNum() const noexcept;
  void protocolNumIs(IpProtocolNumber protocol) noexcept { protocol_ = protocol; }

  IpChecksum checksum() const noexcept { return checksum_; }
  void checksumIs(IpChecksum checksum) noexcept { checksum_ = checksum; }
  U16 checksumU16() const noexcept { return checksum_.value(); }
  void checksumU16Is(U16 checksum) noexcept { checksum_ = IpChecksum(checksum); }
  /// Over `headerBytes()` bytes from the start of this header, which must be there, with the checksum field
  /// as it stands: who sends sets that to 0 first and stores the result, who receives may expect 0.
  IpChecksum computedChecksum() const;
  U16 computedChecksumU16() const { return computedChecksum().value(); }

  IpAddr src() const noexcept { return src_; }
  void srcIs(IpAddr src) noexcept { src_ = src; }
  IpAddr dst() const noexcept { return dst_; }
  void dstIs(IpAddr dst) noexcept { dst_ = dst; }

  /// The fields by name, in one line.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const IpHdr& hdr);

 private:
  void fragmentBitsAre(U16 mask, int bits) noexcept {
    fragmentOffsetAndFlags_ = static_cast<U16>((fragmentOffsetAndFlags_ & ~mask) | (bits & mask));
  }

  U8 versionAndHeaderLen_ = 0;     // 0
  U8 tos_ = 0;                     // 1
  NetU16 totalLen_;                // 2
  NetU16 id_;                      // 4
  NetU16 fragmentOffsetAndFlags_;  // 6
  U8 ttl_ = 0;                     // 8
  U8 protocol_ = 0;                // 9
  IpChecksum checksum_;            // 10
  IpAddr src_;                     // 12
  IpAddr dst_;                     // 16
};
static_assert(isHeaderImage<IpHdr, 20>);

/// Type octet of an IPv4 option: the whole of those without a length, the first of the others.
class IpHdrOptionCommon {
 public:
  constexpr IpHdrOptionCommon() noexcept = default;
  constexpr explicit IpHdrOptionCommon(U8 type) noexcept : type_(type) {}

  U8 type() const noexcept { return type_; }
  void typeIs(U8 type) noexcept { type_ = type; }
  /// Into every fragment.
  bool copied() const noexcept { return (type_ & 0x80) != 0; }
  void copiedIs(bool copied) noexcept { type_ = static_cast<U8>((type_ & 0x7f) | copied << 7); }
  U8 optionClass() const noexcept { return type_ >> 5 & 3; }
  void optionClassIs(U8 optionClass) noexcept {
    type_ = static_cast<U8>((type_ & 0x9f) | (optionClass & 3) << 5);
  }
  U8 number() const noexcept { return type_ & 0x1f; }
  void numberIs(U8 number) noexcept { type_ = static_cast<U8>((type_ & 0xe0) | (number & 0x1f)); }

 private:
  U8 type_ = 0;  // 0
};
static_assert(isHeaderImage<IpHdrOptionCommon, 1>);

/// Router alert option (RFC 2113): routers look at the datagram. Well-formed as it is constructed.
class IpHdrRouterAlertOption {
 public:
  static constexpr U8 routerAlertType = 148;  ///< Copied, class 0, number 20.

  IpHdrOptionCommon& common() noexcept { return common_; }
  const IpHdrOptionCommon& common() const noexcept { return common_; }
  U8 length() const noexcept { return length_; }
  void lengthIs(U8 bytes) noexcept { length_ = bytes; }
  U16 value() const noexcept { return value_; }
  void valueIs(U16 value) noexcept { value_ = value; }

 private:
  IpHdrOptionCommon common_{routerAlertType};  // 0
  U8 length_ = 4;                              // 1
  NetU16 value_;                               // 2
};
static_assert(isHeaderImage<IpHdrRouterAlertOption, 4>);

class KIV_API IpHdrWrapper final : public HdrWrapper<IpHdrWrapper, IpHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( IpHdr ) ) <= pkt_->frontBytes()";
  IpHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API IpHdrOptionCommonWrapper final
    : public HdrWrapper<IpHdrOptionCommonWrapper, IpHdrOptionCommon> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( IpHdrOptionCommon ) ) <= pkt_->frontBytes()";
  IpHdrOptionCommonWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API IpHdrRouterAlertOptionWrapper final
    : public HdrWrapper<IpHdrRouterAlertOptionWrapper, IpHdrRouterAlertOption> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( IpHdrRouterAlertOption ) ) <= pkt_->frontBytes()";
  IpHdrRouterAlertOptionWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

KIV_API IpHdrWrapper::Ptr ipHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API IpHdrOptionCommonWrapper::Ptr ipHdrOptionCommonWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API IpHdrRouterAlertOptionWrapper::Ptr ipHdrRouterAlertOptionWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl
