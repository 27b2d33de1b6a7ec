// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstddef>
#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/detail/PrefixTrie.h"

namespace Wirl {

namespace detail {

constexpr Kiv::U64 trieBits(IpAddr address) noexcept {
  return Kiv::U64{address.hostOrder()} << 32;
}
constexpr U128 trieBits(const Ip6Addr& address) noexcept {
  return address.number();
}
constexpr Prefix prefixOf(Kiv::U64 bits, unsigned len) noexcept {
  return Prefix(IpAddr::fromHostOrder(static_cast<Kiv::U32>(bits >> 32)).maskedByLength(len), len);
}
constexpr Ip6Prefix prefixOf(const U128& bits, unsigned len) noexcept {
  return Ip6Prefix(Ip6Addr::withNumber(bits).maskedByLength(len), len);
}

template <typename P>
using AddressOf = std::remove_cvref_t<decltype(std::declval<const P&>().baseAddress())>;

/// The map of one family.
template <typename T, typename P>
class PrefixMapOfFamily {
 public:
  using Bits = decltype(trieBits(AddressOf<P>()));
  using Found = typename PrefixTrie<T, Bits>::Found;

  std::pair<T*, bool> insert(const P& key, T&& value) {
    return trie_.insert(trieBits(key.address()), key.len(), std::move(value));
  }
  bool erase(const P& key) noexcept { return trie_.erase(trieBits(key.address()), key.len()); }
  T* find(const P& key) const noexcept { return trie_.find(trieBits(key.address()), key.len()); }
  /// `found` gives the prefix in its address and length.
  template <typename Result>
  Result match(const AddressOf<P>& address) const noexcept {
    const Found found = trie_.match(trieBits(address));
    return found.value ? Result{prefixOf(trieBits(address), found.len), found.value} : Result{P(), nullptr};
  }
  template <typename Result>
  Result next(const P& key, bool orThis) const noexcept {
    const Found found = trie_.next(trieBits(key.address()), key.len(), orThis);
    return {prefixOf(found.bits, found.len), found.value};
  }
  template <typename Result>
  Result covering(const P& key, unsigned from) const noexcept {
    const Found found = trie_.covering(trieBits(key.address()), key.len(), from);
    return {prefixOf(found.bits, found.len), found.value};
  }
  std::size_t size() const noexcept { return trie_.size(); }
  std::size_t memory() const noexcept { return trie_.memory(); }
  void clear() noexcept { trie_.clear(); }
  static P first() noexcept { return P(); }

 private:
  PrefixTrie<T, Bits> trie_;
};

/// One map of each family behind the interface of one.
template <typename T>
class PrefixMapOfBoth {
 public:
  std::pair<T*, bool> insert(const IpGenPrefix& key, T&& value) {
    return isV4(key) ? v4_.insert(key.v4Prefix(), std::move(value))
                     : v6_.insert(key.v6Prefix(), std::move(value));
  }
  bool erase(const IpGenPrefix& key) noexcept {
    return isV4(key) ? v4_.erase(key.v4Prefix()) : v6_.erase(key.v6Prefix());
  }
  T* find(const IpGenPrefix& key) const noexcept {
    return isV4(key) ? v4_.find(key.v4Prefix()) : v6_.find(key.v6Prefix());
  }
  template <typename Result>
  Result match(const IpGenAddr& address) const noexcept {
    if (address.af() == AddressFamily::ipv4) return v4_.template match<Result>(address.v4Addr());
    return address.af() == AddressFamily::ipv6 ? v6_.template match<Result>(address.v6Addr()) : Result{};
  }
  template <typename Result>
  Result next(const IpGenPrefix& key, bool orThis) const noexcept {
    if (!isV4(key)) return v6_.template next<Result>(key.v6Prefix(), orThis);
    const Result result = v4_.template next<Result>(key.v4Prefix(), orThis);
    return result.value ? result : v6_.template next<Result>(Ip6Prefix(), true);
  }
  template <typename Result>
  Result covering(const IpGenPrefix& key, unsigned from) const noexcept {
    return isV4(key) ? v4_.template covering<Result>(key.v4Prefix(), from)
                     : v6_.template covering<Result>(key.v6Prefix(), from);
  }
  std::size_t size() const noexcept { return v4_.size() + v6_.size(); }
  std::size_t memory() const noexcept { return v4_.memory() + v6_.memory(); }
  void clear() noexcept {
    v4_.clear();
    v6_.clear();
  }
  static IpGenPrefix first() noexcept { return Prefix(); }

