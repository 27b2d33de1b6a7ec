// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// IGMP versions 1 and 2 (RFC 1112, RFC 2236), and the start of a query of version 3.
class IgmpHdr : public HdrImage<8> {
 public:
  static constexpr U8 query = 0x11;     ///< Type of queries, of all versions.
  static constexpr U8 reportV1 = 0x12;  ///< Type of reports of version 1.
  static constexpr U8 dvmrp = 0x13;     ///< Type of DVMRP.
  static constexpr U8 reportV2 = 0x16;  ///< Type of reports of version 2.
  static constexpr U8 leave = 0x17;     ///< Type of leaves.
  static constexpr U8 reportV3 = 0x22;  ///< Type of reports of version 3.

  WIRL_HDR(IgmpHdr, "igmp");
  WIRL_FIELD(U8, type, 0, 8, .kind = hex);
  /// In tenths of a second; of version 3 a code from 128 on. 0 in version 1.
  WIRL_FIELD(U8, maxResponse, 8, 8);
  /// Over the whole message.
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
  WIRL_FIELD(IpAddr, group, 32, 32);
};
static_assert(isHeaderImage<IgmpHdr, 8>);

/// Message of version 0 (RFC 988), with types 1 to 8; an access key follows.
class Igmp0Hdr : public HdrImage<12> {
 public:
  WIRL_HDR(Igmp0Hdr, "igmp");
  WIRL_FIELD(U8, type, 0, 8, .kind = hex);
  WIRL_FIELD(U8, code, 8, 8);
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
  WIRL_FIELD(U32, id, 32, 32);
  WIRL_FIELD(IpAddr, group, 64, 32);
};
static_assert(isHeaderImage<Igmp0Hdr, 12>);

/// Query of version 3 (RFC 3376); the sources follow.
class Igmp3QueryHdr : public HdrImage<12, IgmpHdr> {
 public:
  WIRL_HDR(Igmp3QueryHdr, "igmp");
  /// Routers leave their timers alone.
  WIRL_FIELD(bool, suppress, 68, 1);
  WIRL_FIELD(U8, robustness, 69, 3);
  /// In seconds, a code from 128 on.
  WIRL_FIELD(U8, queryInterval, 72, 8);
  WIRL_FIELD(U16, sourceCount, 80, 16);
};
static_assert(isHeaderImage<Igmp3QueryHdr, 12>);

/// Report of version 3 (RFC 3376); the records follow: `IgmpRecords(view.payload())`.
class Igmp3ReportHdr : public HdrImage<8> {
 public:
  WIRL_HDR(Igmp3ReportHdr, "igmp");
  WIRL_FIELD(U8, type, 0, 8, .kind = hex);
  WIRL_FIELD(IpChecksum, checksum, 16, 16);
  WIRL_FIELD(U16, recordCount, 48, 16);
};
static_assert(isHeaderImage<Igmp3ReportHdr, 8>);

/// What a record of a report begins with; the sources follow, then auxiliary data.
class IgmpRecordHdr : public HdrImage<8> {
 public:
  WIRL_HDR(IgmpRecordHdr, "record");
  WIRL_FIELD(U8, type, 0, 8);
  WIRL_FIELD(U8, auxWords, 8, 8);
  WIRL_FIELD(U16, sourceCount, 16, 16);
  WIRL_FIELD(IpAddr, group, 32, 32);
};
static_assert(isHeaderImage<IgmpRecordHdr, 8>);

using IgmpRecords = OptionList<GroupRecordFormat<4>>;  ///< The group records of a report.

/// What a code of a response time or a query interval stands for, in its unit (RFC 3376 section 4.1.1).
constexpr U16 igmpTimeOf(U8 code) noexcept {
  return code < 128 ? U16{code} : static_cast<U16>(((code & 0x0f) | 0x10) << ((code >> 4 & 7) + 3));
}

}  // namespace Wirl
