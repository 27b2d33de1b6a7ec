// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

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
class KIV_API Ip6Hdr {
 public:
  static constexpr U8 ipVersion6 = 6;

  IpVersion version() const noexcept { return versionTrafficClassAndFlowLabel().version; }
  void versionIs(U8 version) noexcept { bitsAre(0xf0000000, U32{version} << 28); }
  IpTrafficClass trafficClass() const noexcept { return versionTrafficClassAndFlowLabel().trafficClass; }
  void trafficClassIs(U8 trafficClass) noexcept { bitsAre(0x0ff00000, U32{trafficClass} << 20); }
  IpFlowLabel flowLabel() const noexcept { return versionTrafficClassAndFlowLabel().flowLabel; }
  void flowLabelIs(U32 flowLabel) noexcept { bitsAre(0x000fffff, flowLabel); }
  IpVersionTrafficClassAndFlowLabel versionTrafficClassAndFlowLabel() const noexcept {
    return IpVersionTrafficClassAndFlowLabel(word_.value());
  }
  void versionTrafficClassAndFlowLabelIs(IpVersionTrafficClassAndFlowLabel word) noexcept {
    word_ = word.value();
  }

  /// Bytes behind this header, extension headers included.
  U16 payloadLen() const noexcept { return payloadLen_; }
  void payloadLenIs(U16 bytes) noexcept { payloadLen_ = bytes; }

  /// The next-header octet as it stands.
  IpProto protocol() const noexcept { return IpProto(nextHeader_); }
  void protocolIs(U8 nextHeader) noexcept { nextHeader_ = nextHeader; }
  /// The same through `nextHeaderNumber`.
  IpProtocolNumber protocolNum() const noexcept { return nextHeaderNumber(nextHeader_); }
  void protocolNumIs(IpProtocolNumber protocol) noexcept { nextHeader_ = protocol; }

  IpTtl hopLimit() const noexcept { return IpTtl(hopLimit_); }
  void hopLimitIs(IpTtl hopLimit) noexcept { hopLimit_ = hopLimit.value(); }

  Ip6Addr src() const noexcept { return src_; }
  void srcIs(const Ip6Addr& src) noexcept { src_ = src; }
  Ip6Addr dst() const noexcept { return dst_; }
  void dstIs(const Ip6Addr& dst) noexcept { dst_ = dst; }

  /// Word sum of the pseudo-header of upper-layer checksums (RFC 8200, section 8.1), to start
  /// `ipChecksumCalc` with.
  U32 pseudoHdrSum(U32 upperLayerBytes, U8 nextHeader) const;

  /// The fields by name, in one line.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const Ip6Hdr& hdr);

 private:
  void bitsAre(U32 mask, U32 bits) noexcept { word_ = (word_ & ~mask) | (bits & mask); }

  NetU32 word_;        // 0: version, traffic class, flow label
  NetU16 payloadLen_;  // 4
  U8 nextHeader_ = 0;  // 6
  U8 hopLimit_ = 0;    // 7
  Ip6Addr src_;        // 8
  Ip6Addr dst_;        // 24
};
static_assert(isHeaderImage<Ip6Hdr, 40>);

/// Type of an option in a hop-by-hop or destination options header.
class Ip6HdrOptionType {
 public:
  static constexpr U8 pad1 = 0;
  static constexpr U8 padN = 1;
  static constexpr U8 routerAlert = 5;

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

/// What hop-by-hop, destination options and routing headers begin with.
class Ip6HdrOptionCommon {
 public:
  U8 nextHdr() const noexcept { return nextHdr_; }
  void nextHdrIs(U8 nextHdr) noexcept { nextHdr_ = nextHdr; }
  IpProtocolNumber nextHdrNum() const noexcept { return nextHeaderNumber(nextHdr_); }
  void nextHdrNumIs(IpProtocolNumber protocol) noexcept { nextHdr_ = protocol; }
  /// In units of 8 bytes behind the first 8.
  U8 hdrExtLen() const noexcept { return hdrExtLen_; }
  void hdrExtLenIs(U8 units) noexcept { hdrExtLen_ = units; }
  /// Of the whole extension header.
  U16 headerBytes() const noexcept { return static_cast<U16>((hdrExtLen_ + 1) * 8); }

