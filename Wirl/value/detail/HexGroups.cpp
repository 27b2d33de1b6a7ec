// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/HexGroups.h"

#include <bit>

#include "Wirl/value/detail/LittleEndian.h"

namespace Wirl::detail {

namespace {

using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

constexpr U8 kNoDigit = 0xff;

/// What each character counts as a hexadecimal digit, and each octet's two digits, the first least
/// significant.
struct HexTexts {
  std::array<U8, 256> value{};
  std::array<Kiv::U16, 256> text{};

  constexpr HexTexts() {
    constexpr char kDigits[] = "0123456789abcdef";
    value.fill(kNoDigit);
    for (U8 digit = 0; digit < 16; ++digit) {
      value[static_cast<U8>(kDigits[digit])] = digit;
      if (digit > 9) value[static_cast<U8>(kDigits[digit] - 'a' + 'A')] = digit;
    }
    for (unsigned octet = 0; octet < 256; ++octet) {
      text[octet] = static_cast<Kiv::U16>(kDigits[octet >> 4] | kDigits[octet & 15] << 8);
    }
  }
};
constexpr HexTexts kHex;

constexpr U8 hexValue(char c) noexcept {
  return kHex.value[static_cast<U8>(c)];
}

template <std::size_t N>
std::size_t takeOctets(std::string_view text, std::array<U8, N>& out) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  std::array<U8, N> octets;
  char separator = '\0';
  for (std::size_t count = 0;;) {
    if (at == end || hexValue(*at) == kNoDigit) return 0;
    U32 group = 0;
    for (U8 digit; at != end && (digit = hexValue(*at)) != kNoDigit; ++at) {
      group = group << 4 | digit;
      if (group > 0xffff) return 0;
    }
    if (count == 0) {
      if (at == end) return 0;
      separator = *at;
      if (separator != ':' && separator != '-' && separator != '.') return 0;
    }
    if (separator == '.') {
      octets[count++] = static_cast<U8>(group >> 8);
    } else if (group > 0xff) {
      return 0;
    }
    octets[count++] = static_cast<U8>(group);
    if (count == N) break;
    if (at == end || *at != separator) return 0;
    ++at;
  }
  out = octets;
  return static_cast<std::size_t>(at - text.data());
}

/// Three octets as they are printed, without a separator behind them: eight characters.
U64 threeOctets(const U8* octets) noexcept {
  return kHex.text[octets[0]] | U64{':'} << 16 | U64{kHex.text[octets[1]]} << 24 | U64{':'} << 40 |
         U64{kHex.text[octets[2]]} << 48;
}

}  // namespace

std::size_t takeHexGroupsLoop(std::string_view text, EthOctets& out) noexcept {
  return takeOctets(text, out);
}
std::size_t takeHexGroupsLoop(std::string_view text, EuiOctets& out) noexcept {
  return takeOctets(text, out);
}

#if WIRL_HAS_SSSE3

namespace {

template <unsigned N>
constexpr U32 withoutLowest(U32 bits) noexcept {
  for (unsigned i = 0; i < N; ++i) bits &= bits - 1;
  return bits;
}

/// Six octets from the values of their digits.
WIRL_SSSE3 inline void storeOctets(__m128i digits, EthOctets& out) noexcept {
  const __m128i octets = _mm_maddubs_epi16(digits, _mm_set1_epi16(0x0110));
  U8 all[16];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(all), _mm_packus_epi16(octets, octets));
  std::memcpy(out.data(), all, out.size());
}

}  // namespace

