// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdlib>
#include <memory>

#include "Wirl/packet/Pkt.h"
#include "bench/packet/MbufPeer.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

/// The floor: buffers of one size in a list of the thread, with the moves of a pointer and a length that
/// prepending needs, checked.
struct FloorBuffer {
  FloorBuffer* next;
  U8* data;
  U32 bytes;
  U8 storage[1536];
};
thread_local FloorBuffer* floorList = nullptr;

inline FloorBuffer* floorTake() {
  FloorBuffer* buffer = floorList;
  if (!buffer) [[unlikely]] {
    buffer = new FloorBuffer;
  } else {
    floorList = buffer->next;
  }
  buffer->data = buffer->storage + sizeof(buffer->storage);
  buffer->bytes = 0;
  return buffer;
}

inline U8* floorPrepend(FloorBuffer* buffer, U32 n) {
  if (n > static_cast<std::size_t>(buffer->data - buffer->storage)) [[unlikely]]
    std::abort();
  buffer->data -= n;
  buffer->bytes += n;
  return buffer->data;
}

inline void floorRelease(FloorBuffer* buffer) {
  buffer->next = floorList;
  floorList = buffer;
}

/// Three headers by `prepend`, which returns where the header is written. The clobber stands for the layers
/// between, each of which finds the packet in memory.
template <typename Prepend>
inline void prependHeaders(Prepend prepend) {
  benchmark::DoNotOptimize(prepend(14));
  benchmark::ClobberMemory();
  benchmark::DoNotOptimize(prepend(20));
  benchmark::ClobberMemory();
  benchmark::DoNotOptimize(prepend(8));
  benchmark::ClobberMemory();
}

void pktPrepend(benchmark::State& state) {
  const auto manager = globalPktManager();
  for (auto _ : state) {
    const Pkt::Ptr pkt = manager->newPkt();
    Pkt& layers = *pkt;
    prependHeaders([&layers](U32 n) { return layers.newSharedHeadData(n); });
  }
}

void floorPrependAll(benchmark::State& state) {
  for (auto _ : state) {
    FloorBuffer* buffer = floorTake();
    prependHeaders([&](U32 n) { return floorPrepend(buffer, n); });
    floorRelease(buffer);
  }
}

void pktCopy(benchmark::State& state) {
  const auto manager = globalPktManager();
  const Pkt::Ptr pkt = manager->newPkt();
  pkt->newSharedHeadData(60);
  for (auto _ : state) {
    const Pkt::Ptr copy = manager->newShallowCopy(pkt);
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
}

void plainCount(benchmark::State& state) {
  const auto count = std::make_unique<U32>(1);
  for (auto _ : state) {
    ++*count;
    benchmark::ClobberMemory();
    --*count;
    benchmark::ClobberMemory();
  }
}

void atomicCount(benchmark::State& state) {
  const auto count = std::make_unique<std::atomic<U32>>(1);
  for (auto _ : state) {
    count->fetch_add(1, std::memory_order_relaxed);
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(count->fetch_sub(1, std::memory_order_acq_rel));
  }
}

bench::Body withAtomicCounts(bench::Body body) {
  return [body](benchmark::State& state) {
    Kiv::ptrThreadSafeIs(true);
    body(state);
    Kiv::ptrThreadSafeIs(false);
  };
}

BENCH_ROWS {
  bench::compare("Packet: take, prepend 14 + 20 + 8, release", pktPrepend, "bare free list", floorPrependAll,
                 bench::atMost(1.5));
  bench::compare("Packet: take, prepend 14 + 20 + 8, release", pktPrepend, "DPDK mbuf, cached pool",
                 bench::mbufPrepend, bench::timesFaster(1.0));
  bench::compare("Packet: take, prepend, release, atomic counts", withAtomicCounts(pktPrepend),
                 "bare free list", floorPrependAll, bench::atMost(1.5));
  bench::compare("Packet: shallow copy and release", pktCopy, "plain count up and down", plainCount,
                 bench::atMost(1.5));
  bench::compare("Packet: shallow copy and release", pktCopy, "DPDK mbuf clone", bench::mbufClone,
                 bench::timesFaster(1.0));
  bench::compare("Packet: shallow copy and release, atomic counts", withAtomicCounts(pktCopy),
                 "atomic count up and down", atomicCount, bench::atMost(1.5));
}

}  // namespace
