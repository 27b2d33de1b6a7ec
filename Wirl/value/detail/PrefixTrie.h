// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "Kiv/Types.h"
#include "Wirl/value/U128.h"
#include "Wirl/value/detail/Ip6Grammar.h"

namespace Wirl::detail {

#if defined(__x86_64__) || defined(__i386__)
#define WIRL_POPCNT __attribute__((target("popcnt")))
inline bool hasPopcnt() noexcept {
  return __builtin_cpu_supports("popcnt") != 0;
}
#else
#define WIRL_POPCNT
constexpr bool hasPopcnt() noexcept {
  return true;  // the compiler knows best
}
#endif

/// Number of bits set in `word`. Callers have two forms that inline the same template: one marked
/// WIRL_POPCNT, which uses the instruction, and one for machines without it.
template <bool kInstruction>
[[gnu::always_inline]] constexpr unsigned countBits(Kiv::U64 word) noexcept {
  if constexpr (kInstruction) return static_cast<unsigned>(__builtin_popcountll(word));
  return bitCount(word);
}

// The bits of an address are left-aligned: in a 64-bit word for IPv4, in a `U128` for IPv6. A chunk is the
// six bits from a depth on, which is a multiple of six. Behind the end of the address there are zeros.

constexpr unsigned kStride = 6;

constexpr unsigned chunkOf(Kiv::U64 bits, unsigned depth) noexcept {
  return static_cast<unsigned>(bits >> (58 - depth) & 63);
}
constexpr unsigned chunkOf(const U128& bits, unsigned depth) noexcept {
  if (depth < 60) return chunkOf(bits.high(), depth);
  if (depth == 60) return static_cast<unsigned>((bits.high() << 2 | bits.low() >> 62) & 63);
  return static_cast<unsigned>((depth == 126 ? bits.low() << 4 : bits.low() >> (122 - depth)) & 63);
}
constexpr Kiv::U64 chunkAt(Kiv::U64, unsigned depth, unsigned chunk) noexcept {
  return Kiv::U64{chunk} << (58 - depth);
}
constexpr U128 chunkAt(const U128&, unsigned depth, unsigned chunk) noexcept {
  return depth == 126 ? U128(chunk) >> 4 : U128(chunk) << (122 - depth);
}

/// By chunk, the slots of lengths 1 to 5 that cover it; see `PrefixTrie::Node::shorter`.
inline constexpr auto kCoveringSlots = [] {
  std::array<Kiv::U64, 64> slots{};
  for (unsigned chunk = 0; chunk < 64; ++chunk) {
    for (unsigned len = 1; len < kStride; ++len) {
      slots[chunk] |= Kiv::U64{1} << ((1u << len) - 2 + (chunk >> (kStride - len)));
    }
  }
  return slots;
}();

/// A map from prefixes to values: a trie whose nodes stand for six bits each.
///
/// A node at depth d holds the prefixes of lengths d+1 to d+6 that begin with its bits. Sets of bits say
/// which of these prefixes exist, and which of the 64 nodes below. Values and nodes lie in arrays without
/// gaps; the index of one is the number of bits set before its own. So a step costs one or two cache lines,
/// and a missing prefix no memory.
template <typename T, typename Bits>
class PrefixTrie {
 public:
  static_assert(std::is_nothrow_move_constructible_v<T> && std::is_nothrow_move_assignable_v<T>,
                "arrays of values grow and shrink by moving them");
  static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

  /// A prefix in the trie. `value` is null where there is none.
  struct Found {
    Bits bits{};
    unsigned len = 0;
    T* value = nullptr;
  };

  PrefixTrie() noexcept = default;
  PrefixTrie(PrefixTrie&& other) noexcept { swap(other); }
  PrefixTrie(const PrefixTrie& other) : PrefixTrie() {
    for (Found at = other.next({}, 0, true); at.value; at = other.next(at.bits, at.len, false)) {
      insert(at.bits, at.len, T(*at.value));
    }
  }
  PrefixTrie& operator=(PrefixTrie other) noexcept {
    swap(other);
    return *this;
  }
  ~PrefixTrie() { clear(); }

