// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>

#include "Wirl/packet/EthType.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrNumber.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

// Views of link-layer headers. Accessors take and return numbers in host order. Setters do not check what
// they write against the rest of the frame.

/// Whether the field behind the addresses is a length (IEEE 802.3), and an LLC header follows.
constexpr bool isLlcLength(U16 typeOrLen) noexcept {
  return typeOrLen < 1536;
}

/// The name of an EtherType; empty for a length and for a type without a name.
inline std::string_view ethTypeName(Kiv::U64 typeOrLen) noexcept {
  const EthType type = ethTypeOf(static_cast<U16>(typeOrLen));
  return type == ethTypeUnknown ? std::string_view() : ethTypeText(type);
}

/// Ethernet II header (IEEE 802.3 clause 3).
class EthHdr : public HdrImage<14> {
 public:
  WIRL_HDR(EthHdr, "eth");
  WIRL_FIELD(EthAddr, dst, 0, 48);
  WIRL_FIELD(EthAddr, src, 48, 48);
  WIRL_FIELD(U16, typeOrLen, 96, 16, .kind = hex, .key = "type", .text = ethTypeName);

  /// Whether the two octets are a length, so that an LLC header follows.
  bool llcType() const noexcept { return isLlcLength(typeOrLen()); }
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
  /// Bits 15 to 13: the priority.
  constexpr U8 priority() const noexcept { return static_cast<U8>(v0_ >> 5); }
  constexpr bool cfi() const noexcept { return (v0_ & 0x10) != 0; }  ///< Bit 12.
  constexpr U16 vlanId() const noexcept { return value() & 0xfff; }  ///< Bits 11 to 0: the VLAN.

  friend constexpr auto operator<=>(const Eth8021QTagControl&, const Eth8021QTagControl&) noexcept = default;

 private:
  U8 v0_ = 0;
  U8 v1_ = 0;
};

/// The part of an 802.1Q tag behind the EtherType that announces it (IEEE 802.1Q clause 9).
class Eth8021QHdr : public HdrImage<4> {
 public:
  WIRL_HDR(Eth8021QHdr, "vlan");
  WIRL_FIELD(Eth8021QTagControl, tagControl, 0, 16, .kind = hidden);
  WIRL_FIELD(U8, priority, 0, 3);
  WIRL_FIELD(bool, cfi, 3, 1, .key = "dei");
  WIRL_FIELD(U16, vlanId, 4, 12, .key = "id");
  WIRL_FIELD(U16, typeOrLen, 16, 16, .kind = hex, .key = "type", .text = ethTypeName);

  /// Whether the two octets are a length, so that an LLC header follows.
  bool llcType() const noexcept { return isLlcLength(typeOrLen()); }
};
static_assert(isHeaderImage<Eth8021QHdr, 4>);

using Eth8022LlcSap = HdrNumber<"Eth8022LlcSap", U8>;
using Eth8022LlcControl = HdrNumber<"Eth8022LlcControl", U8>;  ///< The control octet of LLC.

/// Logical link control header with a one-octet control field (IEEE 802.2).
class Eth8022LlcHdr : public HdrImage<3> {
 public:
  static constexpr U8 snapSap = 0xaa;  ///< Access point of SNAP.
  static constexpr U8 stpSap = 0x42;   ///< Access point of the spanning tree protocol.
  static constexpr U8 pduControl = 3;  ///< Unnumbered information.

  WIRL_HDR(Eth8022LlcHdr, "llc");
  WIRL_FIELD(Eth8022LlcSap, dsap, 0, 8, .kind = hex);
  WIRL_FIELD(Eth8022LlcSap, ssap, 8, 8, .kind = hex);
  WIRL_FIELD(Eth8022LlcControl, control, 16, 8, .kind = hex);

  /// Whether a SNAP header follows.
  bool snap() const noexcept { return dsap() == snapSap && ssap() == snapSap && control() == pduControl; }
};
static_assert(isHeaderImage<Eth8022LlcHdr, 3>);

/// Subnetwork access protocol header (IEEE 802): who defines the code, and the code.
class Eth8022SnapHdr : public HdrImage<5> {
 public:
  static constexpr U32 pvstOrgCode = 0x00000c;  ///< Organisation code of per-VLAN spanning tree.
  static constexpr U16 pvstLocalCode = 0x010b;  ///< Local code of per-VLAN spanning tree.

  WIRL_HDR(Eth8022SnapHdr, "snap");
  WIRL_FIELD(U32, orgCode, 0, 24, .kind = hex, .key = "oui");
  WIRL_FIELD(U16, localCode, 24, 16, .kind = hex, .key = "type");

  /// The first octet of the organisation code.
  U8 orgCode0() const noexcept { return static_cast<U8>(orgCode() >> 16); }
  /// The second octet of the organisation code.
  U8 orgCode1() const noexcept { return static_cast<U8>(orgCode() >> 8); }
  /// The third octet of the organisation code.
  U8 orgCode2() const noexcept { return static_cast<U8>(orgCode()); }
  U16 localCodeU16() const noexcept { return localCode(); }  ///< The local code as a number.
};
static_assert(isHeaderImage<Eth8022SnapHdr, 5>);

