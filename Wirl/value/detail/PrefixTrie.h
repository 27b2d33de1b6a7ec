// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
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
#define WIRL_BIT_INSTRUCTIONS __attribute__((target("popcnt,bmi,bmi2")))
inline bool hasBitInstructions() noexcept {
  return __builtin_cpu_supports("bmi2") != 0;  // processors that have it have the others
}
#else
#define WIRL_BIT_INSTRUCTIONS
constexpr bool hasBitInstructions() noexcept {
  return true;  // the compiler knows best
}
#endif

/// Number of bits set in `word`. Callers have two forms that inline the same template: one marked
/// WIRL_BIT_INSTRUCTIONS, which uses the instruction, and one for machines without it.
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

/// What a node has to say about the chunks between the node above and itself: nothing for IPv4, whose paths
/// are too short for gaps.
template <typename Bits>
class TrieGap {
 public:
  static constexpr unsigned kMost = 0;
  static constexpr unsigned count() noexcept { return 0; }

  constexpr bool fits(const Bits&, unsigned) const noexcept { return true; }
  constexpr unsigned common(const Bits&, unsigned) const noexcept { return 0; }
  constexpr Bits placed(unsigned) const noexcept { return Bits(); }
  constexpr unsigned chunk(unsigned) const noexcept { return 0; }
  constexpr void copyFrom(const Bits&, unsigned, unsigned) noexcept {}
  constexpr TrieGap first(unsigned) const noexcept { return {}; }
  constexpr TrieGap behind(unsigned) const noexcept { return {}; }
  constexpr TrieGap with(unsigned, const TrieGap&) const noexcept { return {}; }
};
/// For IPv6: chunks in which all prefixes below are equal. `from` is the depth of the first one.
template <>
class TrieGap<U128> {
 public:
  static constexpr unsigned kMost = 60 / kStride;

  constexpr TrieGap() noexcept = default;
  unsigned count() const noexcept { return static_cast<unsigned>(word_ >> 60); }

  bool fits(const U128& address, unsigned from) const noexcept {
    return taken(address, from, count()) == bits();
  }
  /// How many chunks from the first one on are those of the address.
  unsigned common(const U128& address, unsigned from) const noexcept {
    if (count() == 0) return 0;
    const Kiv::U64 differing = (taken(address, from, count()) ^ bits()) << (64 - kStride * count());
    return std::min(count(), static_cast<unsigned>(std::countl_zero(differing)) / kStride);
  }
  U128 placed(unsigned from) const noexcept { return U128(bits()) << (128 - from - kStride * count()); }
  unsigned chunk(unsigned i) const noexcept {
    return static_cast<unsigned>(bits() >> kStride * (count() - 1 - i) & 63);
  }
  void copyFrom(const U128& address, unsigned from, unsigned chunks) noexcept {
    *this = TrieGap(taken(address, from, chunks), chunks);
  }
  TrieGap first(unsigned chunks) const noexcept {
    return TrieGap(bits() >> kStride * (count() - chunks), chunks);
  }
  /// What comes behind chunk `i`.
  TrieGap behind(unsigned i) const noexcept {
    const unsigned rest = count() - i - 1;
    return TrieGap(bits() & ((Kiv::U64{1} << kStride * rest) - 1), rest);
  }
  /// Followed by a chunk and by another gap; there are at most `kMost` together.
  TrieGap with(unsigned chunk, const TrieGap& other) const noexcept {
    return TrieGap(((bits() << kStride | chunk) << kStride * other.count()) | other.bits(),
                   count() + 1 + other.count());
  }

 private:
  TrieGap(Kiv::U64 bits, unsigned count) noexcept : word_(bits | Kiv::U64{count} << 60) {}
  Kiv::U64 bits() const noexcept { return word_ & ((Kiv::U64{1} << 60) - 1); }
  /// Without a branch for no chunks, which nobody could foretell.
  static Kiv::U64 taken(const U128& address, unsigned from, unsigned chunks) noexcept {
    const Kiv::U64 word =
        from < 64 ? address.high() << from | address.low() >> 1 >> (63 - from) : address.low() << (from - 64);
    return word >> 1 >> (63 - kStride * chunks);
  }

