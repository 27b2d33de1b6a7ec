// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// A frame of LLDP (IEEE 802.1AB) behind its EtherType: `LldpTlvs(payload)`.
using LldpTlvs = OptionList<LldpTlvFormat>;

/// Types of TLVs.
enum LldpTlvType : Kiv::U8 {
  lldpEnd = 0,
  lldpChassisId = 1,
  lldpPortId = 2,
  lldpTtl = 3,
  lldpPortDescription = 4,
  lldpSystemName = 5,
  lldpSystemDescription = 6,
  lldpSystemCapabilities = 7,
  lldpManagementAddress = 8,
  lldpOrganization = 127,
};

/// What all TLVs begin with.
class LldpTlvHdr : public HdrImage<2> {
 public:
  WIRL_HDR(LldpTlvHdr, "tlv");
  WIRL_FIELD(U8, type, 0, 7);
  /// In bytes, of what follows.
  WIRL_FIELD(U16, length, 7, 9);
};
static_assert(isHeaderImage<LldpTlvHdr, 2>);

/// Chassis; the identifier follows. Its text where it is one: of a MAC address and a network address too.
class LldpChassisIdTlv : public HdrImage<3, LldpTlvHdr> {
 public:
  static constexpr U8 kType = lldpChassisId;
  static constexpr U8 macAddress = 4;
  static constexpr U8 networkAddress = 5;
  WIRL_HDR(LldpChassisIdTlv, "chassis");
  WIRL_FIELD(U8, subtype, 16, 8);
};
/// Port; the identifier follows.
class LldpPortIdTlv : public HdrImage<3, LldpTlvHdr> {
 public:
  static constexpr U8 kType = lldpPortId;
  static constexpr U8 macAddress = 3;
  static constexpr U8 networkAddress = 4;
  WIRL_HDR(LldpPortIdTlv, "port");
  WIRL_FIELD(U8, subtype, 16, 8);
};
/// Time to live.
class LldpTtlTlv : public HdrImage<4, LldpTlvHdr> {
 public:
  static constexpr U8 kType = lldpTtl;
  WIRL_HDR(LldpTtlTlv, "ttl");
  /// In seconds; 0: the neighbour goes.
  WIRL_FIELD(U16, ttl, 16, 16);
};
/// What the system can do, and what of it is switched on.
class LldpCapabilitiesTlv : public HdrImage<6, LldpTlvHdr> {
 public:
  static constexpr U8 kType = lldpSystemCapabilities;
  WIRL_HDR(LldpCapabilitiesTlv, "capabilities");
  WIRL_FIELD(U16, supported, 16, 16, .kind = hex);
  WIRL_FIELD(U16, enabled, 32, 16, .kind = hex);
};
/// Of an organisation; its data follow.
class LldpOrganizationTlv : public HdrImage<6, LldpTlvHdr> {
 public:
  static constexpr U8 kType = lldpOrganization;
  WIRL_HDR(LldpOrganizationTlv, "organization");
  WIRL_FIELD(U32, oui, 16, 24, .kind = hex);
  WIRL_FIELD(U8, subtype, 40, 8);
};

}  // namespace Wirl
