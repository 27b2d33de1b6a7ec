// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/WireChecks.h"

#include <cstring>

#include "Wirl/wire/PktBuilder.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

constexpr U32 kPayload = 1440;

/// A datagram of full size.
template <typename Ip>
Pkt::Ptr datagram(bool isTcp) {
  const auto pkt = globalPktManager()->newPkt();
  std::memset(pkt->newSharedHeadData(kPayload), 'x', kPayload);
  PktBuilder builder(pkt);
  if (isTcp) {
    builder.tcp(TcpHdr());
  } else {
    builder.udp(1000, 2000);
  }
  if constexpr (std::is_same_v<Ip, IpHdr>) builder.ip(IpAddr(192, 0, 2, 1), IpAddr(192, 0, 2, 2));
  if constexpr (std::is_same_v<Ip, Ip6Hdr>) builder.ip6(Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8::2"));
  return builder.finish();
}

template <typename Ip, typename Hdr, PktCode (*check)(const Pkt::Ptr&, Ip*, Hdr*&)>
void checks(benchmark::State& state) {
  const auto pkt = datagram<Ip>(std::is_same_v<Hdr, TcpHdr>);
  auto* ip = reinterpret_cast<Ip*>(pkt->front());
  Hdr* hdr = nullptr;
  if (check(pkt, ip, hdr) != noError) return state.SkipWithError("the datagram is not good");
  for (auto _ : state) {
    benchmark::DoNotOptimize(ip);
    benchmark::DoNotOptimize(check(pkt, ip, hdr));
    benchmark::ClobberMemory();
  }
}

/// Of IPv4 and IPv6, by the public functions.
U32 pseudoHdrSum(const IpHdr& ip, U32 bytes, U8 protocol) {
  return ipChecksumChunk(reinterpret_cast<const char*>(&ip) + 12, 8, bytes + protocol);
}
U32 pseudoHdrSum(const Ip6Hdr& ip6, U32 bytes, U8 protocol) {
  return ip6.pseudoHdrSum(bytes, protocol);
}

/// The floor: the checksum of the same message, which covers the pseudo-header, too.
template <typename Ip, typename Hdr>
void sums(benchmark::State& state) {
  const auto pkt = datagram<Ip>(std::is_same_v<Hdr, TcpHdr>);
  const auto* ip = reinterpret_cast<const Ip*>(pkt->front());
  const U8 protocol = std::is_same_v<Hdr, TcpHdr> ? ipProtoTcp : ipProtoUdp;
  auto bytes = static_cast<U16>(sizeof(Hdr) + kPayload);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ip);
    benchmark::DoNotOptimize(bytes);
    const U32 start = pseudoHdrSum(*ip, bytes, protocol);
    benchmark::DoNotOptimize(ipChecksumCalc(reinterpret_cast<const char*>(ip + 1), bytes, start));
    benchmark::ClobberMemory();
  }
}

BENCH_ROWS {
  bench::compare("Check UDP over IPv4, 1,440 bytes", checks<IpHdr, UdpHdr, checkUdp>, "the checksum alone",
                 sums<IpHdr, UdpHdr>, bench::atMost(1.1));
  bench::compare("Check TCP over IPv6, 1,440 bytes", checks<Ip6Hdr, TcpHdr, checkTcp>, "the checksum alone",
                 sums<Ip6Hdr, TcpHdr>, bench::atMost(1.1));
}

}  // namespace