std::size_t takeHexGroupsSsse3(const char* text, std::size_t size, EthOctets& out) noexcept {
  // Masks have a bit a character. Six groups of at most two digits end in or before character 17.
  constexpr U32 kColonEnds = 1u << 2 | 1u << 5 | 1u << 8 | 1u << 11 | 1u << 14 | 1u << 17;
  constexpr U32 kDotEnds = 1u << 4 | 1u << 9 | 1u << 14;
  if (size < 5) return 0;  // shorter than 0.0.0
  const __m128i characters = loadText16(text, size);
  const __m128i decimal = _mm_sub_epi8(characters, _mm_set1_epi8('0'));
  const __m128i letter = _mm_sub_epi8(_mm_or_si128(characters, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i isDecimal = _mm_cmpeq_epi8(_mm_min_epu8(decimal, _mm_set1_epi8(9)), decimal);
  const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(letter, _mm_set1_epi8(5)), letter);
  const __m128i values = _mm_or_si128(_mm_and_si128(isDecimal, decimal),
                                      _mm_and_si128(isLetter, _mm_add_epi8(letter, _mm_set1_epi8(10))));
  U32 digits = static_cast<U32>(_mm_movemask_epi8(_mm_or_si128(isDecimal, isLetter)));
  U8 digit16 = kNoDigit;
  if (size > 16) {
    digit16 = hexValue(text[16]);
    digits |= static_cast<U32>(digit16 != kNoDigit) << 16;
    if (size > 17) digits |= static_cast<U32>(hexValue(text[17]) != kNoDigit) << 17;
  }

  const U32 others = ~digits;
  const unsigned first = static_cast<unsigned>(std::countr_zero(others));
  if (first > 15 || first == size) [[unlikely]]
    return first < size ? takeHexGroupsLoop({text, size}, out) : 0;
  const char separator = text[first];
  const U32 separators =
      static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8(separator))));

  if (separator == ':' || separator == '-') [[likely]] {
    const U32 without5 = withoutLowest<5>(others);
    const U32 ends = others ^ withoutLowest<1>(without5);
    const U32 foreign = (others ^ without5) & ~separators;
    if (ends == kColonEnds && foreign == 0) [[likely]] {
      const __m128i low = _mm_setr_epi8(0, 1, 3, 4, 6, 7, 9, 10, 12, 13, 15, -1, -1, -1, -1, -1);
      storeOctets(_mm_shuffle_epi8(values, low), out);
      out[5] |= digit16;
      return 17;
    }
    // Within the window, a character that is neither digit nor separator, the text's end or an empty group is
    // the end of every hope.
    const U32 starts = (others ^ without5) << 1 | 1;
    if (((foreign | (starts & others)) & 0xffff) != 0) return 0;
    const unsigned end = static_cast<unsigned>(std::countr_zero(without5));
    const U32 used = digits & ((1u << end) - 1);
    // Digits may be many when zeros lead them. Otherwise the five separators were all seen above.
    if ((used & used >> 1 & used >> 2) != 0) return takeHexGroupsLoop({text, size}, out);
    // Each character with the one before it, which counts nothing when it is a separator, is an octet where a
    // group ends.
    alignas(16) U8 pairs[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(pairs),
                    _mm_or_si128(values, _mm_slli_si128(_mm_slli_epi16(values, 4), 1)));
    U32 left = others;
    for (U8& octet : out) {
      octet = pairs[std::countr_zero(left) - 1];
      left = withoutLowest<1>(left);
    }
    return end;
  }
  if (separator == '.') {
    const U32 without2 = withoutLowest<2>(others);
    if ((others ^ withoutLowest<1>(without2)) == kDotEnds && ((others ^ without2) & ~separators) == 0) {
      const __m128i places = _mm_setr_epi8(0, 1, 2, 3, 5, 6, 7, 8, 10, 11, 12, 13, -1, -1, -1, -1);
      storeOctets(_mm_shuffle_epi8(values, places), out);
      return 14;
    }
    return takeHexGroupsLoop({text, size}, out);
  }
  return 0;
}

#endif

unsigned writeHexGroups(const EthOctets& octets, char* out) noexcept {
  storeLittle64(out, threeOctets(&octets[0]));
  out[8] = ':';
  storeLittle64(out + 9, threeOctets(&octets[3]));
  out[17] = '\0';
  return 17;
}

unsigned writeHexGroups(const EuiOctets& octets, char* out) noexcept {
  storeLittle64(out, threeOctets(&octets[0]));
  out[8] = ':';
  storeLittle64(out + 9, threeOctets(&octets[3]));
  out[17] = ':';
  storeLittle64(out + 15, threeOctets(&octets[5]));
  out[23] = '\0';
  return 23;
}

unsigned writeDottedHexGroups(const EthOctets& octets, char* out) noexcept {
  char* at = out;
  for (unsigned i = 0; i < 6; ++i) {
    *at++ = static_cast<char>(kHex.text[octets[i]]);
    *at++ = static_cast<char>(kHex.text[octets[i]] >> 8);
    if (i == 1 || i == 3) *at++ = '.';
  }
  *at = '\0';
  return 14;
}

}  // namespace Wirl::detail
