// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Ip6Addr.h"

#include <arpa/inet.h>

#include <array>
#include <string>

#include "bench/support/Compare.h"
#include "bench/value/Corpus.h"

namespace {

using Wirl::Ip6Addr;
using Text = std::array<char, INET6_ADDRSTRLEN>;

/// An address as a router meets them: hosts with random and with small interface identifiers, link-local
/// addresses, groups, IPv4-mapped ones, and a few of eight random groups.
Ip6Addr someAddress(bench::Random& random) {
  const auto random64 = [&] { return Kiv::U64{random()} << 32 | random(); };
  const Kiv::U64 net = 0x2001'0db8'0000'0000 | random() >> bench::below(random, 32);
  const unsigned kind = bench::below(random, 20);
  if (kind < 6) return {net, bench::below(random, 5000)};
  if (kind < 9) return {0xfe80'0000'0000'0000, random64()};
  if (kind < 10) return {0xff02'0000'0000'0000 | Kiv::U64{random() % 8} << 48, bench::below(random, 300)};
  if (kind < 11) return {0, 0xffff'0000'0000 | Kiv::U64{random()}};
  return {kind < 12 ? random64() : net, random64()};
}

std::string peerText(const Ip6Addr& address) {
  Text text;
  return inet_ntop(AF_INET6, address.octets().data(), text.data(), text.size());
}

BENCH_ROWS {
  static const auto addresses = bench::corpus(someAddress);
  static const auto texts =
      bench::corpus([](bench::Random& random) { return peerText(someAddress(random)); });
  static const auto spoilt = bench::corpus([](bench::Random& random) {
    return bench::spoilt(random, peerText(someAddress(random)), ":./", [](const std::string& text) {
      in6_addr unused;
      return !Ip6Addr::fromText(text) && inet_pton(AF_INET6, text.c_str(), &unused) == 0;
    });
  });
  const auto parse = [](const std::string& text) { return Ip6Addr::fromText(text); };

  bench::compare("IPv6 address: parse", bench::each(texts, parse), "inet_pton",
                 bench::each(texts,
                             [](const std::string& text) {
                               in6_addr address;
                               benchmark::DoNotOptimize(inet_pton(AF_INET6, text.c_str(), &address));
                               return address;
                             }),
                 bench::timesFaster(2.5));
  bench::compare("IPv6 address: refuse", bench::each(spoilt, parse), "parse", bench::each(texts, parse),
                 bench::atMost(1.0));
  bench::compare("IPv6 address: print to a buffer",
                 bench::each(addresses,
                             [](const Ip6Addr& address) {
                               Text text;
                               address.printToBuffer(text.data(), text.size());
                               return text;
                             }),
                 "inet_ntop",
                 bench::each(addresses,
                             [](const Ip6Addr& address) {
                               Text text;
                               inet_ntop(AF_INET6, address.octets().data(), text.data(), text.size());
                               return text;
                             }),
                 bench::timesFaster(10));
  bench::compare("IPv6 address: string",
                 bench::each(addresses, [](const Ip6Addr& a) { return a.stringValue(); }),
                 "inet_ntop, std::string", bench::each(addresses, peerText), bench::timesFaster(8));
}

}  // namespace
