// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"

#include <cstring>

#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

constexpr U32 kPayload = 64;
const EthAddr kDstMac(2, 0, 0, 0, 0, 1), kSrcMac(2, 0, 0, 0, 0, 2);
const IpAddr kSrc(192, 0, 2, 1), kDst(192, 0, 2, 2);

Pkt::Ptr payload() {
  auto pkt = globalPktManager()->newPkt();
  std::memset(pkt->newSharedHeadData(kPayload), 'x', kPayload);
  return pkt;
}

Pkt::Ptr built() {
  return PktBuilder(payload()).udp(1000, 2000).ip(kSrc, kDst).eth(kDstMac, kSrcMac).finish();
}

struct Template {
  EthHdr eth;
  IpHdr ip;
  UdpHdr udp;
};
static_assert(isHeaderImage<Template, 42>);

/// The floor: lengths and checksums are put into a copy of the headers.
Pkt::Ptr patched(const Template& headers, U32 pseudoHdrSum) {
  auto pkt = payload();
  auto& made = *reinterpret_cast<Template*>(pkt->newSharedHeadData(sizeof(Template)));
  std::memcpy(&made, &headers, sizeof(made));
  const auto udpBytes = static_cast<U16>(sizeof(UdpHdr) + kPayload);
  made.ip.totalLenIs(static_cast<U16>(sizeof(IpHdr) + udpBytes));
  made.ip.checksumU16Is(0);
  made.ip.checksumIs(made.ip.computedChecksum());
  made.udp.lenIs(udpBytes);
  made.udp.checksumIs(
      ipChecksumCalc(reinterpret_cast<const char*>(&made.udp), udpBytes, pseudoHdrSum + udpBytes));
  return pkt;
}

Template headers() {
  Template made;
  std::memcpy(&made, built()->front(), sizeof(made));
  made.udp.checksumU16Is(0);
  return made;
}

U32 pseudoHdrSum() {
  return ipChecksumChunk(reinterpret_cast<const char*>(&kSrc), 4,
                         ipChecksumChunk(reinterpret_cast<const char*>(&kDst), 4, ipProtoUdp));
}

void build(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(built());
}

void patch(benchmark::State& state) {
  Template from = headers();
  U32 sum = pseudoHdrSum();
  if (patched(from, sum)->stringValue() != built()->stringValue()) {
    return state.SkipWithError("the two make different frames");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(from);
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(patched(from, sum));
  }
}

BENCH_ROWS {
  bench::compare("Build Ethernet, IPv4, UDP around 64 bytes", build, "a patched template", patch,
                 bench::atMost(1.5));
}

}  // namespace