 private:
  U8 nextHdr_ = 0;    // 0
  U8 hdrExtLen_ = 0;  // 1
};
static_assert(isHeaderImage<Ip6HdrOptionCommon, 2>);

/// One octet of padding.
class Ip6HdrPad1 {
 public:
  Ip6HdrOptionType type() const noexcept { return type_; }

 private:
  Ip6HdrOptionType type_{Ip6HdrOptionType::pad1};  // 0
};
static_assert(isHeaderImage<Ip6HdrPad1, 1>);

/// Two octets of padding, and as many zeros behind them as the length says.
class Ip6HdrPadN {
 public:
  Ip6HdrOptionType type() const noexcept { return type_; }
  U8 length() const noexcept { return length_; }
  void lengthIs(U8 zeros) noexcept { length_ = zeros; }

 private:
  Ip6HdrOptionType type_{Ip6HdrOptionType::padN};  // 0
  U8 length_ = 0;                                  // 1
};
static_assert(isHeaderImage<Ip6HdrPadN, 2>);

/// Hop-by-hop options header with the router alert option (RFC 2711); an `Ip6HdrPadN` behind it makes it 8
/// bytes.
class Ip6HdrRouterAlertOption {
 public:
  Ip6HdrOptionCommon& common() noexcept { return common_; }
  const Ip6HdrOptionCommon& common() const noexcept { return common_; }
  Ip6HdrOptionType type() const noexcept { return type_; }
  void typeIs(Ip6HdrOptionType type) noexcept { type_ = type; }
  U8 length() const noexcept { return length_; }
  void lengthIs(U8 bytes) noexcept { length_ = bytes; }
  U16 value() const noexcept { return value_; }
  void valueIs(U16 value) noexcept { value_ = value; }

 private:
  Ip6HdrOptionCommon common_;                             // 0
  Ip6HdrOptionType type_{Ip6HdrOptionType::routerAlert};  // 2
  U8 length_ = 2;                                         // 3
  NetU16 value_;                                          // 4
};
static_assert(isHeaderImage<Ip6HdrRouterAlertOption, 6>);

class KIV_API Ip6HdrWrapper final : public HdrWrapper<Ip6HdrWrapper, Ip6Hdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Ip6Hdr ) ) <= pkt_->frontBytes()";
  Ip6HdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API Ip6HdrOptionCommonWrapper final
    : public HdrWrapper<Ip6HdrOptionCommonWrapper, Ip6HdrOptionCommon> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Ip6HdrOptionCommon ) ) <= pkt_->frontBytes()";
  Ip6HdrOptionCommonWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API Ip6HdrRouterAlertOptionWrapper final
    : public HdrWrapper<Ip6HdrRouterAlertOptionWrapper, Ip6HdrRouterAlertOption> {
 public:
  static constexpr const char* kFits =
      "( offset_ + sizeof( Ip6HdrRouterAlertOption ) ) <= pkt_->frontBytes()";
  Ip6HdrRouterAlertOptionWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API Ip6HdrPad1Wrapper final : public HdrWrapper<Ip6HdrPad1Wrapper, Ip6HdrPad1> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Ip6HdrPad1 ) ) <= pkt_->frontBytes()";
  Ip6HdrPad1Wrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API Ip6HdrPadNWrapper final : public HdrWrapper<Ip6HdrPadNWrapper, Ip6HdrPadN> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Ip6HdrPadN ) ) <= pkt_->frontBytes()";
  Ip6HdrPadNWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

KIV_API Ip6HdrWrapper::Ptr ip6HdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Ip6HdrOptionCommonWrapper::Ptr ip6HdrOptionCommonWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Ip6HdrRouterAlertOptionWrapper::Ptr ip6HdrRouterAlertOptionWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Ip6HdrPad1Wrapper::Ptr ip6HdrPad1WrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Ip6HdrPadNWrapper::Ptr ip6HdrPadNWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl
