// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <ctime>
#include <map>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Wirl/value/PrefixTable.h"
#include "bench/value/Corpus.h"
#include "bench/value/RoutePeer.h"

namespace {

using namespace bench;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;
using namespace Wirl;

/// Routes of one family: lengths as in the tables of the Internet, addresses that cluster as they do there,
/// and some hundred next hops.
template <typename P>
struct Routes {
  using Address = Wirl::detail::AddressOf<P>;
  static constexpr bool kV6 = std::same_as<P, Ip6Prefix>;
  static constexpr std::size_t kCount = kV6 ? 200'000 : 900'000;
  static constexpr std::size_t kAsked = 1 << 16;

  PrefixMap<U32, P> map;
  PrefixTable<U32, P> table;
  std::unique_ptr<RoutePeer> peer;
  std::unordered_map<P, U32> hashed;
  std::map<P, U32> ordered;
  std::vector<unsigned> lengths;  // that there are, the longest first
  std::vector<Address> asked;     // each in some route, in random order
  std::vector<U32> numbers;       // the same in host order
  std::vector<std::array<U8, 16>> octets;

  Routes() {
    Random random(20261121);
    const auto length = [&] {
      // Per mille, of routes seen at exchange points.
      static constexpr std::pair<unsigned, unsigned> kV4[] = {
          {8, 1},   {12, 1},  {13, 1},   {14, 1},   {15, 2},   {16, 14}, {17, 8}, {18, 14}, {19, 26},
          {20, 46}, {21, 55}, {22, 118}, {23, 105}, {24, 600}, {28, 3},  {30, 2}, {32, 3}};
      static constexpr std::pair<unsigned, unsigned> kV6Lengths[] = {
          {20, 1},   {24, 2},  {26, 1},  {27, 1},  {28, 3},  {29, 26}, {30, 4},  {31, 2},
          {32, 125}, {33, 26}, {34, 18}, {35, 9},  {36, 50}, {37, 8},  {38, 14}, {39, 8},
          {40, 88},  {41, 8},  {42, 24}, {43, 10}, {44, 98}, {45, 14}, {46, 30}, {47, 28},
          {48, 380}, {49, 1},  {52, 1},  {56, 10}, {60, 1},  {64, 7},  {126, 1}, {128, 1}};
      unsigned at = below(random, 1000);
      const auto pick = [&](const auto& all) {
        for (const auto& [len, share] : all) {
          if (at < share) return len;
          at -= share;
        }
        return all[0].first;
      };
      if constexpr (kV6)
        return pick(kV6Lengths);
      else
        return pick(kV4);
    };
    std::vector<Address> blocks;  // what is given out, of which parts are announced
    while (map.size() < kCount) {
      const unsigned len = length();
      Address address;
      if (!blocks.empty() && random() % 4 != 0) {
        address = blocks[random() % blocks.size()];
        if constexpr (kV6) {
          address = address | Ip6Addr(U64{random() & 0xffff} << 16 >> random() % 12, random());
        } else {
          address = address | IpAddr::fromHostOrder(random() >> (16 + random() % 5));
        }
      } else if constexpr (kV6) {
        address = Ip6Addr(U64{0x2000 | random() % 0xe00} << 48 | U64{random() & 0xffff} << 32, 0);
      } else {
        address = IpAddr::fromHostOrder((1 + random() % 222) << 24 | (random() & 0xffff00));
      }
      if (len <= 32) blocks.push_back(address.maskedByLength(kV6 ? 32 : 16));
      map.insert(P(address.maskedByLength(len), len), 1 + random() % 500);
    }
    table = PrefixTable<U32, P>(map);
    std::vector<PeerRoute> routes;
    bool seen[129] = {};
    std::vector<P> keys;
    for (const auto [key, value] : map) {
      PeerRoute route{};
      key.address().copyToBuffer(route.address);
      route.len = static_cast<U8>(key.len());
      route.value = value;
      routes.push_back(route);
      seen[key.len()] = true;
      keys.push_back(key);
    }
    for (unsigned len = 128; len > 0; --len) {
      if (seen[len]) lengths.push_back(len);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    for (const P& key : keys) {
      hashed.emplace(key, *map.find(key));
      ordered.emplace(key, *map.find(key));
    }
    peer = std::make_unique<RoutePeer>(kV6, routes.data(), routes.size());
    for (std::size_t i = 0; i < kAsked; ++i) {
      const P& key = keys[random() % keys.size()];
      const U128 open =
          ~U128() >> (128 - (key.first().bits() - key.len() > 0 ? key.first().bits() - key.len() : 1));
      const U128 host = U128(U64{random()} << 32 | random(), U64{random()} << 32 | random()) & open;
      asked.push_back(
          Address::withNumber(key.first().number() | (key.len() == key.first().bits() ? U128() : host)));
      octets.emplace_back();
      asked.back().copyToBuffer(octets.back().data());
      if constexpr (!kV6) numbers.push_back(asked.back().hostOrder());
    }
  }

  static Routes& all() {
    static Routes routes;
    return routes;
  }

  const U32* byHash(const Address& address) const {
    for (const unsigned len : lengths) {
      const auto at = hashed.find(P(address.maskedByLength(len), len));
      if (at != hashed.end()) return &at->second;
    }
    return nullptr;
  }
  const U32* byOrder(const Address& address) const {
    for (const unsigned len : lengths) {
      const auto at = ordered.find(P(address.maskedByLength(len), len));
      if (at != ordered.end()) return &at->second;
    }
    return nullptr;
  }
  U64 sumOfTable() const {
    U64 sum = 0;
    for (const Address& address : asked) sum += *table.longestMatch(address);
    return sum;
  }
};

/// Does `work` on the routes, which gives a sum over all addresses that are asked for.
template <typename P, typename Work>
Body summed(Work work) {
  return [work](benchmark::State& state) {
    auto& routes = Routes<P>::all();
    // A table that is not there finds nothing.
    const U64 sum = work(routes);
    if (sum != routes.sumOfTable()) return state.SkipWithError(sum == 0 ? "no peer" : "another answer");
    for (auto _ : state) benchmark::DoNotOptimize(work(routes));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(routes.asked.size()));
  };
}

template <typename P, typename Match>
Body matched(Match match) {
  return summed<P>([match](auto& routes) {
    U64 sum = 0;
    for (const auto& address : routes.asked) sum += *match(routes, address);
    return sum;
  });
}

template <typename P>
void rows(const std::string& family, const char* peer) {
  const Body table =
      matched<P>([](auto& routes, const auto& address) { return routes.table.longestMatch(address); });
  const Body many = summed<P>([](auto& routes) {
    U64 sum = 0;
    routes.table.longestMatches(routes.asked.data(), routes.asked.size(),
                                [&](std::size_t, const U32* value) { sum += *value; });
    return sum;
  });
  const Body map = matched<P>([](auto& routes, const auto& address) {
    return static_cast<const PrefixMap<U32, P>&>(routes.map).longestMatch(address).value;
  });
  const Body peerOne = summed<P>([](auto& routes) {
    if constexpr (std::same_as<P, Prefix>) {
      return routes.peer->lookUp(routes.numbers.data(), routes.numbers.size());
    } else {
      return routes.peer->lookUpBulk(reinterpret_cast<const U8(*)[16]>(routes.octets.data()),
                                     routes.octets.size());
    }
  });
  const Body peerMany = summed<P>([](auto& routes) {
    if constexpr (std::same_as<P, Prefix>) {
      return routes.peer->lookUpBulk(routes.numbers.data(), routes.numbers.size());
    } else {
      return routes.peer->lookUpBulk(reinterpret_cast<const U8(*)[16]>(routes.octets.data()),
                                     routes.octets.size());
    }
  });
  compare("Routes " + family + ", look-up form, one by one", table, peer, peerOne, atMost(1.5));
  compare("Routes " + family + ", look-up form, many at once", many, std::string(peer) + " bulk", peerMany,
          atMost(1.5));
  compare("Routes " + family + ", map", map, "lengths in std::unordered_map",
          matched<P>([](auto& routes, const auto& address) { return routes.byHash(address); }),
          timesFaster(10));
  compare("Routes " + family + ", map", map, "lengths in std::map",
          matched<P>([](auto& routes, const auto& address) { return routes.byOrder(address); }),
          timesFaster(10));
  const auto memory = [&](const char* of, auto bytes) {
    state("Routes " + family + ", octets a route: " + of, [bytes](benchmark::State& state) {
      if (bytes() == 0) return state.SkipWithError("no peer");
      for (auto _ : state) benchmark::DoNotOptimize(bytes());
      state.counters["bytes"] = static_cast<double>(bytes()) / static_cast<double>(Routes<P>::kCount);
    });
  };
  memory("map", [] { return Routes<P>::all().map.memory(); });
  memory("look-up form", [] { return Routes<P>::all().table.memory(); });
  memory(peer, [] { return Routes<P>::all().peer->memory(); });
}

/// A million routes, in random order.
const std::vector<Prefix>& million() {
  static const auto all = corpus(
      [](Random& random) {
        const unsigned len = 8 + below(random, 25);
        return Prefix(IpAddr::fromHostOrder(random()).maskedByLength(len), len);
      },
      1'000'000);
  return all;
}

double seconds(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A table of all routes, which another thread replaces as fast as it can.
struct Replaced {
  using Table = PrefixTable<U32, Prefix>;
  using Live = LiveTable<Table>;

  Live live;
  std::atomic<bool> stop;
  std::thread writer;

  explicit Replaced(bool replaced) : stop(!replaced) {
    live.replace(Table(Routes<Prefix>::all().map));
    writer = std::thread([this] {
      while (!stop) live.replace(Table(Routes<Prefix>::all().map));
    });
  }
  ~Replaced() {
    stop = true;
    writer.join();
  }
};

/// A look-up in processor time of the reader: whatever else runs on the machine takes turns with it.
Body readWhileReplaced(bool isReplaced) {
  return [isReplaced](benchmark::State& state) {
    const auto& asked = Routes<Prefix>::all().asked;
    const Replaced replaced(isReplaced);
    Replaced::Live::Reader reader(replaced.live);
    const double began = seconds(CLOCK_THREAD_CPUTIME_ID);
    for (auto _ : state) {
      for (const IpAddr address : asked) benchmark::DoNotOptimize(reader.table().longestMatch(address));
    }
    state.counters["nanoseconds"] = (seconds(CLOCK_THREAD_CPUTIME_ID) - began) * 1e9 /
                                    static_cast<double>(state.iterations()) /
                                    static_cast<double>(asked.size());
  };
}

BENCH_ROWS {
  rows<Prefix>("IPv4", "rte_lpm");
  rows<Ip6Prefix>("IPv6", "rte_fib6");
  state("Routes, insert a million", [](benchmark::State& state) {
    for (auto _ : state) {
      PrefixMap<U32, Prefix> map;
      for (const Prefix& prefix : million()) map.insert(prefix, 1);
      benchmark::DoNotOptimize(map.size());
    }
  });
  state("Routes, make the look-up form of a million", [](benchmark::State& state) {
    static const auto map = [] {
      PrefixMap<U32, Prefix> all;
      for (const Prefix& prefix : million()) all.insert(prefix, static_cast<U32>(1 + all.size() % 500));
      return all;
    }();
    for (auto _ : state) benchmark::DoNotOptimize(PrefixTable<U32, Prefix>(map).memory());
  });
  compare("Routes IPv4, read while replaced", readWhileReplaced(true), "read alone", readWhileReplaced(false),
          atMost(1.2));
  state("Routes IPv4, take up a replaced table", [](benchmark::State& state) {
    const Replaced replaced(true);
    Replaced::Live::Reader reader(replaced.live);
    std::vector<double> times;
    for (auto _ : state) {
      const void* const before = &reader.table();
      double began = 0;
      do {
        began = seconds(CLOCK_MONOTONIC);
      } while (&reader.table() == before);
      times.push_back(seconds(CLOCK_MONOTONIC) - began);
    }
    std::sort(times.begin(), times.end());
    state.counters["nanoseconds"] = times[times.size() / 2] * 1e9;
  });
}

}  // namespace
