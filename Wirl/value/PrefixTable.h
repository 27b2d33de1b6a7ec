// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
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

/// Longest match by reading only: a table of the first bits, then nodes for six bits each.
///
/// An entry of the table or of a node is a leaf, the number of a value, or a node. Every address ends in a
/// leaf, so that no step looks back. Equal leaves side by side are kept once. Two cache lines or three answer
/// most addresses.
template <typename Bits>
class PrefixTableOfFamily {
 public:
  /// One prefix: the number of its value is above 0, the leaf of nothing.
  struct Route {
    Bits bits;
    unsigned len;
    Kiv::U32 value;
  };

  /// `routes` in the order of `PrefixMap`.
  void build(const std::vector<Route>& routes) {
    // Small tables keep a small root: at most some entries for each route.
    const std::size_t count = routes.size();
    rootBits_ = kStride * (count < 64 ? 1 : count < 4096 ? 2 : count < 1 << 17 ? 3 : 4);
    root_.assign(std::size_t{1} << rootBits_, 0);
    for (std::size_t at = 0; at < routes.size();) {
      const Route& route = routes[at];
      const std::size_t slot = rootSlot(route.bits);
      if (route.len <= rootBits_) {
        std::fill_n(root_.begin() + static_cast<std::ptrdiff_t>(slot),
                    std::size_t{1} << (rootBits_ - route.len), route.value);
        ++at;
        continue;
      }
      std::size_t end = at + 1;
      while (end < routes.size() && rootSlot(routes[end].bits) == slot) ++end;
      const Kiv::U32 inherited = root_[slot];
      root_[slot] = kNode | static_cast<Kiv::U32>(nodes_.size());
      nodes_.emplace_back();
      fill(nodes_.size() - 1, rootBits_, routes.data() + at, routes.data() + end, inherited);
      at = end;
    }
    nodes_.shrink_to_fit();
    leaves_.shrink_to_fit();
  }

  Kiv::U32 value(const Bits& bits) const noexcept {
    if (const Kiv::U32 entry = root_[rootSlot(bits)]; (entry & kNode) == 0) return entry;
    return hasPopcnt() ? valueByInstruction(bits) : valueIn<false>(bits);
  }
  /// For many addresses: the machine is asked once what it can do, and the steps of several addresses
  /// overlap.
  template <typename Address, typename Give>
  void values(const Address* addresses, std::size_t count, Give give) const {
    hasPopcnt() ? valuesByInstruction(addresses, count, give) : valuesIn<false>(addresses, count, give);
  }

  std::size_t memory() const noexcept {
    return root_.capacity() * sizeof(Kiv::U32) + nodes_.capacity() * sizeof(Node) +
           leaves_.capacity() * sizeof(Kiv::U32);
  }

 private:
  static constexpr Kiv::U32 kNode = 0x8000'0000;

  struct Node {
    Kiv::U64 children = 0;  // chunks with a node below
    Kiv::U64 changes = 0;   // chunks whose leaf is not the one of the leaf in front
    Kiv::U32 firstNode = 0;
    Kiv::U32 firstLeaf = 0;
  };

  std::size_t rootSlot(Kiv::U64 bits) const noexcept {
    return static_cast<std::size_t>(bits >> (64 - rootBits_));
  }
  std::size_t rootSlot(const U128& bits) const noexcept { return rootSlot(bits.high()); }

  /// Makes a node of routes that begin with its bits and are longer.
  void fill(std::size_t index, unsigned depth, const Route* at, const Route* end, Kiv::U32 inherited) {
    struct Child {
      const Route* begin;
      const Route* end;
      Kiv::U32 inherited;
    };
    std::array<Kiv::U32, 64> leaf;
    leaf.fill(inherited);
    std::array<Child, 64> child;
    Node node;
    while (at != end) {
      const unsigned chunk = chunkOf(at->bits, depth);
      if (at->len <= depth + kStride) {
        // Longer prefixes come later, so that they overwrite.
        std::fill_n(leaf.begin() + chunk, std::size_t{1} << (depth + kStride - at->len), at->value);
        ++at;
        continue;
      }
      const Route* const begin = at;
      while (at != end && chunkOf(at->bits, depth) == chunk) ++at;
      node.children |= Kiv::U64{1} << chunk;
      child[chunk] = {begin, at, leaf[chunk]};
    }
    node.firstNode = static_cast<Kiv::U32>(nodes_.size());
    node.firstLeaf = static_cast<Kiv::U32>(leaves_.size());
    for (unsigned chunk = 0; chunk < 64; ++chunk) {
      if ((node.children >> chunk & 1) != 0) continue;
      if (node.changes != 0 && leaf[chunk] == leaves_.back()) continue;
      node.changes |= Kiv::U64{1} << chunk;
      leaves_.push_back(leaf[chunk]);
    }
    nodes_.resize(nodes_.size() + countBits<false>(node.children));
    nodes_[index] = node;
    std::size_t next = node.firstNode;
    for (Kiv::U64 left = node.children; left != 0; left &= left - 1) {
      const Child& below = child[static_cast<std::size_t>(std::countr_zero(left))];
      fill(next++, depth + kStride, below.begin, below.end, below.inherited);
    }
  }

  WIRL_POPCNT Kiv::U32 valueByInstruction(const Bits& bits) const noexcept { return valueIn<true>(bits); }
  template <typename Address, typename Give>
  WIRL_POPCNT void valuesByInstruction(const Address* addresses, std::size_t count, Give give) const {
    valuesIn<true>(addresses, count, give);
  }
  template <bool kInstruction, typename Address, typename Give>
  [[gnu::always_inline]] void valuesIn(const Address* addresses, std::size_t count, Give& give) const {
    for (std::size_t i = 0; i < count; ++i) give(i, valueIn<kInstruction>(trieBits(addresses[i])));
  }

  template <bool kInstruction>
  [[gnu::always_inline]] Kiv::U32 valueIn(const Bits& bits) const noexcept {
    Kiv::U32 entry = root_[rootSlot(bits)];
    if ((entry & kNode) == 0) return entry;
    std::size_t index = entry & ~kNode;
    for (unsigned depth = rootBits_;; depth += kStride) {
      const Node& node = nodes_[index];
      const unsigned chunk = chunkOf(bits, depth);
      const Kiv::U64 upTo = ~Kiv::U64{0} >> (63 - chunk);
      if ((node.children >> chunk & 1) == 0) {
        return leaves_[node.firstLeaf + countBits<kInstruction>(node.changes & upTo) - 1];
      }
      index = node.firstNode + countBits<kInstruction>(node.children & upTo) - 1;
    }
  }

  unsigned rootBits_ = kStride;
  std::vector<Kiv::U32> root_ = std::vector<Kiv::U32>(std::size_t{1} << kStride);
  std::vector<Node> nodes_;
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
