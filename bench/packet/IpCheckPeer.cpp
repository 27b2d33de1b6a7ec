// SPDX-License-Identifier: Apache-2.0
#include "bench/packet/IpCheckPeer.h"

#if BENCH_DPDK

#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>

namespace bench {

namespace {

inline bool good(char* frame, std::size_t bytes) {
  if (bytes < sizeof(rte_ether_hdr) + sizeof(rte_ipv4_hdr)) return false;
  const auto* const eth = reinterpret_cast<const rte_ether_hdr*>(frame);
  if (eth->ether_type != rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4)) return false;
  auto* const ip = reinterpret_cast<rte_ipv4_hdr*>(frame + sizeof(*eth));
  if (ip->version != 4 || rte_ipv4_hdr_len(ip) > bytes - sizeof(*eth)) return false;
  if (rte_be_to_cpu_16(ip->total_length) > bytes - sizeof(*eth)) return false;
  const rte_be16_t saved = ip->hdr_checksum;
  ip->hdr_checksum = 0;
  if (rte_ipv4_cksum(ip) != saved) return false;
  ip->hdr_checksum = saved;
  return true;
}

}  // namespace

void ipCheck(benchmark::State& state, char* frame, std::size_t bytes) {
  if (!good(frame, bytes)) return state.SkipWithError("the frame is not good");
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame);
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(good(frame, bytes));
    benchmark::ClobberMemory();
  }
}

}  // namespace bench

#else

namespace bench {

void ipCheck(benchmark::State& state, char*, std::size_t) {
  state.SkipWithError("peer: built without DPDK");
}

}  // namespace bench

#endif
