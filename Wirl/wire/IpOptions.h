// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// Options of an IPv4 header (RFC 791): `IpOptions(viewAt<IpHdr>(bytes).options())`.
using IpOptions = OptionList<IpOptionFormat>;

/// What IPv4 options of more than one octet begin with.
class IpOptionHdr : public HdrImage<2> {
 public:
  WIRL_HDR(IpOptionHdr, "option");
  WIRL_FIELD(U8, type, 0, 8);
  /// In bytes, of the whole option.
  WIRL_FIELD(U8, length, 8, 8);
};

/// Record route, loose and strict source routes: addresses follow, at 3 octets from the front.
class IpRouteOption : public HdrImage<3, IpOptionHdr> {
 public:
  static constexpr U8 recordRoute = 7;          ///< Type of `IpRecordRouteOption`.
  static constexpr U8 looseSourceRoute = 131;   ///< Type of `IpLooseSourceRouteOption`.
  static constexpr U8 strictSourceRoute = 137;  ///< Type of `IpStrictSourceRouteOption`.
  WIRL_HDR(IpRouteOption, "route");
  /// Octet of the option, from 1, at which the next address stands.
  WIRL_FIELD(U8, pointer, 16, 8);
};
/// Routers enter their addresses (RFC 791).
class IpRecordRouteOption : public IpRouteOption {
 public:
  static constexpr U8 kType = recordRoute;
};
/// Routers to pass, among others (RFC 791).
class IpLooseSourceRouteOption : public IpRouteOption {
 public:
  static constexpr U8 kType = looseSourceRoute;
};
/// Routers to pass, and no others (RFC 791).
class IpStrictSourceRouteOption : public IpRouteOption {
 public:
  static constexpr U8 kType = strictSourceRoute;
};

/// Internet timestamp: timestamps follow, or addresses with timestamps.
class IpTimestampOption : public HdrImage<4, IpOptionHdr> {
 public:
  static constexpr U8 kType = 68;
  WIRL_HDR(IpTimestampOption, "timestamp");
  WIRL_FIELD(U8, pointer, 16, 8);
  /// Of the routers that found no room.
  WIRL_FIELD(U8, overflow, 24, 4);
  /// 0 timestamps, 1 with addresses, 3 of these addresses.
  WIRL_FIELD(U8, flags, 28, 4);
};

/// Stream identifier (RFC 791).
class IpStreamIdOption : public HdrImage<4, IpOptionHdr> {
 public:
  static constexpr U8 kType = 136;
  WIRL_HDR(IpStreamIdOption, "streamId");
  WIRL_FIELD(U16, streamId, 16, 16);
};

/// Router alert (RFC 2113).
class IpRouterAlertOption : public HdrImage<4, IpOptionHdr> {
 public:
  static constexpr U8 kType = 148;
  WIRL_HDR(IpRouterAlertOption, "routerAlert");
  WIRL_FIELD(U16, value, 16, 16);
};

}  // namespace Wirl
