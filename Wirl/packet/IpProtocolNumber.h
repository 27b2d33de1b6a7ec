// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/NboAttrLog.h"
#include "Kiv/Types.h"

namespace Wirl {

/// Number of the protocol that an IPv4 or IPv6 header says is next (IANA protocol numbers). Every octet is a
/// value of the type; those without a name here are texts of `ipProtoUnknown`. The text of each is its name.
enum IpProtocolNumber : Kiv::U8 {
  ipProtoIpv6HopByHop = 0,
  ipProtoIcmp = 1,
  ipProtoIgmp = 2,
  ipProtoTcp = 6,
  ipProtoUdp = 17,
  ipProtoIpv6Route = 43,
  ipProtoIpv6Frag = 44,
  ipProtoRsvp = 46,
  ipProtoGre = 47,
  ipProtoEsp = 50,
  ipProtoAh = 51,
  ipProtoIcmpv6 = 58,
  ipProtoIpv6NoNxt = 59,
  ipProtoIpv6Opts = 60,
  ipProtoOspf = 89,
  ipProtoIpip = 94,
  ipProtoPim = 103,
  ipProtoVrrp = 112,
  ipProtoL2tp = 115,
  ipProtoIsis = 124,
  ipProtoSctp = 132,
  ipProtoNetworkBoot = 253,
  ipProtoUnknown = 255,
};

/// The member of that number; `ipProtoUnknown` where there is none. The accessors `protocolNum` of IPv4 and
/// IPv6 headers know fewer.
KIV_API IpProtocolNumber ipProtocolNumberOf(Kiv::U8 octet) noexcept;
/// Also of a number without a name: then that of `ipProtoUnknown`.
KIV_API std::string_view ipProtocolNumberText(IpProtocolNumber protocol) noexcept;
/// The protocol that the whole of `text` names, or nothing.
KIV_API std::optional<IpProtocolNumber> ipProtocolNumberFromText(std::string_view text) noexcept;
/// The same; throws `Kiv::RangeException` for any other text.
KIV_API IpProtocolNumber ipProtocolNumberFromString(std::string_view text);

KIV_API std::ostream& operator<<(std::ostream& out, IpProtocolNumber protocol);
/// As an octet.
KIV_API Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpProtocolNumber protocol);
KIV_API Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpProtocolNumber& protocol);

}  // namespace Wirl
