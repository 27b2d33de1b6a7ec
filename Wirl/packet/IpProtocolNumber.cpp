// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/IpProtocolNumber.h"

#include "Kiv/Exception.h"

namespace Wirl {

namespace {

struct Name {
  IpProtocolNumber number;
  std::string_view text;
};

#define NAME(protocol) \
  { protocol, #protocol }
constexpr Name kNames[] = {
    NAME(ipProtoIpv6HopByHop), NAME(ipProtoIcmp),        NAME(ipProtoIgmp),     NAME(ipProtoTcp),
    NAME(ipProtoUdp),          NAME(ipProtoIpv6Route),   NAME(ipProtoIpv6Frag), NAME(ipProtoRsvp),
    NAME(ipProtoGre),          NAME(ipProtoEsp),         NAME(ipProtoAh),       NAME(ipProtoIcmpv6),
    NAME(ipProtoIpv6NoNxt),    NAME(ipProtoIpv6Opts),    NAME(ipProtoOspf),     NAME(ipProtoIpip),
    NAME(ipProtoPim),          NAME(ipProtoVrrp),        NAME(ipProtoL2tp),     NAME(ipProtoIsis),
    NAME(ipProtoSctp),         NAME(ipProtoNetworkBoot), NAME(ipProtoUnknown)};
#undef NAME

}  // namespace

IpProtocolNumber ipProtocolNumberOf(Kiv::U8 octet) noexcept {
  for (const Name& name : kNames) {
    if (name.number == octet) return name.number;
  }
  return ipProtoUnknown;
}

std::string_view ipProtocolNumberText(IpProtocolNumber protocol) noexcept {
  for (const Name& name : kNames) {
    if (name.number == protocol) return name.text;
  }
  return ipProtocolNumberText(ipProtoUnknown);
}

std::optional<IpProtocolNumber> ipProtocolNumberFromText(std::string_view text) noexcept {
  for (const Name& name : kNames) {
    if (name.text == text) return name.number;
  }
  return std::nullopt;
}

IpProtocolNumber ipProtocolNumberFromString(std::string_view text) {
  if (const auto protocol = ipProtocolNumberFromText(text)) return *protocol;
  throw Kiv::RangeException("Invalid IpProtocolNumber");
}

std::ostream& operator<<(std::ostream& out, IpProtocolNumber protocol) {
  return out << ipProtocolNumberText(protocol);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, IpProtocolNumber protocol) {
  return log << static_cast<Kiv::U8>(protocol);
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, IpProtocolNumber& protocol) {
  Kiv::U8 number = 0;
  log >> number;
  protocol = static_cast<IpProtocolNumber>(number);
  return log;
}

}  // namespace Wirl
