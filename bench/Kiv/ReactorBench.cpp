// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "Kiv/Entity.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

class Counter final : public Kiv::Entity {
 public:
  KIV_ENTITY(Counter, Kiv::Entity)
  KIV_ATTR_COUNTER(Kiv::U32, count)
  Counter() : Entity("counter") {}
};

/// What a change with one reactor comes down to by hand: compare, store, call through a pointer.
struct Plain {
  Kiv::U32 count = 0;
  void (*changed)(void*) = nullptr;
  void* context = nullptr;
};

void bump(void* total) {
  ++*static_cast<Kiv::U64*>(total);
}

void watchedOurs(State& state) {
  const auto counter = Kiv::makePtr<Counter>();
  Kiv::U64 total = 0;
  const Kiv::Reactor reactor(counter->count, [&total] { ++total; });
  for (auto _ : state) {
    counter->countInc(1);
    DoNotOptimize(total);
  }
}

void watchedFloor(State& state) {
  Plain plain;
  Kiv::U64 total = 0;
  plain.changed = bump;
  plain.context = &total;
  DoNotOptimize(plain);
  for (auto _ : state) {
    const Kiv::U32 value = plain.count + 1;
    if (value != plain.count) {
      plain.count = value;
      plain.changed(plain.context);
    }
    DoNotOptimize(total);
    DoNotOptimize(plain);
  }
}

/// `step` 0: the value is what it was.
template <Kiv::U32 step>
void unwatchedOurs(State& state) {
  const auto counter = Kiv::makePtr<Counter>();
  Kiv::U32 value = 0;
  for (auto _ : state) {
    value += step;
    DoNotOptimize(value);
    counter->countIs(value);
  }
}

template <Kiv::U32 step>
void unwatchedFloor(State& state) {
  Plain plain;
  DoNotOptimize(plain);
  Kiv::U32 value = 0;
  for (auto _ : state) {
    value += step;
    DoNotOptimize(value);
    if (value != plain.count) {
      plain.count = value;
      if (plain.changed) plain.changed(plain.context);
    }
    benchmark::ClobberMemory();
  }
}

/// Ten thousand reactors of one attribute, dropped in the order in which they came or in the other one.
void drop(State& state, bool reverse) {
  const auto counter = Kiv::makePtr<Counter>();
  Kiv::U64 total = 0;
  std::vector<Kiv::Reactor> reactors(10000);
  for (auto _ : state) {
    state.PauseTiming();
    for (auto& reactor : reactors) reactor = Kiv::Reactor(counter->count, [&total] { ++total; });
    state.ResumeTiming();
    if (reverse) {
      for (auto each = reactors.rbegin(); each != reactors.rend(); ++each) each->drop();
    } else {
      for (auto& reactor : reactors) reactor.drop();
    }
  }
  state.SetItemsProcessed(
      static_cast<int64_t>(static_cast<std::size_t>(state.iterations()) * reactors.size()));
}

BENCH_ROWS {
  bench::compare("set with one reactor", watchedOurs, "function pointer", watchedFloor, bench::atMost(1.5));
  bench::compare("set nobody watches", unwatchedOurs<1>, "compare, store, branch", unwatchedFloor<1>,
                 bench::atMost(1.5));
  bench::compare(
      "10,000 reactors dropped in reverse", [](State& state) { drop(state, true); }, "in order",
      [](State& state) { drop(state, false); }, bench::atMost(2));
  bench::compare("set to the same value", unwatchedOurs<0>, "compare, branch", unwatchedFloor<0>,
                 bench::atMost(1.5));
}

}  // namespace
