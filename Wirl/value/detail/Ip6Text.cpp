// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/Ip6Text.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Wirl::detail {

using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

namespace {

constexpr char kDigits[] = "0123456789abcdef";

/// By the set of groups that are zero, the groups that "::" stands for: the longest run of them, the first of
/// equal ones, and none of a single group. Bit i is group i.
constexpr auto kGaps = [] {
  std::array<U8, 256> gaps{};
  for (unsigned zeros = 0; zeros < 256; ++zeros) {
    unsigned longest = 1;
    for (unsigned begin = 0; begin < 8; ++begin) {
      unsigned size = 0;
      while (begin + size < 8 && (zeros >> (begin + size) & 1) != 0) ++size;
      if (size > longest) {
        longest = size;
        gaps[zeros] = static_cast<U8>(((1u << size) - 1) << begin);
      }
    }
  }
  return gaps;
}();

}  // namespace

unsigned writeIp6GroupsPlainly(const std::array<U8, 16>& octets, char* out) noexcept {
  const auto group = [&](unsigned i) { return U32{octets[2 * i]} << 8 | octets[2 * i + 1]; };
  unsigned zeros = 0;
  for (unsigned i = 0; i < 8; ++i) zeros |= unsigned{group(i) == 0} << i;
  const unsigned gap = kGaps[zeros];
  char* at = out;
  for (unsigned i = 0; i < 8; ++i) {
    const bool inGap = (gap >> i & 1) != 0;
    if (i > 0 && !inGap) *at++ = ':';
    if (inGap && (i == 0 || (gap >> (i - 1) & 1) == 0)) *at++ = ':';
    if (inGap && i == 7) *at++ = ':';
    unsigned shift = 12;
    while (shift > 0 && group(i) >> shift == 0) shift -= 4;
    for (shift += 4; !inGap && shift > 0; shift -= 4) *at++ = kDigits[group(i) >> (shift - 4) & 15];
  }
  *at = '\0';
  return static_cast<unsigned>(at - out);
}

#if WIRL_HAS_SSSE3

namespace {

WIRL_SSSE3 inline U64 bitsOf(__m128i bytes, std::size_t at) noexcept {
  return U64{static_cast<U32>(_mm_movemask_epi8(bytes))} << at;
}

WIRL_SSSE3 inline __m128i atMost(__m128i bytes, char bound) noexcept {
  return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(bound)), bytes);
}

WIRL_SSSE3 inline __m128i loadBlock(const void* at) noexcept {
  return _mm_loadu_si128(static_cast<const __m128i*>(at));
}

/// Adds sixteen characters, the first of which is character `at`. Returns the set of those that are foreign.
WIRL_SSSE3 inline U64 addBlock(Ip6Outline& outline, __m128i block, std::size_t at) noexcept {
  const __m128i colon = _mm_cmpeq_epi8(block, _mm_set1_epi8(':'));
  const __m128i dot = _mm_cmpeq_epi8(block, _mm_set1_epi8('.'));
  // The colon follows the digits in ASCII.
  const __m128i digitOrColon = atMost(_mm_sub_epi8(block, _mm_set1_epi8('0')), 10);
  const __m128i letter =
      atMost(_mm_sub_epi8(_mm_or_si128(block, _mm_set1_epi8(0x20)), _mm_set1_epi8('a')), 5);
  const __m128i own = _mm_or_si128(_mm_or_si128(digitOrColon, letter), dot);
  outline.colons |= bitsOf(colon, at);
  outline.dots |= bitsOf(dot, at);
  return bitsOf(_mm_cmpeq_epi8(own, _mm_setzero_si128()), at);
}

/// How a group is shown: not at all, as one to four digits and a colon, or as a colon alone. The latter is
/// the first group of those that "::" stands for; its first colon belongs to the group before.
enum Shown : U8 { kNot = 0, kDigitsAtMost = 4, kColon = 5, kWays = 6 };

/// Where the characters of two groups come from, of eight digits and a colon; and how many there are.
struct Pairs {
  alignas(16) std::array<std::array<U8, 16>, kWays * kWays> shuffle{};
  std::array<U8, kWays * kWays> length{};

  constexpr Pairs() {
    for (unsigned pair = 0; pair < kWays * kWays; ++pair) {
      shuffle[pair].fill(0x80);
      for (unsigned i = 0; i < 2; ++i) {
        const unsigned shown = i == 0 ? pair / kWays : pair % kWays;
        for (unsigned k = shown == kColon ? 0 : shown; k > 0; --k)
          shuffle[pair][length[pair]++] = static_cast<U8>(4 * i + 4 - k);
        if (shown != kNot) shuffle[pair][length[pair]++] = 8;
      }
    }
  }
};
constexpr Pairs kPairs;

