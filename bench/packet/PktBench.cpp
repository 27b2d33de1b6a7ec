// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

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

/// `packets` are taken, given three headers, and released again: the time of one of them.
template <U32 packets>
void pktInFlight(benchmark::State& state) {
  const auto manager = globalPktManager();
  std::vector<Pkt::Ptr> inFlight;
  inFlight.reserve(packets);
  while (state.KeepRunningBatch(packets)) {
    for (U32 i = 0; i < packets; ++i) {
      inFlight.push_back(manager->newPkt());
      Pkt& layers = *inFlight.back();
      prependHeaders([&layers](U32 n) { return layers.newSharedHeadData(n); });
    }
    inFlight.clear();
  }
}

/// Packets of one thread, made by `make` and released in another: the time of one of them.
template <typename Make>
void releasedElsewhere(benchmark::State& state, Make make) {
  constexpr U32 kBurst = 4096;
  std::vector<decltype(make())> burst;
  burst.reserve(kBurst);
  std::atomic<int> turn{0};  // 1: the other thread releases; 2: it ends
  std::thread other([&] {
    for (int now = 0; now != 2; now = turn.load(std::memory_order_acquire)) {
      if (now == 1) {
        burst.clear();
        turn.store(0, std::memory_order_release);
      }
    }
  });
  while (state.KeepRunningBatch(kBurst)) {
    for (U32 i = 0; i < kBurst; ++i) burst.push_back(make());
    turn.store(1, std::memory_order_release);
    while (turn.load(std::memory_order_acquire) != 0) {
    }
  }
  turn.store(2, std::memory_order_release);
  other.join();
}

void pktElsewhere(benchmark::State& state) {
  const auto manager = globalPktManager();
  releasedElsewhere(state, [&] { return manager->newPkt(); });
}
void heapElsewhere(benchmark::State& state) {
  releasedElsewhere(state, [] { return std::make_unique<FloorBuffer>(); });
}

BENCH_ROWS {
  bench::compare("Packet: 16,384 in flight", pktInFlight<16384>, "256 in flight", pktInFlight<256>,
                 bench::atMost(2));
  bench::compare("Packet: released in another thread", withAtomicCounts(pktElsewhere), "heap", heapElsewhere,
                 bench::timesFaster(2));
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
