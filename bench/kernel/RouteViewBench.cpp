// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/RouteView.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <malloc.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Nimbo/Nimbo.h"
#include "Wirl/kernel/KernelChanges.h"
#include "Wirl/value/PrefixMap.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;
using Clock = std::chrono::steady_clock;

constexpr U32 kRoutes = 500'000;
constexpr U32 kChanges = 100'000;
constexpr U32 kAllChanges = 1u << 29;  // room for all of them in a socket

void shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
}

double nanosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

RouteAttrs attrsBy(U32 gateway) {
  RouteAttrs attrs;
  attrs.protocol = RTPROT_BGP;
  attrs.nextHops.resize(1);
  attrs.nextHops[0].gateway = IpAddr::fromHostOrder(0xc0000202u + gateway);
  return attrs;
}

/// A namespace of the benchmark's own with 500,000 routes, two thirds of them /24.
class World {
 public:
  static World& get() {
    static World world;
    return world;
  }
  World() : name("ns-bench" + std::to_string(getpid())) {
    shell("ip netns add " + name);
    shell("ip -n " + name + " link add name v0 type veth peer name v1");
    shell("ip -n " + name + " link set v0 up; ip -n " + name + " link set v1 up");
    shell("ip -n " + name + " addr add 192.0.2.1/24 dev v0");
    std::mt19937 random(1);
    while (prefixes.size() < kRoutes) {
      for (std::size_t i = prefixes.size(); i < kRoutes + 1000; ++i) {
        const unsigned len = random() % 3 != 0 ? 24 : static_cast<unsigned>(16 + random() % 9);
        const U32 address = static_cast<U32>(0x01000000u + random() % 0xbe000000u);
        prefixes.push_back(Prefix(IpAddr::fromHostOrder(address).maskedByLength(len), len));
      }
      std::sort(prefixes.begin(), prefixes.end());
      prefixes.erase(std::unique(prefixes.begin(), prefixes.end()), prefixes.end());
    }
    std::shuffle(prefixes.begin(), prefixes.end(), random);
    prefixes.resize(kRoutes);
    KernelChanges changes;
    KernelChanger changer{NamespaceName(name)};
    for (U32 i = 0; i < kRoutes; ++i) {
      changes.routeAdd({RT_TABLE_MAIN, prefixes[i], 0}, attrsBy(i % 64));
      if (changes.size() < 10'000) continue;
      changer.apply(changes);
      changes = KernelChanges();
    }
    changer.apply(changes);
  }
  ~World() {
    if (std::system(("ip netns del " + name).c_str()) != 0) std::perror("ip netns del");
  }

  /// Adds and removes routes of a table that nobody looks at.
  void makeChanges() {
    KernelChanger changer{NamespaceName(name)};
    KernelChanges changes;
    for (U32 i = 0; i < kChanges; ++i) {
      const RouteKey key{77, Prefix(IpAddr::fromHostOrder(0x0a000000u + i / 2 * 256), 24), 0};
      i % 2 == 0 ? changes.routeAdd(key, attrsBy(i % 64)) : changes.routeDel(key);
      if (changes.size() < 10'000) continue;
      changer.apply(changes);
      changes = KernelChanges();
    }
  }

  const std::string name;
  std::vector<Prefix> prefixes;
};

Kiv::Ptr<RouteView> loaded(U32 rxBuf = 4u << 20) {
  auto view = routeViewFactory("routes", NamespaceName(World::get().name));
  view->rxBufIs(rxBuf);
  view->enabledIs(true);
  if (!Kiv::activityLoop().runUntil([&] { return view->inSync(); }, 60)) throw std::runtime_error("no sync");
  if (view->size() < kRoutes) throw std::runtime_error("routes are missing");
  return view;
}

void load(benchmark::State& state) {
  World::get();
  for (auto _ : state) {
    const auto view = loaded();
    state.PauseTiming();
    view->enabledIs(false);
    state.ResumeTiming();
  }
}
void ipRouteShow(benchmark::State& state) {
  const std::string command = "ip -n " + World::get().name + " route show >/dev/null";
  for (auto _ : state) shell(command);
}

void memory(benchmark::State& state) {
  World::get();
  for (auto _ : state) {
    malloc_trim(0);
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    const auto view = loaded();
    const std::size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
    state.counters["bytes"] = static_cast<double>(after - before) / kRoutes;
  }
}

void follow(benchmark::State& state) {
  const auto view = loaded(kAllChanges);
  U64 told = 0;
  const Kiv::Reactor onChange(view->changeCount, [&] { told += view->changes().size(); });
  for (auto _ : state) {
    World::get().makeChanges();
    const auto begin = Clock::now();
    // The routes come and go; what is followed is that none is left when the socket is empty.
    while (true) {
      const U64 before = view->changeCount();
      Kiv::activityLoop().poll();
      if (view->changeCount() == before && view->size() <= kRoutes + 20) break;
    }
    state.counters["nanoseconds"] = nanosecondsSince(begin);
    if (view->rxOverruns() != 0) throw std::runtime_error("overrun");
  }
}
void readAndDrop(benchmark::State& state) {
  const int fd = Nimbo::netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, World::get().name.c_str());
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1u << (RTNLGRP_IPV4_ROUTE - 1);
  const int room = kAllChanges;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) throw std::runtime_error("bind");
  std::vector<char> buffer(32768);
  for (auto _ : state) {
    World::get().makeChanges();
    const auto begin = Clock::now();
    U32 count = 0;
    while (recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) ++count;
    state.counters["nanoseconds"] = nanosecondsSince(begin);
    if (count < kChanges) throw std::runtime_error("changes are missing");
  }
  close(fd);
}

