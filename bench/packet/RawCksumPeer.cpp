// SPDX-License-Identifier: Apache-2.0
#include "bench/packet/RawCksumPeer.h"

#if BENCH_DPDK

#include <rte_ip.h>

namespace bench {

void rawCksum(benchmark::State& state, const char* data, std::size_t bytes) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(data);
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(static_cast<std::uint16_t>(~rte_raw_cksum(data, bytes)));
  }
}

}  // namespace bench

#else

namespace bench {

void rawCksum(benchmark::State& state, const char*, std::size_t) {
  state.SkipWithError("peer: built without DPDK");
}

}  // namespace bench

#endif