/// By the set of groups that are zero, what to add to the way to show each one as a number.
constexpr auto kGapWays = [] {
  std::array<std::array<U8, 8>, 256> ways{};
  for (unsigned zeros = 0; zeros < 256; ++zeros) {
    const unsigned gap = kGaps[zeros];
    for (unsigned i = 0; i < 8; ++i) {
      if ((gap >> i & 1) == 0) continue;
      const bool first = i == 0 || (gap >> (i - 1) & 1) == 0;
      ways[zeros][i] = static_cast<U8>((first ? kColon : kNot) - 1);  // a zero has one digit
    }
  }
  return ways;
}();

/// Lanes of -1 where the number of 16 bits is at most `bound`.
WIRL_SSSE3 inline __m128i numbersAtMost(__m128i numbers, short bound) noexcept {
  return _mm_cmpeq_epi16(_mm_subs_epu16(numbers, _mm_set1_epi16(bound)), _mm_setzero_si128());
}

WIRL_SSSE3 inline char* putPair(char* at, __m128i digitsAndColon, int pair) noexcept {
  const auto i = static_cast<std::size_t>(pair);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at),
                   _mm_shuffle_epi8(digitsAndColon, loadBlock(&kPairs.shuffle[i])));
  return at + kPairs.length[i];
}

}  // namespace

Ip6Outline ip6OutlineSsse3(const char* text, std::size_t textSize) noexcept {
  Ip6Outline outline;
  const std::size_t size = std::min(textSize, kIp6Scanned);
  U64 foreign = addBlock(outline, loadText16(text, size), 0);
  // Blocks may overlap, so that each lies inside the text.
  if (size > 16) {
    const std::size_t second = std::min<std::size_t>(size - 16, 16);
    foreign |= addBlock(outline, loadBlock(text + second), second);
    if (size > 32) foreign |= addBlock(outline, loadBlock(text + size - 16), size - 16);
  }
  outline.length = static_cast<unsigned>(std::countr_zero(foreign | U64{1} << size));
  const U64 inside = (U64{1} << outline.length) - 1;
  outline.colons &= inside;
  outline.dots &= inside;
  return outline;
}

unsigned writeIp6GroupsSsse3(const std::array<U8, 16>& octets, char* out) noexcept {
  const __m128i block = loadBlock(octets.data());
  const __m128i nibble = _mm_set1_epi8(0x0f);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(block, 4), nibble);
  const __m128i low = _mm_and_si128(block, nibble);
  const __m128i digits = loadBlock(kDigits);
  const __m128i front = _mm_shuffle_epi8(digits, _mm_unpacklo_epi8(high, low));
  const __m128i back = _mm_shuffle_epi8(digits, _mm_unpackhi_epi8(high, low));

  // The way to show each group, and then of each pair of them.
  const __m128i groups = _mm_or_si128(_mm_slli_epi16(block, 8), _mm_srli_epi16(block, 8));
  const __m128i zero = _mm_setzero_si128();
  const auto zeros =
      static_cast<std::size_t>(_mm_movemask_epi8(_mm_packs_epi16(_mm_cmpeq_epi16(groups, zero), zero)));
  const __m128i missing =
      _mm_add_epi16(_mm_add_epi16(numbersAtMost(groups, 0x000f), numbersAtMost(groups, 0x00ff)),
                    numbersAtMost(groups, 0x0fff));
  const __m128i lengths = _mm_add_epi8(_mm_packs_epi16(missing, zero), _mm_set1_epi8(kDigitsAtMost));
  const __m128i ways =
      _mm_add_epi8(lengths, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kGapWays[zeros].data())));
  const __m128i pairs = _mm_maddubs_epi16(ways, _mm_set1_epi16(kWays | 1 << 8));

  // Each pair is stored with sixteen characters, so build the text elsewhere.
  const __m128i colon = _mm_set1_epi8(':');
  char text[64];
  text[0] = ':';
  char* at = text + (kGaps[zeros] & 1);
  at = putPair(at, _mm_unpacklo_epi64(front, colon), _mm_extract_epi16(pairs, 0));
  at = putPair(at, _mm_unpackhi_epi64(front, colon), _mm_extract_epi16(pairs, 1));
  at = putPair(at, _mm_unpacklo_epi64(back, colon), _mm_extract_epi16(pairs, 2));
  at = putPair(at, _mm_unpackhi_epi64(back, colon), _mm_extract_epi16(pairs, 3));
  // No colon follows the last group, unless it belongs to "::".
  at -= 1 - (kGaps[zeros] >> 7);
  *at = '\0';
  const auto length = static_cast<std::size_t>(at - text);
  std::memcpy(out, text, length + 1);
  return static_cast<unsigned>(length);
}

#endif

}  // namespace Wirl::detail