 private:
  static bool isV4(const IpGenPrefix& key) noexcept { return key.af() == AddressFamily::ipv4; }

  PrefixMapOfFamily<T, Prefix> v4_;
  PrefixMapOfFamily<T, Ip6Prefix> v6_;
};

}  // namespace detail

/// A map from prefixes to values: a routing table. `P` is `Prefix`, `Ip6Prefix`, or `IpGenPrefix` for both
/// families.
///
/// Ordered by family, then by address, then by length, the shorter first: a prefix comes right before those
/// that it covers. This holds whatever the order of `P` is. Keys must be valid prefixes. With others, members
/// that change the map throw `Kiv::RangeException`, and members that search find nothing.
///
/// An iterator is a position in that order, not a place in memory. It stays valid when prefixes are inserted
/// or erased, even its own; it becomes invalid when the map is assigned to or moved. Dereferencing it ends
/// the process if its prefix is not in the map. Pointers and references to values are valid until the next
/// change, or insertion that throws. Only insertions and copies allocate; an insertion that throws
/// `std::bad_alloc` leaves the map with the same prefixes and values. `T` must move without exceptions.
///
/// Threads: as a standard container. For readers in other threads see `PrefixTable`.
template <typename T, typename P = IpGenPrefix>
class PrefixMap {
  using Map = std::conditional_t<std::same_as<P, IpGenPrefix>, detail::PrefixMapOfBoth<T>,
                                 detail::PrefixMapOfFamily<T, P>>;

 public:
  using Address = detail::AddressOf<P>;  ///< The address that belongs to the prefix.

  /// The result of a look-up; `value` is null if nothing was found.
  template <typename Value>
  struct Result {
    P key;
    Value* value = nullptr;

    explicit operator bool() const noexcept { return value != nullptr; }
    Value& operator*() const noexcept { return *value; }
    Value* operator->() const noexcept { return value; }
  };
  /// An element, as in `for (auto [prefix, value] : map)`.
  template <typename Value>
  struct Entry {
    P key;
    Value& value;
  };

  /// Returns the value of the prefix, and whether it is new. An existing prefix keeps its value.
  std::pair<T*, bool> insert(const P& key, T value) {
    check(key);
    ++changes_;  // in any case: an insertion that fails may have moved values
    return map_.insert(key, std::move(value));
  }
  /// Inserts, or replaces the value.
  T& insertOrAssign(const P& key, T value) {
    check(key);
    if (T* const old = map_.find(key)) return *old = std::move(value);
    return *insert(key, std::move(value)).first;
  }
  /// True when the prefix was there.
  bool erase(const P& key) noexcept {
    const bool erased = isKey(key) && map_.erase(key);
    changes_ += erased;
    return erased;
  }
  void clear() noexcept {
    map_.clear();
    ++changes_;
  }

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return size() == 0; }
  /// Octets of memory in use, without the allocator's overhead and without memory that values own.
  std::size_t memory() const noexcept { return map_.memory(); }

  /// The value of exactly this prefix, or null.
  T* find(const P& key) noexcept { return isKey(key) ? map_.find(key) : nullptr; }
  const T* find(const P& key) const noexcept { return isKey(key) ? map_.find(key) : nullptr; }
  /// The longest prefix that contains the address.
  Result<T> longestMatch(const Address& address) noexcept { return map_.template match<Result<T>>(address); }
  Result<const T> longestMatch(const Address& address) const noexcept {
    return map_.template match<Result<const T>>(address);
  }

  template <typename Value>
  class Iterator {
    /// What `->` needs of an element that is no object in memory.
    struct Arrow {
      Entry<Value> entry;
      Entry<Value>* operator->() noexcept { return &entry; }
    };

   public:
    using value_type = Entry<Value>;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::forward_iterator_tag;

