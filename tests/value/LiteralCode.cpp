// SPDX-License-Identifier: Apache-2.0
// Literals as a program has them. A test looks at the object file: it asks for no function of the library.

#include "Wirl/value/Literals.h"

using namespace Wirl::literals;

Wirl::IpAddr literalIpAddr();
Wirl::Ip6Prefix literalIp6Prefix();
Wirl::EthAddr literalEthAddr();
Wirl::RouteDistinguisher literalRouteDistinguisher();

Wirl::IpAddr literalIpAddr() {
  return "192.0.2.1"_ip;
}
Wirl::Ip6Prefix literalIp6Prefix() {
  return "2001:db8::/32"_prefix;
}
Wirl::EthAddr literalEthAddr() {
  return "00:00:5e:00:53:01"_mac;
}
Wirl::RouteDistinguisher literalRouteDistinguisher() {
  return "65000:1"_rd;
}
