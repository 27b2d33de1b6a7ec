// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <concepts>
#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Wirl/value/PrefixMap.h"

namespace Wirl {

namespace detail {

/// Longest match by reading only: a table of the first bits, then search trees.
///
/// An entry is either a leaf, the number of a value, or a node. Every address ends in a leaf, so a look-up
/// never goes back. The table leaves out the bits that all routes have in common.
///
/// The routes below an entry of the table divide the next 32 bits of the address into runs with one leaf
/// each, and a B-tree finds the run. A node is one cache line: a look-up reads one for up to 8 runs, two for
/// up to 64. A run with routes of more than those 32 bits has a B-tree of its own, of the 32 bits that
/// follow.
template <typename Bits>
class PrefixTableOfFamily {
 public:
  /// One prefix. The number of its value is above 0, which is the leaf of nothing.
  struct Route {
    Bits bits;
    unsigned len;
    Kiv::U32 value;
  };

  /// `routes` in the order of `PrefixMap`. Once only, on an empty table.
  void build(const std::vector<Route>& routes) {
    const Route* at = routes.data();
    const Route* const end = at + routes.size();
    // The route to everything is no reason to begin the table at the first bit.
    if (at != end && at->len == 0) outside_ = (at++)->value;
    if (at == end) return;
    const unsigned common = commonBits(at, end);
    const unsigned wanted = common + static_cast<unsigned>(std::max(
                                         static_cast<int>(std::bit_width(routes.size())) + kSpareBits, 1));
    rootEnd_ = std::min({wanted, common + 24, kMaxEnd});
    first_ = high(at->bits) & ~(~Kiv::U64{0} >> common);
    root_.assign(std::size_t{1} << (rootEnd_ - common), outside_);
    std::vector<Run> runs;
    while (at != end) {
      const std::size_t slot = slotOf(at->bits);
      if (at->len <= rootEnd_) {
        std::fill_n(root_.begin() + static_cast<std::ptrdiff_t>(slot), std::size_t{1} << (rootEnd_ - at->len),
                    at->value);
        ++at;
        continue;
      }
      const Route* const begin = at;
      while (at != end && slotOf(at->bits) == slot) ++at;
      root_[slot] = treeOf(begin, at, rootEnd_, root_[slot], runs);
    }
    nodes_.shrink_to_fit();
  }

  Kiv::U32 value(const Bits& bits) const noexcept {
    Kiv::U32 entry = rootEntry(bits);
    if ((entry & kNode) == 0) return entry;
    Kiv::S32 window = windowOf(bits, rootEnd_);
    for (unsigned depth = rootEnd_;;) {
      entry = step(entry, window);
      if ((entry & kNode) == 0) return entry;
      if ((entry & kDeeper) != 0) [[unlikely]]
        window = windowOf(bits, depth += kWindow);
    }
  }
  /// `give(index, value)` for many addresses. Their steps overlap, so they wait for memory together.
  template <typename Address, typename Give>
  void values(const Address* addresses, std::size_t count, Give give) const {
    constexpr std::size_t kGroup = 16;
    std::array<Kiv::U32, kGroup> entry;
    std::array<Kiv::U32, kGroup> open;
    for (std::size_t at = 0; at < count; at += kGroup) {
      const Address* const group = addresses + at;
      const auto size = static_cast<unsigned>(std::min(kGroup, count - at));
      std::size_t opened = 0;
      for (unsigned i = 0; i < size; ++i) {
        entry[i] = rootEntry(trieBits(group[i]));
        open[opened] = i;
        opened += entry[i] >> 31;
      }
      for (std::size_t k = 0; k < opened; ++k) prefetch(entry[open[k]]);
      std::array<unsigned, kGroup> depth;
      depth.fill(rootEnd_);
      while (opened != 0) {
        std::size_t left = 0;
        for (std::size_t k = 0; k < opened; ++k) {
          const unsigned i = open[k];
          entry[i] = step(entry[i], windowOf(trieBits(group[i]), depth[i]));
          depth[i] += (entry[i] & (kNode | kDeeper)) == (kNode | kDeeper) ? kWindow : 0;
          prefetch(entry[i]);
          open[left] = i;
          left += entry[i] >> 31;
        }
        opened = left;
      }
      for (unsigned i = 0; i < size; ++i) give(at + i, entry[i]);
    }
  }

  std::size_t memory() const noexcept {
    return root_.capacity() * sizeof(Kiv::U32) + nodes_.capacity() * sizeof(Node);
  }