    Iterator() noexcept = default;
    /// To `const_iterator`.
    operator Iterator<const Value>() const noexcept requires(!std::is_const_v<Value>) {
      Iterator<const Value> same;
      same.map_ = map_;
      same.at_ = {at_.key, at_.value};
      same.within_ = within_;
      same.changes_ = changes_;
      return same;
    }
    Arrow operator->() const noexcept { return {**this}; }
    Entry<Value> operator*() const noexcept {
      Value* const value = current();
      KIV_ASSERT_AS(value, "the prefix is in the map");
      return {at_.key, *value};
    }
    Iterator& operator++() noexcept {
      *this = Iterator(map_, map_->map_.template next<Result<Value>>(at_.key, false), within_);
      return *this;
    }
    Iterator operator++(int) noexcept {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
      return !a.at_.value || !b.at_.value ? !a.at_.value && !b.at_.value : a.at_.key == b.at_.key;
    }

   private:
    friend PrefixMap;
    template <typename>
    friend class Iterator;
    Iterator(const PrefixMap* map, const Result<Value>& at, const std::optional<P>& within) noexcept
        : map_(map), at_(at), within_(within), changes_(map->changes_) {
      if (at_ && within_ && !within_->contains(at_.key)) at_.value = nullptr;
    }
    Value* current() const noexcept {
      return !map_ || changes_ == map_->changes_ ? at_.value : map_->map_.find(at_.key);
    }

    const PrefixMap* map_ = nullptr;
    Result<Value> at_;
    std::optional<P> within_;
    std::size_t changes_ = 0;
  };
  using iterator = Iterator<T>;
  using const_iterator = Iterator<const T>;

  /// Removes the element; returns the position behind it.
  iterator erase(iterator at) noexcept {
    const P key = (*at).key;
    ++at;
    erase(key);
    return at;
  }

  iterator begin() noexcept { return from<T>(Map::first(), true, {}); }
  iterator end() noexcept { return {}; }
  const_iterator begin() const noexcept { return from<const T>(Map::first(), true, {}); }
  const_iterator end() const noexcept { return {}; }
  /// From the first prefix that is not before (behind) the key.
  iterator lowerBound(const P& key) noexcept { return from<T>(key, true, {}); }
  iterator upperBound(const P& key) noexcept { return from<T>(key, false, {}); }
  const_iterator lowerBound(const P& key) const noexcept { return from<const T>(key, true, {}); }
  const_iterator upperBound(const P& key) const noexcept { return from<const T>(key, false, {}); }

  /// A part of the map.
  template <typename At>
  class Range {
   public:
    explicit Range(const At& begin) noexcept : begin_(begin) {}  ///< All from there on.
    At begin() const noexcept { return begin_; }
    At end() const noexcept { return {}; }
    bool empty() const noexcept { return begin_ == At(); }

   private:
    At begin_;
  };
  /// All prefixes that the key contains, itself included, in order.
  Range<iterator> covered(const P& key) noexcept { return Range<iterator>(from<T>(key, true, key)); }
  Range<const_iterator> covered(const P& key) const noexcept {
    return Range<const_iterator>(from<const T>(key, true, key));
  }

  /// Calls `visit(prefix, value)` for every prefix that contains the key, itself included, the shortest
  /// first. `visit` must not change the map.
  template <typename Visit>
  void covering(const P& key, Visit visit) const {
    if (!isKey(key)) return;
    for (unsigned from = 0;;) {
      const auto at = map_.template covering<Result<const T>>(key, from);
      if (!at) return;
      visit(at.key, *at);
      from = at.key.len() + 1;
    }
  }

 private:
  static constexpr bool isKey(const P& key) noexcept {
    return key.validAsPrefix() && key.len() <= key.baseAddress().bits();
  }
  static constexpr void check(const P& key) {
    if (!isKey(key)) detail::throwRange("Invalid PrefixMap key");
  }
  template <typename Value>
  Iterator<Value> from(const P& key, bool orThis, const std::optional<P>& within) const noexcept {
    if (!isKey(key)) return {};
    return Iterator<Value>(this, map_.template next<Result<Value>>(key, orThis), within);
  }

  Map map_;
  std::size_t changes_ = 0;
};

}  // namespace Wirl