const std::vector<IpGenAddr>& targets() {
  static const auto made = [] {
    std::mt19937 random(2);
    std::vector<IpGenAddr> addresses;
    for (int i = 0; i < 100'000; ++i) {
      const Prefix& prefix = World::get().prefixes[random() % kRoutes];
      addresses.push_back(IpAddr::fromHostOrder(prefix.address().hostOrder() | (random() & 0xff)));
    }
    return addresses;
  }();
  return made;
}
/// By the processor's time: the machine may do other things.
template <typename LookUp>
void lookUpAll(benchmark::State& state, LookUp lookUp) {
  const auto pass = [&] {
    for (const IpGenAddr& address : targets()) benchmark::DoNotOptimize(lookUp(address));
  };
  pass();
  for (auto _ : state) {
    timespec begin, end;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
    for (int i = 0; i < 5; ++i) pass();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    state.counters["nanoseconds"] = (static_cast<double>(end.tv_sec - begin.tv_sec) * 1e9 +
                                     static_cast<double>(end.tv_nsec - begin.tv_nsec)) /
                                    5;
  }
}
void lookUp(benchmark::State& state) {
  targets();
  const auto view = loaded();
  lookUpAll(state,
            [&](const IpGenAddr& address) { return view->lookUpIn(RT_TABLE_MAIN, address).attrs->protocol; });
}
void prefixMap(benchmark::State& state) {
  targets();
  // In the order in which the kernel shows them.
  PrefixMap<U64> map;
  std::vector<Prefix> prefixes = World::get().prefixes;
  std::sort(prefixes.begin(), prefixes.end());
  for (const Prefix& prefix : prefixes) map.insert(prefix, prefix.len());
  lookUpAll(state, [&](const IpGenAddr& address) {
    const auto found = map.longestMatch(address);
    benchmark::DoNotOptimize(&found.key);
    return *found;
  });
}

BENCH_ROWS {
  bench::compare("500,000 routes loaded", load, "ip route show", ipRouteShow, bench::atMost(1.5));
  bench::compare("100,000 route changes followed", follow, "read and drop", readAndDrop, bench::atMost(2.0));
  bench::compare("100,000 routes looked up, of 500,000", lookUp, "PrefixMap", prefixMap, bench::atMost(1.2));
  bench::state("bytes a route, of 500,000", memory, 150);
}

}  // namespace
