// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <concepts>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Wirl/value/PrefixMap.h"

namespace Wirl {

namespace detail {

/// Longest match by reading only: a table of the first bits, then nodes for eight bits each.
///
/// An entry of the table or of a node is a leaf, the number of a value, or a node. Every address ends in a
/// leaf, so that no step looks back. Equal leaves side by side are kept once. The table leaves out the bits
/// that all routes have in common, and ends on a whole octet of the address. It has at most 128 entries for
/// each route, or 256, and not more than 2^24: a full table of IPv4 finds nearly every address in it at once.
/// 900,000 routes of the Internet take 76 octets each, 200,000 of IPv6 153.
template <typename Bits>
class PrefixTableOfFamily {
 public:
  /// One prefix: the number of its value is above 0, the leaf of nothing.
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
    const unsigned wanted = common + static_cast<unsigned>(std::bit_width(routes.size())) + 6;
    rootEnd_ = std::clamp(wanted, common / kStride * kStride + kStride, std::min(common + 24, kMaxEnd));
    rootEnd_ -= rootEnd_ % kStride;
    first_ = high(at->bits) & ~(~Kiv::U64{0} >> common);
    root_.assign(std::size_t{1} << (rootEnd_ - common), outside_);
    while (at != end) {
      const auto slot = static_cast<std::size_t>((high(at->bits) - first_) >> (64 - rootEnd_));
      if (at->len <= rootEnd_) {
        std::fill_n(root_.begin() + static_cast<std::ptrdiff_t>(slot), std::size_t{1} << (rootEnd_ - at->len),
                    at->value);
        ++at;
        continue;
      }
      const Route* const begin = at;
      while (at != end && (high(at->bits) - first_) >> (64 - rootEnd_) == slot) ++at;
      const Kiv::U32 inherited = root_[slot];
      root_[slot] = kNode | static_cast<Kiv::U32>(quarters_.size() / 4);
      quarters_.resize(quarters_.size() + 4);
      fill(quarters_.size() / 4 - 1, rootEnd_, begin, at, inherited);
    }
    quarters_.shrink_to_fit();
    leaves_.shrink_to_fit();
  }

  Kiv::U32 value(const Bits& bits) const noexcept {
    const Kiv::U32 entry = rootEntry(bits);
    if ((entry & kNode) == 0) return entry;
    return hasPopcnt() ? valueByInstruction(bits, entry) : valueBelow<false>(bits, entry);
  }
  /// For many addresses: the machine is asked once what it can do, and the steps of several addresses
  /// overlap.
  template <typename Address, typename Give>
  void values(const Address* addresses, std::size_t count, Give give) const {
    hasPopcnt() ? valuesByInstruction(addresses, count, give) : valuesIn<false>(addresses, count, give);
  }

  std::size_t memory() const noexcept {
    return root_.capacity() * sizeof(Kiv::U32) + quarters_.capacity() * sizeof(Quarter) +
           leaves_.capacity() * sizeof(Kiv::U32);
  }

 private:
  static constexpr Kiv::U32 kNode = 0x8000'0000;
  static constexpr unsigned kStride = 8;
  /// Where the table ends at the latest.
  static constexpr unsigned kMaxEnd = std::same_as<Bits, U128> ? 64 : 32;

  /// A quarter of a node: 64 of its 256 chunks.
  struct Quarter {
    Kiv::U64 children = 0;  // chunks with a node below
    Kiv::U64 changes = 0;   // chunks whose leaf is not the one of the leaf in front
    Kiv::U32 firstNode = 0;
    Kiv::U32 firstLeaf = 0;
  };

  static Kiv::U64 high(Kiv::U64 bits) noexcept { return bits; }
  static Kiv::U64 high(const U128& bits) noexcept { return bits.high(); }
  static unsigned octetAt(Kiv::U64 bits, unsigned depth) noexcept {
    return static_cast<unsigned>(bits >> (56 - depth)) & 255;
  }
  static unsigned octetAt(const U128& bits, unsigned depth) noexcept {
    return octetAt(depth < 64 ? bits.high() : bits.low(), depth % 64);
  }

  /// How many first bits are the same in all routes, as far as the table may leave them out.
  static unsigned commonBits(const Route* at, const Route* end) noexcept {
    unsigned common = kMaxEnd - kStride;
    const Kiv::U64 first = high(at->bits);
    for (; at != end; ++at)
      common = std::min({common, at->len, static_cast<unsigned>(std::countl_zero(high(at->bits) ^ first))});
    return common;
  }

