// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "Kiv/Types.h"

namespace Wirl::detail {

// The checksum of a header, inline in the public function: to add up so little takes hardly longer than a
// call. Words are as wide as the machine's and in its order of octets, which matters in the result only;
// their carries count as ones, since 2^16 is 1 in this arithmetic.

using ChecksumWord = std::conditional_t<sizeof(void*) == 8, Kiv::U64, Kiv::U32>;

constexpr std::size_t kFewestShort = sizeof(Kiv::U64);
constexpr std::size_t kMostShort = 64;
/// Data adds less than 2^31, so that nothing is cut off from a start like that, as it is from a larger one.
constexpr Kiv::U32 kMostToStart = 0x7fffffff;

template <typename Word>
[[gnu::always_inline]] inline Word load(const Kiv::U8* from) noexcept {
  Word word;
  std::memcpy(&word, from, sizeof(word));
  return word;
}

/// From a sum of words, in the order of octets that these are in.
[[gnu::always_inline]] inline Kiv::U16 checksumOf(Kiv::U32 sum) noexcept {
  // Added to itself with the halves changed, a number has in its upper half the sum of both, carry included.
  return static_cast<Kiv::U16>(~(sum + std::rotl(sum, 16)) >> 16);
}
[[gnu::always_inline]] inline Kiv::U16 checksumOf(Kiv::U64 sum) noexcept {
  return checksumOf(static_cast<Kiv::U32>((sum + std::rotl(sum, 32)) >> 32));
}

template <std::size_t count>
[[gnu::always_inline]] inline void addWords(ChecksumWord& sum, const Kiv::U8*& data) noexcept {
  for (std::size_t i = 0; i < count; ++i, data += sizeof(sum)) {
    sum += __builtin_add_overflow(sum, load<ChecksumWord>(data), &sum);
  }
}

/// Of kFewestShort to kMostShort bytes, with a start of at most kMostToStart; in the order of octets of the
/// data.
[[gnu::always_inline]] inline Kiv::U16 shortChecksum(const Kiv::U8* data, std::size_t bytes,
                                                     Kiv::U32 start) noexcept {
  constexpr bool kBigEndian = std::endian::native == std::endian::big;
  constexpr std::size_t kWord = sizeof(ChecksumWord);
  // The last word may be one of which only a part is new.
  const std::size_t others = bytes - 1;
  const std::size_t oldBits = 8 * (kWord - 1 - others % kWord);
  const auto last = load<ChecksumWord>(data + bytes - kWord);
  ChecksumWord sum = kBigEndian ? start : __builtin_bswap32(start);
  sum += __builtin_add_overflow(sum, kBigEndian ? last << oldBits : last >> oldBits, &sum);
  const std::size_t words = others / kWord;
  static_assert(kMostShort / kWord <= 16);
  if constexpr (kMostShort / kWord > 8) {
    if ((words & 8) != 0) addWords<8>(sum, data);
  }
  if ((words & 4) != 0) addWords<4>(sum, data);
  if ((words & 2) != 0) addWords<2>(sum, data);
  if ((words & 1) != 0) addWords<1>(sum, data);
  return checksumOf(sum);
}

}  // namespace Wirl::detail