  Kiv::U64 word_ = 0;  // the count in the highest four bits
};

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
///
/// Where IPv6 prefixes would need a chain of nodes that hold nothing but the next one, there are no nodes:
/// the first one behind such a gap has the bits in between.
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
    while (len > depth + kStride) {
      node = childTo(*node, depth, bits, len);
      if (!node) return nullptr;
    }
    const auto [set, slot] = slotOf(*node, bits, depth, len);
    return has(*set, slot) ? valuesOf(*node) + valueRank(*node, set, slot) : nullptr;
  }

  /// The longest prefix that covers the address; only its value and length are set.
  Found match(const Bits& bits) const noexcept {
    return hasBitInstructions() ? matchByInstruction(bits) : matchIn<false>(bits);
  }

  /// The shortest prefix of at least `from` and at most `len` bits that covers the prefix.
  Found covering(const Bits& bits, unsigned len, unsigned from) const noexcept {
    if (from == 0 && whole_) return {Bits{}, 0, whole()};
    Node* node = const_cast<Node*>(&root_);
    for (unsigned depth = 0; node;) {
      for (unsigned at = std::max(from, depth + 1); at <= std::min(len, depth + kStride); ++at) {
        const auto [set, slot] = slotOf(*node, bits, depth, at);
        if (has(*set, slot)) return {bits, at, valuesOf(*node) + valueRank(*node, set, slot)};
      }
      node = len > depth + kStride ? childTo(*node, depth, bits, len) : nullptr;
    }
    return {};
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
  using Gap = TrieGap<Bits>;

  /// A single value that is no larger than a pointer stands in the place of one.
  static constexpr bool kHasSingle = std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(T*);
  union Values {
    T* array = nullptr;
    std::conditional_t<kHasSingle, T, char> single;
  };

  struct Node {
    Kiv::U64 children = 0;  // by chunk
    Kiv::U64 longest = 0;   // by chunk: the prefixes of six bits
    Kiv::U64 shorter = 0;   // those of one to five bits, the shortest ones lowest: 2 + 4 + 8 + 16 + 32
    Node* below = nullptr;
    Values values;                  // of `shorter`, then of `longest`
    [[no_unique_address]] Gap gap;  // in front of it
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
  [[gnu::always_inline]] static T* valuesOf(const Node& node) noexcept {
    if constexpr (kHasSingle) {
      const bool isSingle = node.shorter == 0 ? std::has_single_bit(node.longest)
                                              : std::has_single_bit(node.shorter) && node.longest == 0;
      if (isSingle) return const_cast<T*>(&node.values.single);
    }
    return node.values.array;
  }
  /// Puts a value into its place, of `count` that the node has. Its bit is not set yet.
  static void addValue(Node& node, unsigned count, unsigned at, T&& value) {
    if constexpr (kHasSingle) {
      if (count == 0) return void(node.values.single = value);
      if (count == 1) {
        auto* const two = static_cast<T*>(::operator new(2 * sizeof(T)));
        new (two + at) T(value);
        new (two + 1 - at) T(node.values.single);
        node.values.array = two;
        return;
      }
    }
    node.values.array = inserted(node.values.array, count, at, std::move(value));
  }
  /// Takes the value out, of `count`. Its bit is still set.
  static void removeValue(Node& node, unsigned count, unsigned at) noexcept {
    if constexpr (kHasSingle) {
      if (count == 1) return;
      if (count == 2) {
        const T other = node.values.array[1 - at];
        release(node.values.array, count);
        node.values.single = other;
        return;
      }
    }
    removed(node.values.array, count, at);
  }

  /// The node below on the way to a prefix, and `depth` becomes its depth; null where there is none, or one
  /// only behind or beside the prefix.
  static Node* childTo(const Node& node, unsigned& depth, const Bits& bits, unsigned len) noexcept {
    const unsigned chunk = chunkOf(bits, depth);
    if (!has(node.children, chunk)) return nullptr;
    Node& child = node.below[rank(node.children, chunk)];
    const unsigned from = depth + kStride;
    depth = from + kStride * child.gap.count();
    return len > depth && child.gap.fits(bits, from) ? &child : nullptr;
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
    const unsigned values = valueCount(node);
    if (values > (kHasSingle ? 1 : 0)) release(node.values.array, values);
  }

  std::pair<T*, bool> insertBelow(const Bits& bits, unsigned len, T&& value) {
    Node* node = &root_;
    unsigned depth = 0;
    while (len > depth + kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      const unsigned at = rank(node->children, chunk);
      const unsigned from = depth + kStride;
      const unsigned wanted = (len - 1 - from) / kStride;  // chunks to the node that is to hold it
      if (!has(node->children, chunk)) {
        Node child;
        child.gap.copyFrom(bits, from, std::min(wanted, Gap::kMost));
        node->below = inserted(node->below, countBits<false>(node->children), at, std::move(child));
        node->children |= Kiv::U64{1} << chunk;
        ++nodes_;
      }
      node = node->below + at;
      const unsigned common = std::min(node->gap.common(bits, from), wanted);
      if (common < node->gap.count()) split(*node, common);
      depth = from + kStride * common;
    }
    const auto [set, slot] = slotOf(*node, bits, depth, len);
    const unsigned at = valueRank(*node, set, slot);
    if (has(*set, slot)) return {valuesOf(*node) + at, false};
    addValue(*node, valueCount(*node), at, std::move(value));
    *set |= Kiv::U64{1} << slot;
    ++size_;
    return {valuesOf(*node) + at, true};
  }

  /// Puts a node into the gap in front of this one, behind `chunks` of it.
  void split(Node& node, unsigned chunks) {
    auto* const lower = static_cast<Node*>(::operator new(sizeof(Node)));
    Node upper;
    upper.children = Kiv::U64{1} << node.gap.chunk(chunks);
    upper.below = lower;
    upper.gap = node.gap.first(chunks);
    node.gap = node.gap.behind(chunks);
    new (lower) Node(node);
    node = upper;
    ++nodes_;
  }

  /// Makes a gap of a node that holds nothing but the next one.
  void merge(Node& node) noexcept {
    if ((node.longest | node.shorter) != 0 || !std::has_single_bit(node.children)) return;
    Node* const lower = node.below;
    if (node.gap.count() + 1 + lower->gap.count() > Gap::kMost) return;
    Node merged = *lower;
    merged.gap = node.gap.with(static_cast<unsigned>(std::countr_zero(node.children)), lower->gap);
    release(lower, 1);
    node = merged;
    --nodes_;
  }

  /// Removes nodes that become empty: the search for the next prefix relies on finding one in every node.
  bool eraseBelow(Node& node, unsigned depth, const Bits& bits, unsigned len) noexcept {
    if (len > depth + kStride) {
      const unsigned chunk = chunkOf(bits, depth);
      if (!has(node.children, chunk)) return false;
      const unsigned at = rank(node.children, chunk);
      Node& child = node.below[at];
      const unsigned from = depth + kStride, childDepth = from + kStride * child.gap.count();
      if (len <= childDepth || !child.gap.fits(bits, from)) return false;
      const bool erased = eraseBelow(child, childDepth, bits, len);
      if ((child.children | child.longest | child.shorter) == 0) {
        removed(node.below, countBits<false>(node.children), at);
        node.children &= ~(Kiv::U64{1} << chunk);
        --nodes_;
      } else {
        merge(child);
      }
      return erased;
    }
    const auto [set, slot] = slotOf(node, bits, depth, len);
    if (!has(*set, slot)) return false;
    removeValue(node, valueCount(node), valueRank(node, set, slot));
    *set &= ~(Kiv::U64{1} << slot);
    --size_;
    return true;
  }

  WIRL_BIT_INSTRUCTIONS Found matchByInstruction(const Bits& bits) const noexcept {
    return matchIn<true>(bits);
  }

  template <bool kInstruction>
  [[gnu::always_inline]] Found matchIn(const Bits& bits) const noexcept {
    const Node* node = &root_;
    const Node* best = nullptr;
    unsigned bestDepth = 0;
    for (unsigned depth = 0;;) {
      const unsigned chunk = chunkOf(bits, depth);
      const bool fits = ((node->longest >> chunk & 1) | (node->shorter & kCoveringSlots[chunk])) != 0;
      best = fits ? node : best;
      bestDepth = fits ? depth : bestDepth;
      if (!has(node->children, chunk)) break;
      node = node->below + countBits<kInstruction>(below(node->children, chunk));
      depth += kStride;
      if (!node->gap.fits(bits, depth)) break;
      depth += kStride * node->gap.count();
    }
    if (!best) return {Bits{}, 0, whole()};
    // Without branches, which nobody could foretell.
    const unsigned chunk = chunkOf(bits, bestDepth);
    const unsigned shorter = countBits<kInstruction>(best->shorter);
    const bool isLongest = has(best->longest, chunk);
    const auto slot =
        static_cast<unsigned>(63 - std::countl_zero((best->shorter & kCoveringSlots[chunk]) | 1));
    const unsigned len = isLongest ? kStride : static_cast<unsigned>(std::bit_width(slot + 2) - 1);
    const Kiv::U64 before = isLongest ? below(best->longest, chunk) : below(best->shorter, slot);
    const unsigned at = countBits<kInstruction>(before) + (isLongest ? shorter : 0);
    T* values = best->values.array;
    if constexpr (kHasSingle) {
      const bool isSingle = shorter + countBits<kInstruction>(best->longest) == 1;
      values = isSingle ? const_cast<T*>(&best->values.single) : values;
    }
    return {Bits{}, bestDepth + len, values + at};
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
      Node& child = node.below[rank(node.children, place.chunk)];
      const unsigned from = depth + kStride;
      return firstIn(child, from + kStride * child.gap.count(), bits | child.gap.placed(from));
    }
    const auto [set, slot] = slotOf(node, bits, depth, depth + place.level);
    return {bits, depth + place.level, valuesOf(node) + valueRank(node, set, slot)};
  }
  static Found firstIn(Node& node, unsigned depth, const Bits& path) noexcept {
    return behind(node, depth, path, 0, 0);
  }
  static Found nextIn(Node& node, unsigned depth, const Bits& path, const Bits& bits, unsigned len,
                      bool orThis) noexcept {
    const unsigned chunk = chunkOf(bits, depth);
    if (len <= depth + kStride) return behind(node, depth, path, chunk, len - depth - (orThis ? 1 : 0));
    if (has(node.children, chunk)) {
      Node& child = node.below[rank(node.children, chunk)];
      const unsigned from = depth + kStride, childDepth = from + kStride * child.gap.count();
      const Bits childPath = path | chunkAt(path, depth, chunk) | child.gap.placed(from);
      if (len > childDepth && child.gap.fits(bits, from)) {
        const Found found = nextIn(child, childDepth, childPath, bits, len, orThis);
        if (found.value) return found;
      } else if (bits <= childPath) {
        return firstIn(child, childDepth, childPath);
      }
    }
    return behind(node, depth, path, chunk, kBelow);
  }

  Node root_;
  std::optional<T> whole_;  // of the prefix of length 0
  std::size_t size_ = 0;
  std::size_t nodes_ = 0;
};

}  // namespace Wirl::detail
