// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// Types of PIM messages (RFC 7761, RFC 3973).
enum PimType : Kiv::U8 {
  pimHello = 0,
  pimRegister = 1,
  pimRegisterStop = 2,
  pimJoinPrune = 3,
  pimBootstrap = 4,
  pimAssert = 5,
  pimGraft = 6,
  pimGraftAck = 7,
  pimCandidateRp = 8,
  pimStateRefresh = 9,
};

/// What all messages of PIM begin with (RFC 7761).
class PimHdr : public HdrImage<4> {
 public:
  WIRL_HDR(PimHdr, "pim");
  WIRL_FIELD(U8, version, 0, 4);
  WIRL_FIELD(U8, type, 4, 4);
  /// Over the whole message, over IPv6 with the pseudo-header; of a register over the first 8 bytes alone.
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
};
static_assert(isHeaderImage<PimHdr, 4>);

/// Message of version 1 of PIM, which IGMP carries: the type that IGMP has for it comes first.
class Pim1Hdr : public HdrImage<8> {
 public:
  static constexpr U8 igmpType = 0x14;  ///< Type of PIM version 1 in IGMP.
  WIRL_HDR(Pim1Hdr, "pim");
  WIRL_FIELD(U8, version, 32, 4);
  WIRL_FIELD(U8, type, 8, 8);
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
};
static_assert(isHeaderImage<Pim1Hdr, 8>);

/// Register: the datagram follows.
class PimRegisterHdr : public HdrImage<8, PimHdr> {
 public:
  WIRL_HDR(PimRegisterHdr, "pim");
  WIRL_FIELD(bool, border, 32, 1);
  /// There is no datagram, but its header perhaps.
  WIRL_FIELD(bool, nullRegister, 33, 1);
};
static_assert(isHeaderImage<PimRegisterHdr, 8>);

/// Of a hello, behind its `PimHdr`.
using PimHelloOptions = OptionList<TlvFormat>;

/// What an option of a hello begins with.
class PimOptionHdr : public HdrImage<4> {
 public:
  WIRL_HDR(PimOptionHdr, "option");
  WIRL_FIELD(U16, type, 0, 16);
  /// In bytes, of what follows.
  WIRL_FIELD(U16, length, 16, 16);
};
/// Hello: for how long it holds.
class PimHoldtimeOption : public HdrImage<6, PimOptionHdr> {
 public:
  static constexpr U16 kType = 1;
  WIRL_HDR(PimHoldtimeOption, "holdtime");
  /// In seconds, 0xffff for ever.
  WIRL_FIELD(U16, holdtime, 32, 16);
};
/// Hello: delays of the link.
class PimLanPruneDelayOption : public HdrImage<8, PimOptionHdr> {
 public:
  static constexpr U16 kType = 2;
  WIRL_HDR(PimLanPruneDelayOption, "lanPruneDelay");
  WIRL_FIELD(bool, tracking, 32, 1);
  /// In milliseconds.
  WIRL_FIELD(U16, propagationDelay, 33, 15);
  WIRL_FIELD(U16, overrideInterval, 48, 16);
};
/// Hello: priority in the election of the designated router.
class PimDrPriorityOption : public HdrImage<8, PimOptionHdr> {
 public:
  static constexpr U16 kType = 19;
  WIRL_HDR(PimDrPriorityOption, "drPriority");
  WIRL_FIELD(U32, priority, 32, 32);
};
/// Hello: a number that changes when the router restarts.
class PimGenerationIdOption : public HdrImage<8, PimOptionHdr> {
 public:
  static constexpr U16 kType = 20;
  WIRL_HDR(PimGenerationIdOption, "generationId");
  WIRL_FIELD(U32, generationId, 32, 32, .kind = hex);
};

}  // namespace Wirl
