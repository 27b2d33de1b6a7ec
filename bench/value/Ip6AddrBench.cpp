// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#ifdef BENCH_ABSL
#include <absl/hash/hash.h>
#endif

#include <array>
#include <string>

#include "bench/value/Addresses.h"

namespace {

using Wirl::Ip6Addr;
using Text = std::array<char, INET6_ADDRSTRLEN>;

std::string peerText(const Ip6Addr& address) {
  Text text;
  return inet_ntop(AF_INET6, address.octets().data(), text.data(), text.size());
}

BENCH_ROWS {
  static const auto addresses = bench::corpus(bench::someIp6Addr);
  static const auto texts =
      bench::corpus([](bench::Random& random) { return peerText(bench::someIp6Addr(random)); });
  static const auto spoilt = bench::corpus([](bench::Random& random) {
    return bench::spoilt(random, peerText(bench::someIp6Addr(random)), ":./", [](const std::string& text) {
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
#ifdef BENCH_ABSL
  bench::compare(
      "IPv6 address: std::hash", bench::each(addresses, std::hash<Ip6Addr>()), "absl::Hash of the octets",
      bench::each(addresses,
                  [](const Ip6Addr& a) { return absl::Hash<std::array<Kiv::U8, 16>>()(a.octets()); }),
      bench::atMost(2));
#endif
}

}  // namespace