 private:
  // An entry that is a node, by its number; a deeper one belongs to the next 32 bits of the address.
  static constexpr Kiv::U32 kNode = 0x8000'0000;
  static constexpr Kiv::U32 kDeeper = 0x4000'0000;
  static constexpr Kiv::U32 kNumber = kDeeper - 1;
  static constexpr unsigned kWindow = 32;
  static constexpr unsigned kFanOut = 8;
  static constexpr bool kLong = std::same_as<Bits, U128>;
  /// The logarithm of how many entries the table has for each route. A full table of IPv4 finds nearly every
  /// address at once with 2^24 of them. In the vast space of IPv6 routes lie too far apart for that, and what
  /// counts is that everything stays in the caches.
  static constexpr int kSpareBits = kLong ? -6 : 4;
  /// Where the table ends at the latest.
  static constexpr unsigned kMaxEnd = kLong ? 64 : 32;

  /// Entry `i` holds from `begin[i]` on. What is behind the last one repeats it, and begins at the greatest
  /// number.
  struct alignas(64) Node {
    std::array<Kiv::S32, kFanOut> begin;
    std::array<Kiv::U32, kFanOut> entry;
  };
  struct Run {
    Kiv::S32 begin;
    Kiv::U32 entry;
  };

  static Kiv::U64 high(Kiv::U64 bits) noexcept { return bits; }
  static Kiv::U64 high(const U128& bits) noexcept { return bits.high(); }
  /// The 32 bits from `depth` on, in their order as signed numbers: vector units compare no others.
  static Kiv::S32 windowOf(const Bits& bits, unsigned depth) noexcept {
    return static_cast<Kiv::S32>(static_cast<Kiv::U32>(high(bits << depth) >> 32) ^ 0x8000'0000);
  }

  /// How many first bits are the same in all routes, as far as the table may leave them out.
  static unsigned commonBits(const Route* at, const Route* end) noexcept {
    unsigned common = kMaxEnd - 1;
    const Kiv::U64 first = high(at->bits);
    for (; at != end; ++at)
      common = std::min({common, at->len, static_cast<unsigned>(std::countl_zero(high(at->bits) ^ first))});
    return common;
  }

  /// Adds a run, which ends where the next one begins.
  static void add(std::vector<Run>& runs, std::size_t from, Kiv::S32 begin, Kiv::U32 entry) {
    if (runs.size() > from && runs.back().begin == begin) runs.pop_back();
    if (runs.size() == from || runs.back().entry != entry) runs.push_back({begin, entry});
  }

  /// The node for routes that have the first `depth` bits in common, and are longer. `runs` is a stack that
  /// this leaves as it was.
  Kiv::U32 treeOf(const Route* at, const Route* const end, unsigned depth, Kiv::U32 inherited,
                  std::vector<Run>& runs) {
    const std::size_t from = runs.size();
    const unsigned windowEnd = depth + kWindow;
    // What the current number is inside of, by its last number: everything, a route of each length, and a
    // deeper node.
    struct Around {
      Kiv::S32 last;
      Kiv::U32 entry;
    };
    std::array<Around, kWindow + 2> around;
    around[0] = {std::numeric_limits<Kiv::S32>::max(), inherited};
    std::size_t inside = 0;
    const auto leave = [&] {
      const Kiv::S32 last = around[inside--].last;
      if (last != around[0].last) add(runs, from, last + 1, around[inside].entry);
    };
    add(runs, from, std::numeric_limits<Kiv::S32>::min(), inherited);
    while (at != end) {
      const Kiv::S32 begin = windowOf(at->bits, depth);
      while (inside > 0 && around[inside].last < begin) leave();
      if (at->len <= windowEnd) {
        const Kiv::U32 open = (Kiv::U32{1} << (windowEnd - at->len)) - 1;
        around[++inside] = {static_cast<Kiv::S32>(static_cast<Kiv::U32>(begin) | open), at->value};
        ++at;
      } else {
        const Route* const deeper = at;
        while (at != end && windowOf(at->bits, depth) == begin) ++at;
        const Kiv::U32 entry = kDeeper | treeOf(deeper, at, windowEnd, around[inside].entry, runs);
        around[++inside] = {begin, entry};
      }
      add(runs, from, begin, around[inside].entry);
    }
    while (inside > 0) leave();
    return treeOfRuns(runs, from);
  }

  /// Takes the runs from `from` on off the stack.
  Kiv::U32 treeOfRuns(std::vector<Run>& runs, std::size_t from) {
    while (true) {
      // As many nodes as there have to be, filled alike.
      const std::size_t count = runs.size() - from;
      const std::size_t nodes = (count + kFanOut - 1) / kFanOut;
      for (std::size_t i = 0; i < nodes; ++i) {
        const std::size_t begin = from + count * i / nodes;
        const std::size_t size = from + count * (i + 1) / nodes - begin;
        Node node;
        for (std::size_t k = 0; k < kFanOut; ++k) {
          node.begin[k] = k < size ? runs[begin + k].begin : std::numeric_limits<Kiv::S32>::max();
          node.entry[k] = runs[begin + std::min(k, size - 1)].entry;
        }
        // A search below a node has found that the address is not in front of it.
        node.begin[0] = std::numeric_limits<Kiv::S32>::min();
        runs[from + i] = {runs[begin].begin, kNode | static_cast<Kiv::U32>(nodes_.size())};
        KIV_ASSERT_AS(nodes_.size() < kDeeper, "PrefixTable has fewer than 2^30 nodes");
        nodes_.push_back(node);
      }
      runs.resize(from + nodes);
      if (nodes > 1) continue;
      const Kiv::U32 entry = runs.back().entry;
      runs.pop_back();
      return entry;
    }
  }

  std::size_t slotOf(const Bits& bits) const noexcept {
    return static_cast<std::size_t>((high(bits) - first_) >> (64 - rootEnd_));
  }
  [[gnu::always_inline]] Kiv::U32 rootEntry(const Bits& bits) const noexcept {
    const Kiv::U64 slot = (high(bits) - first_) >> (64 - rootEnd_);
    return slot < root_.size() ? root_[static_cast<std::size_t>(slot)] : outside_;
  }
  [[gnu::always_inline]] Kiv::U32 step(Kiv::U32 entry, Kiv::S32 window) const noexcept {
    const Node& node = nodes_[entry & kNumber];
    Kiv::S32 count = 0;
    for (const Kiv::S32 begin : node.begin) count += begin <= window;
    return node.entry[static_cast<std::size_t>(count - 1)];
  }
  void prefetch(Kiv::U32 entry) const noexcept {
    const Node* const node = nodes_.data() + (entry & kNumber);
    __builtin_prefetch(node);
  }

  Kiv::U64 first_ = 0;    // the bits that all routes have in common
  unsigned rootEnd_ = 8;  // the bits of an address up to here give the entry of the root
  Kiv::U32 outside_ = 0;  // the leaf of addresses that do not have those bits
  std::vector<Kiv::U32> root_;
  std::vector<Node> nodes_;
};

}  // namespace detail

/// A `PrefixMap` frozen for fast look-ups: it finds the value of the longest match and nothing else. It never
/// changes, so any number of threads may read it. To replace it while they do, see `LiveTable`.
///
/// Equal values are kept once where `T` has `==` and `std::hash`: so a table of many routes to few next hops
/// stays in the caches. At most 2^31 - 1 different values. 900,000 routes of the Internet take 76 octets
/// each, most of them the wide table; 200,000 of IPv6 take 20.
template <typename T, typename P = IpGenPrefix>
class PrefixTable {
 public:
  using Address = detail::AddressOf<P>;  ///< The address that belongs to the prefix.

