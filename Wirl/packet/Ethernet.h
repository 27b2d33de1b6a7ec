// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>

#include "Wirl/packet/EthType.h"
#include "Wirl/packet/HdrNumber.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

// Views of link-layer headers. Accessors take and return numbers in host order; nothing that is written here
// is checked against the rest of the frame.

/// Whether the field behind the addresses is a length (IEEE 802.3), and an LLC header follows.
constexpr bool isLlcLength(U16 typeOrLen) noexcept {
  return typeOrLen < 1536;
}

/// Ethernet II header (IEEE 802.3 clause 3).
class EthHdr {
 public:
  EthAddr dst() const noexcept { return dst_; }
  void dstIs(EthAddr dst) noexcept { dst_ = dst; }
  EthAddr src() const noexcept { return src_; }
  void srcIs(EthAddr src) noexcept { src_ = src; }
  U16 typeOrLen() const noexcept { return typeOrLen_; }
  void typeOrLenIs(U16 typeOrLen) noexcept { typeOrLen_ = typeOrLen; }
  bool llcType() const noexcept { return isLlcLength(typeOrLen_); }

 private:
  EthAddr dst_;       // 0
  EthAddr src_;       // 6
  NetU16 typeOrLen_;  // 12
};
static_assert(isHeaderImage<EthHdr, 14>);

/// The control word of an 802.1Q tag: priority (bits 15..13), CFI (12), VLAN id (11..0). In its text form
/// 'v0' and 'v1' are its two octets.
class Eth8021QTagControl : public detail::CompositeForms<Eth8021QTagControl> {
 public:
  static constexpr auto representation() {
    return Kiv::representation("Wirl::Eth8021QTagControl", "Invalid Eth8021QTagControl",
                               Kiv::field("v0", &Eth8021QTagControl::v0_),
                               Kiv::field("v1", &Eth8021QTagControl::v1_));
  }

  constexpr Eth8021QTagControl() noexcept = default;
  constexpr explicit Eth8021QTagControl(U16 word) noexcept
      : v0_(static_cast<U8>(word >> 8)), v1_(static_cast<U8>(word)) {}
  /// Each is cut to its bits.
  constexpr Eth8021QTagControl(U8 priority, bool cfi, U16 vlanId) noexcept
      : Eth8021QTagControl(static_cast<U16>(priority << 13 | cfi << 12 | (vlanId & 0xfff))) {}

  constexpr U16 value() const noexcept { return static_cast<U16>(v0_ << 8 | v1_); }
  constexpr U8 priority() const noexcept { return static_cast<U8>(v0_ >> 5); }
  constexpr bool cfi() const noexcept { return (v0_ & 0x10) != 0; }
  constexpr U16 vlanId() const noexcept { return value() & 0xfff; }

  friend constexpr auto operator<=>(const Eth8021QTagControl&, const Eth8021QTagControl&) noexcept = default;

 private:
  U8 v0_ = 0;
  U8 v1_ = 0;
};

/// The part of an 802.1Q tag behind the EtherType that announces it (IEEE 802.1Q clause 9).
class Eth8021QHdr {
 public:
  Eth8021QTagControl tagControl() const noexcept { return Eth8021QTagControl(tagControl_.value()); }
  void tagControlIs(Eth8021QTagControl tagControl) noexcept { tagControl_ = tagControl.value(); }
  U16 typeOrLen() const noexcept { return typeOrLen_; }
  void typeOrLenIs(U16 typeOrLen) noexcept { typeOrLen_ = typeOrLen; }
  bool llcType() const noexcept { return isLlcLength(typeOrLen_); }

 private:
  NetU16 tagControl_;  // 0
  NetU16 typeOrLen_;   // 2
};
static_assert(isHeaderImage<Eth8021QHdr, 4>);

using Eth8022LlcSap = HdrNumber<"Eth8022LlcSap", U8>;
using Eth8022LlcControl = HdrNumber<"Eth8022LlcControl", U8>;

/// Logical link control header with a one-octet control field (IEEE 802.2).
class Eth8022LlcHdr {
 public:
  static constexpr U8 snapSap = 0xaa;
  static constexpr U8 stpSap = 0x42;
  static constexpr U8 pduControl = 3;  ///< Unnumbered information.

