// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>

#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "bench/value/Corpus.h"

namespace bench {

/// Octets of one, two and three digits alike.
inline Wirl::IpAddr mixedIpAddr(Random& random) {
  const auto octet = [&] {
    return static_cast<Kiv::U8>(below(random, std::array{10u, 100u, 256u}[below(random, 3)]));
  };
  return Wirl::IpAddr(std::array{octet(), octet(), octet(), octet()});
}

/// An address as a router meets them: hosts with random and with small interface identifiers, link-local
/// addresses, groups, IPv4-mapped ones, and a few of eight random groups.
inline Wirl::Ip6Addr someIp6Addr(Random& random) {
  const auto random64 = [&] { return Kiv::U64{random()} << 32 | random(); };
  const Kiv::U64 net = 0x2001'0db8'0000'0000 | random() >> below(random, 32);
  const unsigned kind = below(random, 20);
  if (kind < 6) return {net, below(random, 5000)};
  if (kind < 9) return {0xfe80'0000'0000'0000, random64()};
  if (kind < 10) return {0xff02'0000'0000'0000 | Kiv::U64{random() % 8} << 48, below(random, 300)};
  if (kind < 11) return {0, 0xffff'0000'0000 | Kiv::U64{random()}};
  return {kind < 12 ? random64() : net, random64()};
}

}  // namespace bench