  /// Makes a node of routes that begin with its bits and are longer.
  void fill(std::size_t index, unsigned depth, const Route* const routes, const Route* const end,
            Kiv::U32 inherited) {
    struct Child {
      std::size_t begin = 0;
      std::size_t end = 0;  // 0: no child
    };
    std::array<Kiv::U32, 256> leaf;
    leaf.fill(inherited);
    std::array<Child, 256> child{};
    for (const Route* at = routes; at != end;) {
      const unsigned chunk = octetAt(at->bits, depth);
      if (at->len <= depth + kStride) {
        // Longer prefixes come later, so that they overwrite.
        std::fill_n(leaf.begin() + chunk, std::size_t{1} << (depth + kStride - at->len), at->value);
        ++at;
        continue;
      }
      child[chunk].begin = static_cast<std::size_t>(at - routes);
      while (at != end && octetAt(at->bits, depth) == chunk) ++at;
      child[chunk].end = static_cast<std::size_t>(at - routes);
    }
    const std::size_t firstNode = quarters_.size() / 4;
    std::size_t nextNode = firstNode;
    for (unsigned from = 0; from < 256; from += 64) {
      Quarter quarter;
      quarter.firstNode = static_cast<Kiv::U32>(nextNode);
      quarter.firstLeaf = static_cast<Kiv::U32>(leaves_.size());
      for (unsigned i = 0; i < 64; ++i) {
        if (child[from + i].end != 0) {
          quarter.children |= Kiv::U64{1} << i;
          ++nextNode;
        } else if (quarter.changes == 0 || leaf[from + i] != leaves_.back()) {
          quarter.changes |= Kiv::U64{1} << i;
          leaves_.push_back(leaf[from + i]);
        }
      }
      quarters_[index * 4 + from / 64] = quarter;
    }
    quarters_.resize(nextNode * 4);
    nextNode = firstNode;
    for (unsigned chunk = 0; chunk < 256; ++chunk) {
      const Child& below = child[chunk];
      if (below.end == 0) continue;
      fill(nextNode++, depth + kStride, routes + below.begin, routes + below.end, leaf[chunk]);
    }
  }

  [[gnu::always_inline]] Kiv::U32 rootEntry(const Bits& bits) const noexcept {
    const Kiv::U64 slot = (high(bits) - first_) >> (64 - rootEnd_);
    return slot < root_.size() ? root_[static_cast<std::size_t>(slot)] : outside_;
  }
  [[gnu::always_inline]] const Quarter& quarterOf(const Bits& bits, unsigned depth,
                                                  std::size_t node) const noexcept {
    return quarters_[node * 4 + octetAt(bits, depth) / 64];
  }

  WIRL_POPCNT Kiv::U32 valueByInstruction(const Bits& bits, Kiv::U32 entry) const noexcept {
    return valueBelow<true>(bits, entry);
  }
  template <typename Address, typename Give>
  WIRL_POPCNT void valuesByInstruction(const Address* addresses, std::size_t count, Give give) const {
    valuesIn<true>(addresses, count, give);
  }
  template <bool kInstruction, typename Address, typename Give>
  [[gnu::always_inline]] void valuesIn(const Address* addresses, std::size_t count, Give& give) const {
    constexpr std::size_t kGroup = 16;
    std::array<Kiv::U32, kGroup> entry;
    std::array<Kiv::U32, kGroup> leafAt;
    std::array<unsigned, kGroup> open;
    for (std::size_t at = 0; at < count; at += kGroup) {
      const Address* const group = addresses + at;
      const unsigned size = static_cast<unsigned>(std::min(kGroup, count - at));
      std::size_t opened = 0;
      for (unsigned i = 0; i < size; ++i) {
        entry[i] = rootEntry(trieBits(group[i]));
        open[opened] = i;
        opened += entry[i] >> 31;
      }
      const std::size_t below = opened;
      std::array<unsigned, kGroup> belowRoot = open;
      // One step of all addresses that need one, then the next: they wait for memory together.
      for (unsigned depth = rootEnd_; opened != 0; depth += kStride) {
        for (std::size_t k = 0; k < opened; ++k) {
          const unsigned i = open[k];
          __builtin_prefetch(&quarterOf(trieBits(group[i]), depth, entry[i] & ~kNode));
        }
        std::size_t left = 0;
        for (std::size_t k = 0; k < opened; ++k) {
          const unsigned i = open[k];
          const Bits bits = trieBits(group[i]);
          const Quarter& quarter = quarterOf(bits, depth, entry[i] & ~kNode);
          const unsigned chunk = octetAt(bits, depth) % 64;
          const Kiv::U64 upTo = ~Kiv::U64{0} >> (63 - chunk);
          entry[i] = quarter.firstNode + countBits<kInstruction>(quarter.children & upTo) - 1;
          leafAt[i] = quarter.firstLeaf + countBits<kInstruction>(quarter.changes & upTo) - 1;
          open[left] = i;
          left += quarter.children >> chunk & 1;
        }
        opened = left;
      }
      for (std::size_t k = 0; k < below; ++k) entry[belowRoot[k]] = leaves_[leafAt[belowRoot[k]]];
      for (unsigned i = 0; i < size; ++i) give(at + i, entry[i]);
    }
  }