  /// Nothing matches.
  PrefixTable() = default;
  /// Copies all values; the map is not needed afterwards.
  explicit PrefixTable(const PrefixMap<T, P>& map) {
    std::vector<typename V4::Route> v4;
    std::vector<typename V6::Route> v6;
    Values values(values_);
    for (const auto [key, value] : map) {
      if constexpr (std::same_as<P, Prefix>) {
        v4.push_back({detail::trieBits(key.address()), key.len(), values.add(value)});
      } else if constexpr (std::same_as<P, Ip6Prefix>) {
        v6.push_back({detail::trieBits(key.address()), key.len(), values.add(value)});
      } else if (key.af() == AddressFamily::ipv4) {
        v4.push_back({detail::trieBits(key.v4Addr()), key.len(), values.add(value)});
      } else {
        v6.push_back({detail::trieBits(key.v6Addr()), key.len(), values.add(value)});
      }
    }
    v4_.build(v4);
    v6_.build(v6);
    values_.shrink_to_fit();
  }

  /// The value of the longest prefix that contains the address; null where none does. Does not allocate.
  const T* longestMatch(const Address& address) const noexcept { return valueOf(number(address)); }

  /// The same for many addresses, faster than one by one: calls `give(index, value)` for each in order, with
  /// a null value if nothing matches. For tables of one family only.
  template <typename Give>
  void longestMatches(const Address* addresses, std::size_t count, Give give) const
      requires(!std::same_as<P, IpGenPrefix>) {
    const auto pass = [&](std::size_t i, Kiv::U32 value) { give(i, valueOf(value)); };
    if constexpr (std::same_as<P, Prefix>) {
      v4_.values(addresses, count, pass);
    } else {
      v6_.values(addresses, count, pass);
    }
  }