/// Service instance tag of MAC-in-MAC (IEEE 802.1ah), with the EtherType that announces it.
class MimHdr : public HdrImage<6> {
 public:
  WIRL_HDR(MimHdr, "mim");
  WIRL_FIELD(U16, serviceIntfEthType, 0, 16, .kind = hex, .text = ethTypeName);
  /// Flags (bits 31..24) and service instance id (23..0).
  WIRL_FIELD(U32, serviceIntfTag, 16, 32, .kind = hidden);
  /// The flags.
  WIRL_FIELD(U8, reserved, 16, 8, .kind = hex, .key = "flags");
  WIRL_FIELD(U32, isid, 24, 24);
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
  WIRL_HDR_WRAPPER_MEMBERS(EthHdr);

  /// 0x0800, 0x0806, 0x8100, 0x86dd, 0x8847, 0x88f7, 0x8902 and 0x9100.
  EthType ethType() const noexcept;
  void ethTypeIs(EthType type) noexcept { header()->typeOrLenIs(type); }
  /// From this header on.
  U32 ipHdrOffset() const noexcept { return Wirl::ipHdrOffset(header(), bytesFromHeader()); }
};

class KIV_API Eth8021QHdrWrapper final : public HdrWrapper<Eth8021QHdrWrapper, Eth8021QHdr> {
 public:
  WIRL_HDR_WRAPPER_MEMBERS(Eth8021QHdr);

  // A value is cut to its bits; the rest of the word stays.
  U8 tagControlPriority() const noexcept { return header()->priority(); }
  void tagControlPriorityIs(U8 priority) noexcept { header()->priorityIs(priority); }
  bool tagControlCfi() const noexcept { return header()->cfi(); }
  void tagControlCfiIs(bool cfi) noexcept { header()->cfiIs(cfi); }
  U16 tagControlVlanId() const noexcept { return header()->vlanId(); }
  void tagControlVlanIdIs(U16 vlanId) noexcept { header()->vlanIdIs(vlanId); }

  /// As that of `EthHdrWrapper`, but without 0x9100.
  EthType ethType() const noexcept;
  void ethTypeIs(EthType type) noexcept { header()->typeOrLenIs(type); }
  U32 ipHdrOffset() const noexcept { return Wirl::ipHdrOffset(header(), bytesFromHeader()); }
};

/// An 802.2 LLC header bound to a packet at an offset.
class KIV_API Eth8022LlcHdrWrapper final : public HdrWrapper<Eth8022LlcHdrWrapper, Eth8022LlcHdr> {
 public:
  WIRL_HDR_WRAPPER_MEMBERS(Eth8022LlcHdr);

  Eth8022LlcSap dsap() const noexcept { return header()->dsap(); }
  void dsapIs(U8 dsap) noexcept { header()->dsapIs(dsap); }
  Eth8022LlcSap ssap() const noexcept { return header()->ssap(); }
  void ssapIs(U8 ssap) noexcept { header()->ssapIs(ssap); }
  Eth8022LlcControl control() const noexcept { return header()->control(); }
  void controlIs(U8 control) noexcept { header()->controlIs(control); }
  bool snap() const noexcept { return header()->snap(); }
};

/// An 802.2 SNAP header bound to a packet at an offset.
class KIV_API Eth8022SnapHdrWrapper final : public HdrWrapper<Eth8022SnapHdrWrapper, Eth8022SnapHdr> {
 public:
  WIRL_HDR_WRAPPER_MEMBERS(Eth8022SnapHdr);

  U32 orgCode() const noexcept { return header()->orgCode(); }
  void orgCodeIs(U32 orgCode) noexcept { header()->orgCodeIs(orgCode); }
  U8 orgCode0() const noexcept { return header()->orgCode0(); }
  U8 orgCode1() const noexcept { return header()->orgCode1(); }
  U8 orgCode2() const noexcept { return header()->orgCode2(); }
  U16 localCode() const noexcept { return header()->localCode(); }
  U16 localCodeU16() const noexcept { return header()->localCodeU16(); }
  void localCodeIs(U16 localCode) noexcept { header()->localCodeIs(localCode); }
};

/// An 802.1ah header bound to a packet at an offset.
class KIV_API MimHdrWrapper final : public HdrWrapper<MimHdrWrapper, MimHdr> {
 public:
  WIRL_HDR_WRAPPER_MEMBERS(MimHdr);

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

WIRL_HDR_WRAPPER_FACTORY(EthHdr, ethHdrWrapperFactory);
WIRL_HDR_WRAPPER_FACTORY(Eth8021QHdr, eth8021QHdrWrapperFactory);
WIRL_HDR_WRAPPER_FACTORY(Eth8022LlcHdr, eth8022LlcHdrWrapperFactory);
WIRL_HDR_WRAPPER_FACTORY(Eth8022SnapHdr, eth8022SnapHdrWrapperFactory);
WIRL_HDR_WRAPPER_FACTORY(MimHdr, mimHdrWrapperFactory);

}  // namespace Wirl

template <>
struct std::hash<Wirl::Eth8021QTagControl> : Wirl::detail::HashOfItself<Wirl::Eth8021QTagControl> {};
