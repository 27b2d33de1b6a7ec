// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrNumber.h"

namespace Wirl {

// The fields of IPv4 and IPv6 headers as values: what the accessors of the headers return, with a text form.

using IpVersion = HdrNumber<"IpVersion", Kiv::U8, 4>;  ///< The version of IP.
/// In words of 4 bytes.
using IpHdrLen = HdrNumber<"IpHdrLen", Kiv::U8, 4>;
/// The octet with DSCP (RFC 2474) and ECN (RFC 3168).
using IpTos = HdrNumber<"IpTos", Kiv::U8>;
/// In bytes.
using IpTotalLen = HdrNumber<"IpTotalLen", Kiv::U16>;
using IpId = HdrNumber<"IpId", Kiv::U16>;  ///< The identification of an IPv4 datagram.
/// In units of 8 bytes.
using IpFragmentOffset = HdrNumber<"IpFragmentOffset", Kiv::U16, 13>;
/// The octet as it stands; `IpProtocolNumber` has the names of those that have one.
using IpProto = HdrNumber<"IpProto", Kiv::U8>;
using IpTrafficClass = HdrNumber<"IpTrafficClass", Kiv::U8>;  ///< The traffic class of IPv6.
using IpFlowLabel = HdrNumber<"IpFlowLabel", Kiv::U32, 20>;   ///< The flow label of IPv6, 20 bits.

/// The first octet of an IPv4 header.
struct IpVersionAndHeaderLen : detail::CompositeForms<IpVersionAndHeaderLen> {
  IpVersion version;   ///< The version.
  IpHdrLen headerLen;  ///< The length of the header.

  constexpr IpVersionAndHeaderLen() noexcept = default;
  constexpr explicit IpVersionAndHeaderLen(Kiv::U8 octet) noexcept
      : version(static_cast<Kiv::U8>(octet >> 4)), headerLen(octet) {}
  constexpr Kiv::U8 value() const noexcept { return static_cast<Kiv::U8>(version << 4 | headerLen); }

  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpVersionAndHeaderLen", "Invalid IpVersionAndHeaderLen",
                               Kiv::field("version", &IpVersionAndHeaderLen::version),
                               Kiv::field("headerLen", &IpVersionAndHeaderLen::headerLen));
  }
  friend constexpr auto operator<=>(const IpVersionAndHeaderLen&,
                                    const IpVersionAndHeaderLen&) noexcept = default;
};

/// The upper three bits of the fragmentation word.
struct IpFlags : detail::CompositeForms<IpFlags> {
  bool reservedFragFlag = false;  ///< The bit that must be 0.
  bool dontFrag = false;          ///< Whether routers must not fragment it.
  bool moreFrag = false;          ///< Whether another fragment follows.

  constexpr IpFlags() noexcept = default;
  /// From the three bits, the reserved one being the highest.
  constexpr explicit IpFlags(Kiv::U8 bits) noexcept
      : reservedFragFlag((bits & 4) != 0), dontFrag((bits & 2) != 0), moreFrag((bits & 1) != 0) {}
  constexpr Kiv::U8 value() const noexcept {
    return static_cast<Kiv::U8>(reservedFragFlag << 2 | dontFrag << 1 | int{moreFrag});
  }

  static constexpr auto representation() {
    return Kiv::representation(
        "Wirl::IpFlags", "Invalid IpFlags", Kiv::field("reservedFragFlag", &IpFlags::reservedFragFlag),
        Kiv::field("dontFrag", &IpFlags::dontFrag), Kiv::field("moreFrag", &IpFlags::moreFrag));
  }
  friend constexpr auto operator<=>(const IpFlags&, const IpFlags&) noexcept = default;
};

/// The fragmentation word of an IPv4 header.
struct IpFragmentOffsetAndFlags : detail::CompositeForms<IpFragmentOffsetAndFlags> {
  IpFlags flags;
  IpFragmentOffset fragmentOffset;  ///< Where the fragment begins.

  constexpr IpFragmentOffsetAndFlags() noexcept = default;
  constexpr explicit IpFragmentOffsetAndFlags(Kiv::U16 word) noexcept
      : flags(static_cast<Kiv::U8>(word >> 13)), fragmentOffset(word) {}
  constexpr Kiv::U16 value() const noexcept {
    return static_cast<Kiv::U16>(flags.value() << 13 | fragmentOffset);
  }

  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpFragmentOffsetAndFlags", "Invalid IpFragmentOffsetAndFlags",
                               Kiv::field("flags", &IpFragmentOffsetAndFlags::flags),
                               Kiv::field("fragmentOffset", &IpFragmentOffsetAndFlags::fragmentOffset));
  }
  friend constexpr auto operator<=>(const IpFragmentOffsetAndFlags&,
                                    const IpFragmentOffsetAndFlags&) noexcept = default;
};

/// The first word of an IPv6 header.
struct IpVersionTrafficClassAndFlowLabel : detail::CompositeForms<IpVersionTrafficClassAndFlowLabel> {
  IpVersion version;            ///< The version.
  IpTrafficClass trafficClass;  ///< The traffic class.
  IpFlowLabel flowLabel;        ///< The flow label.

  constexpr IpVersionTrafficClassAndFlowLabel() noexcept = default;
  constexpr explicit IpVersionTrafficClassAndFlowLabel(Kiv::U32 word) noexcept
      : version(static_cast<Kiv::U8>(word >> 28)),
        trafficClass(static_cast<Kiv::U8>(word >> 20)),
        flowLabel(word) {}
  constexpr Kiv::U32 value() const noexcept {
    return Kiv::U32{version} << 28 | Kiv::U32{trafficClass} << 20 | flowLabel;
  }

  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpVersionTrafficClassAndFlowLabel",
                               "Invalid IpVersionTrafficClassAndFlowLabel",
                               Kiv::field("version", &IpVersionTrafficClassAndFlowLabel::version),
                               Kiv::field("trafficClass", &IpVersionTrafficClassAndFlowLabel::trafficClass),
                               Kiv::field("flowLabel", &IpVersionTrafficClassAndFlowLabel::flowLabel));
  }
  friend constexpr auto operator<=>(const IpVersionTrafficClassAndFlowLabel&,
                                    const IpVersionTrafficClassAndFlowLabel&) noexcept = default;
};

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpVersionAndHeaderLen> : Wirl::detail::HashOfItself<Wirl::IpVersionAndHeaderLen> {};
template <>
struct std::hash<Wirl::IpFlags> : Wirl::detail::HashOfItself<Wirl::IpFlags> {};
template <>
struct std::hash<Wirl::IpFragmentOffsetAndFlags>
    : Wirl::detail::HashOfItself<Wirl::IpFragmentOffsetAndFlags> {};
template <>
struct std::hash<Wirl::IpVersionTrafficClassAndFlowLabel>
    : Wirl::detail::HashOfItself<Wirl::IpVersionTrafficClassAndFlowLabel> {};