  Eth8022LlcSap dsap() const noexcept { return Eth8022LlcSap(dsap_); }
  void dsapIs(U8 dsap) noexcept { dsap_ = dsap; }
  Eth8022LlcSap ssap() const noexcept { return Eth8022LlcSap(ssap_); }
  void ssapIs(U8 ssap) noexcept { ssap_ = ssap; }
  Eth8022LlcControl control() const noexcept { return Eth8022LlcControl(control_); }
  void controlIs(U8 control) noexcept { control_ = control; }
  /// Whether a SNAP header follows.
  bool snap() const noexcept { return dsap_ == snapSap && ssap_ == snapSap && control_ == pduControl; }

 private:
  U8 dsap_ = 0;     // 0
  U8 ssap_ = 0;     // 1
  U8 control_ = 0;  // 2
};
static_assert(isHeaderImage<Eth8022LlcHdr, 3>);

/// Subnetwork access protocol header (IEEE 802): who defines the code, and the code.
class Eth8022SnapHdr {
 public:
  static constexpr U32 pvstOrgCode = 0x00000c;
  static constexpr U16 pvstLocalCode = 0x010b;

  /// 24 bits.
  U32 orgCode() const noexcept { return U32{orgCode0_} << 16 | U32{orgCode1_} << 8 | orgCode2_; }
  void orgCodeIs(U32 orgCode) noexcept {
    orgCode0_ = static_cast<U8>(orgCode >> 16);
    orgCode1_ = static_cast<U8>(orgCode >> 8);
    orgCode2_ = static_cast<U8>(orgCode);
  }
  U8 orgCode0() const noexcept { return orgCode0_; }
  U8 orgCode1() const noexcept { return orgCode1_; }
  U8 orgCode2() const noexcept { return orgCode2_; }
  U16 localCodeU16() const noexcept { return localCode_; }
  U16 localCode() const noexcept { return localCode_; }
  void localCodeIs(U16 localCode) noexcept { localCode_ = localCode; }

 private:
  U8 orgCode0_ = 0;   // 0
  U8 orgCode1_ = 0;   // 1
  U8 orgCode2_ = 0;   // 2
  NetU16 localCode_;  // 3
};
static_assert(isHeaderImage<Eth8022SnapHdr, 5>);

/// Service instance tag of MAC-in-MAC (IEEE 802.1ah), with the EtherType that announces it.
class MimHdr {
 public:
  U16 serviceIntfEthType() const noexcept { return serviceIntfEthType_; }
  void serviceIntfEthTypeIs(U16 type) noexcept { serviceIntfEthType_ = type; }
  /// Flags (bits 31..24) and service instance id (23..0).
  U32 serviceIntfTag() const noexcept { return serviceIntfTag_; }
  void serviceIntfTagIs(U32 tag) noexcept { serviceIntfTag_ = tag; }
  /// The flags.
  U8 reserved() const noexcept { return static_cast<U8>(serviceIntfTag_ >> 24); }
  void reservedIs(U8 flags) noexcept { serviceIntfTag_ = U32{flags} << 24 | isid(); }
  U32 isid() const noexcept { return serviceIntfTag_ & 0xffffff; }
  void isidIs(U32 isid) noexcept { serviceIntfTag_ = (serviceIntfTag_ & 0xff000000) | (isid & 0xffffff); }

 private:
  NetU16 serviceIntfEthType_;  // 0
  NetU32 serviceIntfTag_;      // 2
};
static_assert(isHeaderImage<MimHdr, 6>);

/// Offset of the IPv4 or IPv6 header from the start of this header, of which `bytes` are there; 0 when there
/// is none, or none that 802.1Q tags (0x8100) alone lead to: other outer tags are not followed.
KIV_API U32 ipHdrOffset(const EthHdr* hdr, U32 bytes) noexcept;
KIV_API U32 ipHdrOffset(const Eth8021QHdr* hdr, U32 bytes) noexcept;

/// `ethType()` of a wrapper knows fewer types than the enumeration has; all others read as `ethTypeUnknown`.
/// Who needs one of those compares `typeOrLen`.
class KIV_API EthHdrWrapper final : public HdrWrapper<EthHdrWrapper, EthHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( EthHdr ) ) <= pkt_->frontBytes()";
  EthHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}

  /// 0x0800, 0x0806, 0x8100, 0x86dd, 0x8847, 0x88f7, 0x8902 and 0x9100.
  EthType ethType() const noexcept;
  void ethTypeIs(EthType type) noexcept { header()->typeOrLenIs(type); }
  /// From this header on.
  U32 ipHdrOffset() const noexcept { return Wirl::ipHdrOffset(header(), bytesFromHeader()); }
};

