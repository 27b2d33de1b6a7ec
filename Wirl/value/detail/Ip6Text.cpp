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

}  // namespace

Ip6Hex ip6HexLoop(const std::array<U8, 16>& octets) noexcept {
  Ip6Hex hex{{}, 0x8888'8888, 0xff};
  for (unsigned i = 0; i < 32; ++i) {
    const U32 nibble = i % 2 == 0 ? octets[i / 2] >> 4 : octets[i / 2] & 0x0f;
    hex.digits[i] = kDigits[nibble];
    if (nibble == 0) continue;
    hex.significant |= U32{1} << i;
    hex.zeros &= ~(U32{1} << i / 4);
  }
  return hex;
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

/// Stores the digits of sixteen nibbles; returns the set of those that are zero.
WIRL_SSSE3 inline U32 putDigits(__m128i nibbles, char* to) noexcept {
  _mm_storeu_si128(static_cast<__m128i*>(static_cast<void*>(to)),
                   _mm_shuffle_epi8(loadBlock(kDigits), nibbles));
  return static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(nibbles, _mm_setzero_si128())));
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

Ip6Hex ip6HexSsse3(const std::array<U8, 16>& octets) noexcept {
  Ip6Hex hex;
  const __m128i block = loadBlock(octets.data());
  const __m128i zero = _mm_setzero_si128();
  const __m128i nibble = _mm_set1_epi8(0x0f);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(block, 4), nibble);
  const __m128i low = _mm_and_si128(block, nibble);
  const U32 zeroDigits = putDigits(_mm_unpacklo_epi8(high, low), hex.digits.data()) |
                         putDigits(_mm_unpackhi_epi8(high, low), hex.digits.data() + 16) << 16;
  hex.significant = ~zeroDigits | 0x8888'8888;
  hex.zeros = static_cast<U32>(_mm_movemask_epi8(_mm_packs_epi16(_mm_cmpeq_epi16(block, zero), zero)));
  return hex;
}

#endif

}  // namespace Wirl::detail