  template <bool kInstruction>
  [[gnu::always_inline]] Kiv::U32 valueBelow(const Bits& bits, Kiv::U32 entry) const noexcept {
    std::size_t node = entry & ~kNode;
    for (unsigned depth = rootEnd_;; depth += kStride) {
      const Quarter& quarter = quarterOf(bits, depth, node);
      const unsigned chunk = octetAt(bits, depth) % 64;
      const Kiv::U64 upTo = ~Kiv::U64{0} >> (63 - chunk);
      if ((quarter.children >> chunk & 1) == 0)
        return leaves_[quarter.firstLeaf + countBits<kInstruction>(quarter.changes & upTo) - 1];
      node = quarter.firstNode + countBits<kInstruction>(quarter.children & upTo) - 1;
    }
  }

  Kiv::U64 first_ = 0;    // the bits that all routes have in common
  unsigned rootEnd_ = 8;  // the bits of an address up to here give the entry of the root
  Kiv::U32 outside_ = 0;  // the leaf of addresses that do not have those bits
  std::vector<Kiv::U32> root_;
  std::vector<Quarter> quarters_;
  std::vector<Kiv::U32> leaves_;
};

}  // namespace detail

/// A `PrefixMap` made for looking up, which gives the value of the longest match and nothing else. It does
/// not change any more: any number of threads may read it. To replace it while they do, see `LiveTable`.
///
/// Equal values are kept once where `T` has `==` and `std::hash`: so a table of many routes to few next hops
/// stays in the caches. At most 2^31 - 1 different values.
template <typename T, typename P = IpGenPrefix>
class PrefixTable {
 public:
  using Address = detail::AddressOf<P>;

  /// Nothing matches.
  PrefixTable() = default;
  /// A copy of all values; the map is not needed any more. Takes time and memory as the map does.
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

  /// The same for many addresses: `give(index, value)` is called for each in order, with a null value where
  /// nothing matches. Faster than one by one. Of one family only.
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

  /// Octets in use, without what the allocator adds and what values own.
  std::size_t memory() const noexcept { return v4_.memory() + v6_.memory() + values_.capacity() * sizeof(T); }

 private:
  using V4 = detail::PrefixTableOfFamily<Kiv::U64>;
  using V6 = detail::PrefixTableOfFamily<U128>;

  /// Numbers values, equal ones alike.
  class Values {
   public:
    explicit Values(std::vector<T>& all) : all_(all) {}
    Kiv::U32 add(const T& value) {
      if constexpr (kHashed) {
        const auto [at, isNew] = numbers_.try_emplace(value, static_cast<Kiv::U32>(all_.size() + 1));
        if (!isNew) return at->second;
      }
      all_.push_back(value);
      return static_cast<Kiv::U32>(all_.size());
    }

   private:
    static constexpr bool kHashed = requires(const T& value) {
      { std::hash<T>()(value) } -> std::convertible_to<std::size_t>;
      { value == value } -> std::convertible_to<bool>;
    };
    struct None {};

    std::vector<T>& all_;
    [[no_unique_address]] std::conditional_t<kHashed, std::unordered_map<T, Kiv::U32>, None> numbers_;
  };

  Kiv::U32 number(IpAddr address) const noexcept { return v4_.value(detail::trieBits(address)); }
  Kiv::U32 number(const Ip6Addr& address) const noexcept { return v6_.value(detail::trieBits(address)); }
  Kiv::U32 number(const IpGenAddr& address) const noexcept {
    if (address.af() == AddressFamily::ipv4) return number(address.v4Addr());
    return address.af() == AddressFamily::ipv6 ? number(address.v6Addr()) : 0;
  }
  const T* valueOf(Kiv::U32 number) const noexcept { return number == 0 ? nullptr : &values_[number - 1]; }

  V4 v4_;
  V6 v6_;
  std::vector<T> values_;
};

/// A table that one thread replaces while others read it.
///
/// Each reading thread has a `Reader`. Asking it for the table costs one load and one compare while nothing
/// changed; after a change, once, a mutex that is held for the copy of a pointer. Nobody waits while a table
/// is built, and replaced tables are freed by the thread that replaces, never by a reader.
template <typename Table>
class LiveTable {
 public:
  LiveTable() : current_(std::make_shared<const Table>()) {}

  /// Readers see the new table from their next `table()` on. Frees those old ones that no reader holds any
  /// more; the others later. May throw `std::bad_alloc`, and has replaced nothing then. From any thread.
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

  /// How a thread reads; not for several threads at once. Lives no longer than the `LiveTable`.
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