  std::size_t size() const noexcept { return size_; }
  std::size_t nodes() const noexcept { return nodes_; }

  void clear() noexcept {
    destroy(root_);
    root_ = Node();
    whole_.reset();
    size_ = nodes_ = 0;
  }

  /// Returns the value of the prefix, and whether it is new; an existing prefix keeps its value. May throw
  /// `std::bad_alloc`; the trie then has the same prefixes as before.
  std::pair<T*, bool> insert(const Bits& bits, unsigned len, T&& value) {
    if (len == 0) {
      const bool isNew = !whole_;
      if (isNew) whole_.emplace(std::move(value));
      size_ += isNew;
      return {&*whole_, isNew};
    }
    try {
      return insertBelow(bits, len, std::move(value));
    } catch (...) {
      eraseBelow(root_, 0, bits, len);  // the nodes that were to lead to it
      throw;
    }
  }

  /// Whether the prefix was there.
  bool erase(const Bits& bits, unsigned len) noexcept {
    if (len == 0) {
      const bool was = whole_.has_value();
      whole_.reset();
      size_ -= was;
      return was;
    }
    return eraseBelow(root_, 0, bits, len);
  }

  T* find(const Bits& bits, unsigned len) const noexcept {
    if (len == 0) return whole();
    Node* node = const_cast<Node*>(&root_);
    unsigned depth = 0;
    for (; len > depth + kStride; depth += kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      if (!has(node->children, chunk)) return nullptr;
      node = node->below + rank(node->children, chunk);
    }
    const auto [set, slot] = slotOf(*node, bits, depth, len);
    return has(*set, slot) ? node->values + valueRank(*node, set, slot) : nullptr;
  }

  /// The longest prefix that covers the address; only its value and length are set.
  Found match(const Bits& bits) const noexcept {
    return hasPopcnt() ? matchByInstruction(bits) : matchIn<false>(bits);
  }

  /// The shortest prefix of at least `from` and at most `len` bits that covers the prefix.
  Found covering(const Bits& bits, unsigned len, unsigned from) const noexcept {
    if (from == 0 && whole_) return {Bits{}, 0, whole()};
    Node* node = const_cast<Node*>(&root_);
    for (unsigned depth = 0;; depth += kStride) {
      for (unsigned at = std::max(from, depth + 1); at <= std::min(len, depth + kStride); ++at) {
        const auto [set, slot] = slotOf(*node, bits, depth, at);
        if (has(*set, slot)) return {bits, at, node->values + valueRank(*node, set, slot)};
      }
      const unsigned chunk = len > depth + kStride ? chunkOf(bits, depth) : 0;
      if (len <= depth + kStride || !has(node->children, chunk)) return {};
      node = node->below + rank(node->children, chunk);
    }
  }

  /// The first prefix behind the given one, or that one itself if `orThis` and it exists. Ordered by address;
  /// of prefixes with the same address the shorter comes first.
  Found next(const Bits& bits, unsigned len, bool orThis) const noexcept {
    if (len == 0 && orThis && whole_) return {Bits{}, 0, whole()};
    return len == 0 ? firstIn(const_cast<Node&>(root_), 0, Bits{})
                    : nextIn(const_cast<Node&>(root_), 0, Bits{}, bits, len, orThis);
  }

  /// Octets of memory in use, without what the allocator adds and what values own.
  std::size_t memory() const noexcept { return nodes_ * sizeof(Node) + size_ * sizeof(T); }

  void swap(PrefixTrie& other) noexcept {
    std::swap(root_, other.root_);
    std::swap(whole_, other.whole_);
    std::swap(size_, other.size_);
    std::swap(nodes_, other.nodes_);
  }

 private:
  struct Node {
    Kiv::U64 children = 0;  // by chunk
    Kiv::U64 longest = 0;   // by chunk: the prefixes of six bits
    Kiv::U64 shorter = 0;   // those of one to five bits, the shortest ones lowest: 2 + 4 + 8 + 16 + 32
    Node* below = nullptr;
    T* values = nullptr;  // of `shorter`, then of `longest`
  };

