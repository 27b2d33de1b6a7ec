// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace bench {

using Body = std::function<void(benchmark::State&)>;

/// What is wanted of the time of ours against that of the peer.
struct Target {
  bool faster;  // true: peer / ours at least `bound`; false: ours / peer at most `bound`
  double bound;
};
inline Target atMost(double ratio) {
  return {false, ratio};
}
inline Target timesFaster(double ratio) {
  return {true, ratio};
}

/// A row of the table: ours and a peer (or floor) doing the same work in the same run, repetitions of the two
/// interleaved. The time is that of the wall clock, or the counter "nanoseconds" where the body sets it. Call
/// it before main, through `BENCH_ROWS`.
void compare(std::string work, Body ours, std::string peer, Body theirs, Target target);

/// A figure with no peer, for the table's foot: the time, or the counter "bytes" where the body sets it, of
/// which there may be `limit`.
void state(std::string work, Body body, double limit = 0);

struct Rows {
  explicit Rows(void (*add)()) { add(); }
};

}  // namespace bench

/// A block that registers rows: `BENCH_ROWS { bench::compare(...); }`
#define BENCH_ROWS                                    \
  static void benchRows();                            \
  static const bench::Rows benchRowsAdded(benchRows); \
  static void benchRows()
