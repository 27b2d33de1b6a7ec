// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace bench {

/// An Ethernet and IPv4 frame looked at through DPDK's header structures, its checksum by rte_ipv4_cksum:
/// by a function that gives the headers, as a receive path calls one, and written out in the loop.
void ipCheck(benchmark::State& state, char* frame, std::size_t bytes);
void ipCheckInline(benchmark::State& state, char* frame, std::size_t bytes);

}  // namespace bench