  static constexpr bool has(Kiv::U64 set, unsigned i) noexcept { return (set >> i & 1) != 0; }
  static constexpr Kiv::U64 below(Kiv::U64 set, unsigned i) noexcept {
    return set & ((Kiv::U64{1} << i) - 1);
  }
  static constexpr unsigned rank(Kiv::U64 set, unsigned i) noexcept {
    return countBits<false>(below(set, i));
  }

  struct Slot {
    Kiv::U64* set;
    unsigned index;
  };
  static Slot slotOf(Node& node, const Bits& bits, unsigned depth, unsigned len) noexcept {
    const unsigned chunk = chunkOf(bits, depth);
    const unsigned own = len - depth;
    if (own == kStride) return {&node.longest, chunk};
    return {&node.shorter, (1u << own) - 2 + (chunk >> (kStride - own))};
  }
  static unsigned valueRank(const Node& node, const Kiv::U64* set, unsigned slot) noexcept {
    return rank(*set, slot) + (set == &node.longest ? countBits<false>(node.shorter) : 0);
  }
  static unsigned valueCount(const Node& node) noexcept {
    return countBits<false>(node.shorter) + countBits<false>(node.longest);
  }

  T* whole() const noexcept { return whole_ ? const_cast<T*>(&*whole_) : nullptr; }

  /// Moves the array into a new one with one more element, and frees the old one.
  template <typename E>
  static E* inserted(E* old, unsigned count, unsigned at, E&& element) {
    auto* const grown = static_cast<E*>(::operator new((count + 1) * sizeof(E)));
    std::uninitialized_move_n(old, at, grown);
    new (grown + at) E(std::move(element));
    std::uninitialized_move_n(old + at, count - at, grown + at + 1);
    release(old, count);
    return grown;
  }
  /// Removes an element in place, which needs no memory.
  template <typename E>
  static void removed(E*& array, unsigned count, unsigned at) noexcept {
    std::move(array + at + 1, array + count, array + at);
    std::destroy_at(array + count - 1);
    if (count == 1) release(std::exchange(array, nullptr), 0);
  }
  template <typename E>
  static void release(E* array, unsigned count) noexcept {
    std::destroy_n(array, count);
    ::operator delete(array);
  }
  static void destroy(Node& node) noexcept {
    const unsigned count = countBits<false>(node.children);
    for (unsigned i = 0; i < count; ++i) destroy(node.below[i]);
    release(node.below, count);
    release(node.values, valueCount(node));
  }

  std::pair<T*, bool> insertBelow(const Bits& bits, unsigned len, T&& value) {
    Node* node = &root_;
    unsigned depth = 0;
    for (; len > depth + kStride; depth += kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      const unsigned at = rank(node->children, chunk);
      if (!has(node->children, chunk)) {
        node->below = inserted(node->below, countBits<false>(node->children), at, Node());
        node->children |= Kiv::U64{1} << chunk;
        ++nodes_;
      }
      node = node->below + at;
    }
    const auto [set, slot] = slotOf(*node, bits, depth, len);
    const unsigned at = valueRank(*node, set, slot);
    if (has(*set, slot)) return {node->values + at, false};
    node->values = inserted(node->values, valueCount(*node), at, std::move(value));
    *set |= Kiv::U64{1} << slot;
    ++size_;
    return {node->values + at, true};
  }

  /// Removes nodes that become empty: the search for the next prefix relies on finding one in every node.
  bool eraseBelow(Node& node, unsigned depth, const Bits& bits, unsigned len) noexcept {
    if (len > depth + kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      if (!has(node.children, chunk)) return false;
      const unsigned at = rank(node.children, chunk);
      Node& child = node.below[at];
      const bool erased = eraseBelow(child, depth + kStride, bits, len);
      if ((child.children | child.longest | child.shorter) == 0) {
        removed(node.below, countBits<false>(node.children), at);
        node.children &= ~(Kiv::U64{1} << chunk);
        --nodes_;
      }
      return erased;
    }
    const auto [set, slot] = slotOf(node, bits, depth, len);
    if (!has(*set, slot)) return false;
    removed(node.values, valueCount(node), valueRank(node, set, slot));
    *set &= ~(Kiv::U64{1} << slot);
    --size_;
    return true;
  }

