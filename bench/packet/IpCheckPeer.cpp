// SPDX-License-Identifier: Apache-2.0
#include "bench/packet/IpCheckPeer.h"

#if BENCH_DPDK

#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>

namespace bench {

namespace {

inline bool good(char* frame, std::size_t bytes, rte_ether_hdr*& eth, rte_ipv4_hdr*& ip) {
  if (bytes < sizeof(rte_ether_hdr) + sizeof(rte_ipv4_hdr)) return false;
  eth = reinterpret_cast<rte_ether_hdr*>(frame);
  if (eth->ether_type != rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4)) return false;
  ip = reinterpret_cast<rte_ipv4_hdr*>(frame + sizeof(*eth));
  if (ip->version != 4 || rte_ipv4_hdr_len(ip) > bytes - sizeof(*eth)) return false;
  if (rte_be_to_cpu_16(ip->total_length) > bytes - sizeof(*eth)) return false;
  // Over a header with a right checksum in it, the sum is all ones.
  return rte_ipv4_cksum(ip) == 0;
}

/// What a receive path would call.
[[gnu::noinline]] bool goodByCall(char* frame, std::size_t bytes, rte_ether_hdr*& eth, rte_ipv4_hdr*& ip) {
  return good(frame, bytes, eth, ip);
}

template <typename Check>
void run(benchmark::State& state, char* frame, std::size_t bytes, Check check) {
  rte_ether_hdr* eth = nullptr;
  rte_ipv4_hdr* ip = nullptr;
  if (!check(frame, bytes, eth, ip)) return state.SkipWithError("the frame is not good");
  benchmark::DoNotOptimize(&eth);
  benchmark::DoNotOptimize(&ip);
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame);
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(check(frame, bytes, eth, ip));
    benchmark::ClobberMemory();
  }
}

}  // namespace

void ipCheck(benchmark::State& state, char* frame, std::size_t bytes) {
  run(state, frame, bytes, goodByCall);
}

void ipCheckInline(benchmark::State& state, char* frame, std::size_t bytes) {
  run(state, frame, bytes,
      [](char* data, std::size_t n, auto& eth, auto& ip) { return good(data, n, eth, ip); });
}

}  // namespace bench

#else

namespace bench {

void ipCheck(benchmark::State& state, char*, std::size_t) {
  state.SkipWithError("peer: built without DPDK");
}

void ipCheckInline(benchmark::State& state, char*, std::size_t) {
  state.SkipWithError("peer: built without DPDK");
}

}  // namespace bench

#endif
