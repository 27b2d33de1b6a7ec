// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

/// DPDK's checksum of `bytes` bytes, built with -O3 and the flags that DPDK asks for.
void rawCksum(benchmark::State& state, const char* data, std::size_t bytes);

}  // namespace bench