  WIRL_POPCNT Found matchByInstruction(const Bits& bits) const noexcept { return matchIn<true>(bits); }

  template <bool kInstruction>
  [[gnu::always_inline]] Found matchIn(const Bits& bits) const noexcept {
    const Node* node = &root_;
    const Node* best = nullptr;
    unsigned bestDepth = 0;
    for (unsigned depth = 0;; depth += kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      if (((node->longest >> chunk & 1) | (node->shorter & kCoveringSlots[chunk])) != 0) {
        best = node;
        bestDepth = depth;
      }
      if (!has(node->children, chunk)) break;
      node = node->below + countBits<kInstruction>(below(node->children, chunk));
    }
    if (!best) return {Bits{}, 0, whole()};
    const unsigned chunk = chunkOf(bits, bestDepth);
    if (has(best->longest, chunk)) {
      const unsigned at =
          countBits<kInstruction>(best->shorter) + countBits<kInstruction>(below(best->longest, chunk));
      return {Bits{}, bestDepth + kStride, best->values + at};
    }
    const auto slot = static_cast<unsigned>(63 - std::countl_zero(best->shorter & kCoveringSlots[chunk]));
    const auto own = static_cast<unsigned>(std::bit_width(slot + 2) - 1);
    return {Bits{}, bestDepth + own, best->values + countBits<kInstruction>(below(best->shorter, slot))};
  }

  /// A chunk, and what begins there: a prefix of `level` bits, or the node below (7), which comes after them.
  struct Place {
    unsigned chunk = 64;  // nowhere
    unsigned level = 0;
  };
  static constexpr unsigned kBelow = kStride + 1;

  static Place placeBehind(const Node& node, unsigned chunk, unsigned level) noexcept {
    Place best;
    for (unsigned at = 1; at <= kBelow; ++at) {
      const unsigned shift = at < kStride ? kStride - at : 0;
      const unsigned from = (chunk + (at <= level ? 1 : 0) + (1u << shift) - 1) >> shift;
      if (from > 63) continue;
      Kiv::U64 set = at == kBelow ? node.children : node.longest;
      if (at < kStride) set = node.shorter >> ((1u << at) - 2) & ((Kiv::U64{1} << (1u << at)) - 1);
      set &= ~Kiv::U64{0} << from;
      if (set == 0) continue;
      const auto found = static_cast<unsigned>(std::countr_zero(set)) << shift;
      if (found < best.chunk) best = {found, at};
    }
    return best;
  }

  static Found behind(Node& node, unsigned depth, const Bits& path, unsigned chunk, unsigned level) noexcept {
    const Place place = placeBehind(node, chunk, level);
    if (place.chunk == 64) return {};
    const Bits bits = path | chunkAt(path, depth, place.chunk);
    if (place.level == kBelow) {
      return firstIn(node.below[rank(node.children, place.chunk)], depth + kStride, bits);
    }
    const auto [set, slot] = slotOf(node, bits, depth, depth + place.level);
    return {bits, depth + place.level, node.values + valueRank(node, set, slot)};
  }
  static Found firstIn(Node& node, unsigned depth, const Bits& path) noexcept {
    return behind(node, depth, path, 0, 0);
  }
  static Found nextIn(Node& node, unsigned depth, const Bits& path, const Bits& bits, unsigned len,
                      bool orThis) noexcept {
    const unsigned chunk = chunkOf(bits, depth);
    if (len <= depth + kStride) return behind(node, depth, path, chunk, len - depth - (orThis ? 1 : 0));
    if (has(node.children, chunk)) {
      const Found found = nextIn(node.below[rank(node.children, chunk)], depth + kStride,
                                 path | chunkAt(path, depth, chunk), bits, len, orThis);
      if (found.value) return found;
    }
    return behind(node, depth, path, chunk, kBelow);
  }

  Node root_;
  std::optional<T> whole_;  // of the prefix of length 0
  std::size_t size_ = 0;
  std::size_t nodes_ = 0;
};

}  // namespace Wirl::detail