class KIV_API Eth8021QHdrWrapper final : public HdrWrapper<Eth8021QHdrWrapper, Eth8021QHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Eth8021QHdr ) ) <= pkt_->frontBytes()";
  Eth8021QHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}

  // A value is cut to its bits; the rest of the word stays.
  U8 tagControlPriority() const noexcept { return header()->tagControl().priority(); }
  void tagControlPriorityIs(U8 priority) noexcept { bitsAre(0xe000, priority << 13); }
  bool tagControlCfi() const noexcept { return header()->tagControl().cfi(); }
  void tagControlCfiIs(bool cfi) noexcept { bitsAre(0x1000, cfi << 12); }
  U16 tagControlVlanId() const noexcept { return header()->tagControl().vlanId(); }
  void tagControlVlanIdIs(U16 vlanId) noexcept { bitsAre(0x0fff, vlanId); }

  /// As that of `EthHdrWrapper`, but without 0x9100.
  EthType ethType() const noexcept;
  void ethTypeIs(EthType type) noexcept { header()->typeOrLenIs(type); }
  U32 ipHdrOffset() const noexcept { return Wirl::ipHdrOffset(header(), bytesFromHeader()); }

 private:
  void bitsAre(U16 mask, int bits) noexcept {
    const int kept = header()->tagControl().value() & ~mask;
    header()->tagControlIs(Eth8021QTagControl(static_cast<U16>(kept | (bits & mask))));
  }
};

class KIV_API Eth8022LlcHdrWrapper final : public HdrWrapper<Eth8022LlcHdrWrapper, Eth8022LlcHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Eth8022LlcHdr ) ) <= pkt_->frontBytes()";
  Eth8022LlcHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}

  Eth8022LlcSap dsap() const noexcept { return header()->dsap(); }
  void dsapIs(U8 dsap) noexcept { header()->dsapIs(dsap); }
  Eth8022LlcSap ssap() const noexcept { return header()->ssap(); }
  void ssapIs(U8 ssap) noexcept { header()->ssapIs(ssap); }
  Eth8022LlcControl control() const noexcept { return header()->control(); }
  void controlIs(U8 control) noexcept { header()->controlIs(control); }
  bool snap() const noexcept { return header()->snap(); }
};

class KIV_API Eth8022SnapHdrWrapper final : public HdrWrapper<Eth8022SnapHdrWrapper, Eth8022SnapHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Eth8022SnapHdr ) ) <= pkt_->frontBytes()";
  Eth8022SnapHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}

  U32 orgCode() const noexcept { return header()->orgCode(); }
  void orgCodeIs(U32 orgCode) noexcept { header()->orgCodeIs(orgCode); }
  U8 orgCode0() const noexcept { return header()->orgCode0(); }
  U8 orgCode1() const noexcept { return header()->orgCode1(); }
  U8 orgCode2() const noexcept { return header()->orgCode2(); }
  U16 localCode() const noexcept { return header()->localCode(); }
  U16 localCodeU16() const noexcept { return header()->localCodeU16(); }
  void localCodeIs(U16 localCode) noexcept { header()->localCodeIs(localCode); }
};

class KIV_API MimHdrWrapper final : public HdrWrapper<MimHdrWrapper, MimHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( MimHdr ) ) <= pkt_->frontBytes()";
  MimHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}

  U32 isid() const noexcept { return header()->isid(); }
  /// Cut to 24 bits; the flags stay.
  void isidIs(U32 isid) noexcept { header()->isidIs(isid); }
  EthType serviceIntfEthType() const noexcept { return ethTypeOf(serviceEthTypeU16()); }
  void serviceIntfEthTypeIs(EthType type) noexcept { header()->serviceIntfEthTypeIs(type); }
  /// The same, also where it has no name.
  U16 serviceEthTypeU16() const noexcept { return header()->serviceIntfEthType(); }
  U32 serviceIntfTag() const noexcept { return header()->serviceIntfTag(); }
  void serviceIntfTagIs(U32 tag) noexcept { header()->serviceIntfTagIs(tag); }
};

KIV_API EthHdrWrapper::Ptr ethHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Eth8021QHdrWrapper::Ptr eth8021QHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Eth8022LlcHdrWrapper::Ptr eth8022LlcHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Eth8022SnapHdrWrapper::Ptr eth8022SnapHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API MimHdrWrapper::Ptr mimHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Eth8021QTagControl> : Wirl::detail::HashOfItself<Wirl::Eth8021QTagControl> {};
