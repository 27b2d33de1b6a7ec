// SPDX-License-Identifier: Apache-2.0
#include "bench/value/RoutePeer.h"

#ifdef BENCH_DPDK

#include <rte_eal.h>
#include <rte_fib6.h>
#include <rte_lpm.h>
#include <rte_malloc.h>

#include <cstring>
#include <iterator>
#include <stdexcept>

namespace bench {

namespace {

std::size_t allocated() {
  rte_malloc_socket_stats stats;
  return rte_malloc_get_socket_stats(0, &stats) == 0 ? stats.heap_allocsz_bytes : 0;
}

/// How many tables of eight bits the routes need: one for each prefix of 24, 32, 40... bits that longer ones
/// begin with. Routes are in order, so equal beginnings are neighbours.
std::uint32_t groupsOf(const PeerRoute* routes, std::size_t count) {
  std::uint32_t groups = 0;
  for (std::size_t octets = 3; octets < 16; ++octets) {
    const PeerRoute* last = nullptr;
    for (const PeerRoute* at = routes; at != routes + count; ++at) {
      if (at->len <= octets * 8) continue;
      groups += !last || std::memcmp(last->address, at->address, octets) != 0;
      last = at;
    }
  }
  return groups;
}

/// What `rte_lpm_add` does to the tables, without its search for the rule from end to end, which takes hours
/// for this many. A route comes behind those that cover it.
void fill(rte_lpm& lpm, const PeerRoute* routes, std::size_t count) {
  std::uint32_t groups = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t* const a = routes[i].address;
    const std::uint32_t ip =
        std::uint32_t{a[0]} << 24 | std::uint32_t{a[1]} << 16 | std::uint32_t{a[2]} << 8 | a[3];
    const unsigned len = routes[i].len;
    rte_lpm_tbl_entry entry{};
    entry.next_hop = routes[i].value & 0xff'ffff;
    entry.valid = 1;
    entry.depth = len & 63;
    if (len <= 24) {
      for (std::uint32_t k = 0; k < 1u << (24 - len); ++k) lpm.tbl24[(ip >> 8) + k] = entry;
      continue;
    }
    rte_lpm_tbl_entry& first = lpm.tbl24[ip >> 8];
    if (!first.valid_group) {
      for (unsigned k = 0; k < 256; ++k) {
        lpm.tbl8[groups * 256 + k] = first;
        lpm.tbl8[groups * 256 + k].valid_group = 1;
      }
      first.next_hop = groups++ & 0xff'ffff;
      first.valid = first.valid_group = 1;
    }
    entry.valid_group = 1;
    for (std::uint32_t k = 0; k < 1u << (32 - len); ++k)
      lpm.tbl8[first.next_hop * 256 + (ip & 255) + k] = entry;
  }
}

/// Null where there are too few tables for the routes.
rte_fib6* fib(const PeerRoute* routes, std::size_t count, std::uint32_t tables) {
  rte_fib6_conf config{};
  config.type = RTE_FIB6_TRIE;
  config.default_nh = 0;
  config.max_routes = 300'000;
  config.trie.nh_sz = RTE_FIB6_TRIE_4B;
  config.trie.num_tbl8 = tables;
  auto* const fib = rte_fib6_create("bench6", 0, &config);
  for (std::size_t i = 0; fib && i < count; ++i) {
    if (rte_fib6_add(fib, routes[i].address, routes[i].len, routes[i].value) == 0) continue;
    rte_fib6_free(fib);
    return nullptr;
  }
  if (!fib) throw std::runtime_error("rte_fib6_create");
  return fib;
}

}  // namespace

bool RoutePeer::available() {
  static const bool started = [] {
    char words[][24] = {"bench", "--no-shconf", "--no-huge",      "--no-pci",
                        "-m",    "1500",        "--no-telemetry", "--log-level=1"};
    char* argv[std::size(words)];
    for (std::size_t i = 0; i < std::size(words); ++i) argv[i] = words[i];
    return rte_eal_init(static_cast<int>(std::size(words)), argv) >= 0;
  }();
  return started;
}

RoutePeer::RoutePeer(bool v6, const PeerRoute* routes, std::size_t count) : v6_(v6) {
  if (!available()) return;
  const std::size_t before = allocated();
  const std::uint32_t groups = groupsOf(routes, count) + 16;
  if (v6) {
    // It wants more tables than the routes need in the end, so ask for as many as it takes.
    for (std::uint32_t tables = groups; !(table_ = fib(routes, count, tables)); tables += tables / 4) {
    }
  } else {
    rte_lpm_config config{1'100'000, groups, 0};
    auto* const lpm = rte_lpm_create("bench4", 0, &config);
    table_ = lpm;
    if (lpm) fill(*lpm, routes, count);
  }
  memory_ = allocated() - before;
}

RoutePeer::~RoutePeer() {
  if (v6_) {
    rte_fib6_free(static_cast<rte_fib6*>(table_));
  } else {
    rte_lpm_free(static_cast<rte_lpm*>(table_));
  }
}

std::uint64_t RoutePeer::lookUp(const std::uint32_t* addresses, std::size_t count) const {
  std::uint64_t sum = 0;
  auto* const lpm = static_cast<rte_lpm*>(table_);
  for (std::size_t i = 0; lpm && i < count; ++i) {
    std::uint32_t value = 0;
    if (rte_lpm_lookup(lpm, addresses[i], &value) == 0) sum += value;
  }
  return sum;
}

std::uint64_t RoutePeer::lookUpBulk(const std::uint32_t* addresses, std::size_t count) const {
  std::uint64_t sum = 0;
  auto* const lpm = static_cast<rte_lpm*>(table_);
  std::uint32_t values[64];
  for (std::size_t i = 0; lpm && i + 64 <= count; i += 64) {
    rte_lpm_lookup_bulk(lpm, addresses + i, values, 64);
    for (const std::uint32_t value : values) sum += value & RTE_LPM_LOOKUP_SUCCESS ? value & 0xff'ffff : 0;
  }
  return sum;
}

std::uint64_t RoutePeer::lookUpBulk(const std::uint8_t (*addresses)[16], std::size_t count) const {
  std::uint64_t sum = 0;
  auto* const fib = static_cast<rte_fib6*>(table_);
  std::uint64_t values[64];
  std::uint8_t asked[64][16];
  for (std::size_t i = 0; fib && i + 64 <= count; i += 64) {
    std::memcpy(asked, addresses + i, sizeof(asked));
    rte_fib6_lookup_bulk(fib, asked, values, 64);
    for (const std::uint64_t value : values) sum += value;
  }
  return sum;
}

}  // namespace bench

#else

namespace bench {

bool RoutePeer::available() {
  return false;
}
RoutePeer::RoutePeer(bool v6, const PeerRoute*, std::size_t) : v6_(v6) {}
RoutePeer::~RoutePeer() = default;
std::uint64_t RoutePeer::lookUp(const std::uint32_t*, std::size_t) const {
  return 0;
}
std::uint64_t RoutePeer::lookUpBulk(const std::uint32_t*, std::size_t) const {
  return 0;
}
std::uint64_t RoutePeer::lookUpBulk(const std::uint8_t (*)[16], std::size_t) const {
  return 0;
}

}  // namespace bench

#endif
