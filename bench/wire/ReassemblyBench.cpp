// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"
#include "Wirl/wire/PktFragmenter.h"
#include "Wirl/wire/PktReassembler.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

void fragmentAndReassemble(benchmark::State& state) {
  const auto& manager = globalPktManager();
  const auto pkt = manager->newPkt(manager->newSharedBuffer(9000));
  std::memset(pkt->newSharedHeadData(8000), 'x', 8000);
  PktBuilder(pkt).udp(1000, 2000).ip(IpAddr(192, 0, 2, 1), IpAddr(192, 0, 2, 2)).finish();
  PktReassembler reassembler;
  for (auto _ : state) {
    PktFragmenter fragments(pkt, 0, 1500);
    Pkt::Ptr whole;
    while (const auto fragment = fragments.next()) whole = reassembler.rxPkt(fragment, 0, Kiv::Time());
    if (!whole) return state.SkipWithError("the datagram did not come back");
  }
}

BENCH_ROWS {
  bench::state("8,000 bytes of UDP cut for 1,500 and put together again", fragmentAndReassemble);
}

}  // namespace
