// SPDX-License-Identifier: Apache-2.0
#include "bench/packet/MbufPeer.h"

#if BENCH_DPDK

#include <rte_eal.h>
#include <rte_mbuf.h>

namespace bench {

namespace {

/// Null where the environment does not start.
rte_mempool* startPool() {
  const char* arguments[] = {"bench",         "--no-huge", "--no-pci", "--no-shconf", "--no-telemetry",
                             "--log-level=1", "-m",        "64",       "-l",          "0"};
  constexpr int count = sizeof(arguments) / sizeof(arguments[0]);
  if (rte_eal_init(count, const_cast<char**>(arguments)) < 0) return nullptr;
  return rte_pktmbuf_pool_create("bench", 4095, 256, 0, RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
}

rte_mempool* pool(benchmark::State& state) {
  static rte_mempool* const started = startPool();
  if (!started) state.SkipWithError("peer: the DPDK environment did not start");
  return started;
}

}  // namespace

void mbufPrepend(benchmark::State& state) {
  rte_mempool* const from = pool(state);
  if (!from) return;
  for (auto _ : state) {
    rte_mbuf* mbuf = rte_pktmbuf_alloc(from);
    benchmark::DoNotOptimize(rte_pktmbuf_prepend(mbuf, 14));
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(rte_pktmbuf_prepend(mbuf, 20));
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(rte_pktmbuf_prepend(mbuf, 8));
    benchmark::ClobberMemory();
    rte_pktmbuf_free(mbuf);
  }
}

void mbufClone(benchmark::State& state) {
  rte_mempool* const from = pool(state);
  if (!from) return;
  rte_mbuf* const mbuf = rte_pktmbuf_alloc(from);
  rte_pktmbuf_prepend(mbuf, 60);
  for (auto _ : state) {
    rte_mbuf* clone = rte_pktmbuf_clone(mbuf, from);
    benchmark::DoNotOptimize(clone);
    benchmark::ClobberMemory();
    rte_pktmbuf_free(clone);
  }
  rte_pktmbuf_free(mbuf);
}

}  // namespace bench

#else

namespace bench {

void mbufPrepend(benchmark::State& state) {
  state.SkipWithError("peer: built without DPDK");
}
void mbufClone(benchmark::State& state) {
  state.SkipWithError("peer: built without DPDK");
}

}  // namespace bench

#endif
