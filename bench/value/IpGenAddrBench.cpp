// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenAddr.h"

#include <arpa/inet.h>

#include <optional>
#include <string>

#include "bench/value/Addresses.h"

namespace {

using Wirl::IpGenAddr;

/// Of either family, one as often as the other.
std::string someText(bench::Random& random) {
  if (bench::below(random, 2) == 0) return bench::mixedIpAddr(random).stringValue();
  return bench::someIp6Addr(random).stringValue();
}

struct PeerAddress {
  int family = AF_UNSPEC;
  in6_addr octets = {};
};

/// The C library has no conversion for either family: they are tried in turn.
PeerAddress peerParse(const std::string& text) {
  PeerAddress address;
  for (const int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), &address.octets) == 1) {
      address.family = family;
      break;
    }
  }
  return address;
}

BENCH_ROWS {
  static const auto texts = bench::corpus(someText);
  static const auto spoilt = bench::corpus([](bench::Random& random) {
    return bench::spoilt(random, someText(random), ":./", [](const std::string& text) {
      return !IpGenAddr::fromText(text) && peerParse(text).family == AF_UNSPEC;
    });
  });
  const auto parse = [](const std::string& text) { return IpGenAddr::fromText(text); };

  bench::compare("generic address: parse", bench::each(texts, parse), "inet_pton by turns",
                 bench::each(texts, peerParse), bench::timesFaster(2.5));
  bench::compare("generic address: refuse", bench::each(spoilt, parse), "parse", bench::each(texts, parse),
                 bench::atMost(1.0));
}

}  // namespace