  /// Octets of memory in use, without the allocator's overhead and without memory that values own.
  std::size_t memory() const noexcept { return v4_.memory() + v6_.memory() + values_.capacity() * sizeof(T); }

 private:
  using V4 = detail::PrefixTableOfFamily<Kiv::U64>;
  using V6 = detail::PrefixTableOfFamily<U128>;

  /// A vector of these has values to point to, of `bool` as well.
  struct Held {
    T value;
  };

  /// Numbers values, equal ones alike.
  class Values {
   public:
    explicit Values(std::vector<Held>& all) : all_(all) {}
    Kiv::U32 add(const T& value) {
      if constexpr (kHashed) {
        const auto [at, isNew] = numbers_.try_emplace(value, static_cast<Kiv::U32>(all_.size() + 1));
        if (!isNew) return at->second;
      }
      KIV_ASSERT_AS(all_.size() < 0x7fff'ffff, "PrefixTable has fewer than 2^31 values");
      all_.push_back({value});
      return static_cast<Kiv::U32>(all_.size());
    }

   private:
    static constexpr bool kHashed = requires(const T& value) {
      { std::hash<T>()(value) } -> std::convertible_to<std::size_t>;
      { value == value } -> std::convertible_to<bool>;
    };
    struct None {};

    std::vector<Held>& all_;
    [[no_unique_address]] std::conditional_t<kHashed, std::unordered_map<T, Kiv::U32>, None> numbers_;
  };

  Kiv::U32 number(IpAddr address) const noexcept { return v4_.value(detail::trieBits(address)); }
  Kiv::U32 number(const Ip6Addr& address) const noexcept { return v6_.value(detail::trieBits(address)); }
  Kiv::U32 number(const IpGenAddr& address) const noexcept {
    if (address.af() == AddressFamily::ipv4) return number(address.v4Addr());
    return address.af() == AddressFamily::ipv6 ? number(address.v6Addr()) : 0;
  }
  const T* valueOf(Kiv::U32 number) const noexcept {
    return number == 0 ? nullptr : &values_[number - 1].value;
  }

  V4 v4_;
  V6 v6_;
  std::vector<Held> values_;
};

/// A table that one thread replaces while others read it.
///
/// Each reading thread has a `Reader`. Asking it for the table costs one load and one compare. Only the first
/// call after a change takes a mutex, which is held just for copying a pointer. Nobody waits while a table is
/// built, and the thread that replaces a table frees the old one, never a reader.
template <typename Table>
class LiveTable {
 public:
  LiveTable() : current_(std::make_shared<const Table>()) {}

  /// From their next `table()` on, readers see the new table. Frees the old tables that no reader holds any
  /// more; a later call frees the rest. Any thread may call this. `std::bad_alloc` leaves the old table in
  /// place.
  void replace(Table table) {
    auto next = std::make_shared<const Table>(std::move(table));
    std::vector<std::shared_ptr<const Table>> unused;
    {
      const std::lock_guard lock(mutex_);
      old_.reserve(old_.size() + 1);
      unused.reserve(old_.size() + 1);
      old_.push_back(std::exchange(current_, std::move(next)));
      version_.fetch_add(1, std::memory_order_release);
      const auto held =
          std::partition(old_.begin(), old_.end(), [](const auto& each) { return each.use_count() > 1; });
      std::move(held, old_.end(), std::back_inserter(unused));
      old_.erase(held, old_.end());
    }
  }

  /// For one reading thread. Must not outlive the `LiveTable`.
  class Reader {
   public:
    explicit Reader(const LiveTable& live) : live_(live) { refresh(); }
    /// Valid until the next call.
    const Table& table() {
      if (live_.version_.load(std::memory_order_acquire) != version_) [[unlikely]]
        refresh();
      return *table_;
    }

   private:
    void refresh() {
      const std::lock_guard lock(live_.mutex_);
      table_ = live_.current_;
      version_ = live_.version_.load(std::memory_order_relaxed);
    }

    const LiveTable& live_;
    std::shared_ptr<const Table> table_;
    std::size_t version_ = 0;
  };

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const Table> current_;
  std::vector<std::shared_ptr<const Table>> old_;
  std::atomic<std::size_t> version_ = 0;
};

}  // namespace Wirl
