// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

namespace bench {

// DPDK's packet buffers, from a pool with a cache on this core. Skipped, with the reason, where its
// environment does not start.

/// Takes one, prepends 14, 20 and 8 bytes and frees it.
void mbufPrepend(benchmark::State& state);

/// Makes one that shares the data of another, and frees it.
void mbufClone(benchmark::State& state);

}  // namespace bench
