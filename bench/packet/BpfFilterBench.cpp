// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/BpfFilter.h"

#include <pcap/pcap.h>

#include "bench/support/Compare.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;

BpfFilter::Ptr filter(const char* expression) {
  const auto made = bpfFilterFactory("bench");
  made->bpfFilterStringIs(expression);
  return made;
}

bench::Body match(const char* expression) {
  return [expression](benchmark::State& state) {
    const auto made = filter(expression);
    const auto pkt = frames::packet(frames::kUdp);
    if (!made->match(pkt)) return state.SkipWithError("the frame does not match");
    for (auto _ : state) {
      benchmark::DoNotOptimize(made->match(pkt));
      benchmark::ClobberMemory();
    }
  };
}

bench::Body libpcap(const char* expression) {
  return [expression](benchmark::State& state) {
    const auto made = filter(expression);
    const auto pkt = frames::packet(frames::kUdp);
    for (auto _ : state) {
      pcap_pkthdr header{};
      header.caplen = header.len = pkt->bytes();
      benchmark::DoNotOptimize(pcap_offline_filter(made->bpfFilter(), &header, pkt->front()));
      benchmark::ClobberMemory();
    }
  };
}

BENCH_ROWS {
  for (const char* expression : {"udp", "udp port 53", "udp port 53 and src host 10.0.0.1"}) {
    bench::compare("Filter: " + std::string(expression), match(expression), "pcap_offline_filter",
                   libpcap(expression), bench::atMost(1.1));
  }
}

}  // namespace
