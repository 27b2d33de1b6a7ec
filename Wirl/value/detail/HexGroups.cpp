// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/HexGroups.h"

#include <bit>

#include "Wirl/value/detail/LittleEndian.h"

namespace Wirl::detail {

namespace {

using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

constexpr Taken<U64> kNone{0, 0};
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

/// Three octets as they are printed, without a separator behind them: eight characters.
U64 threeOctets(const U8* octets) noexcept {
  return kHex.text[octets[0]] | U64{':'} << 16 | U64{kHex.text[octets[1]]} << 24 | U64{':'} << 40 |
         U64{kHex.text[octets[2]]} << 48;
}

}  // namespace

Taken<U64> takeHexGroupsLoop(std::string_view text, unsigned octets) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  U64 taken = 0;
  char separator = '\0';
  for (unsigned count = 0;;) {
    if (at == end || hexValue(*at) == kNoDigit) return kNone;
    U32 group = 0;
    for (U8 digit; at != end && (digit = hexValue(*at)) != kNoDigit; ++at) {
      group = group << 4 | digit;
      if (group > 0xffff) return kNone;
    }
    if (count == 0) {
      if (at == end) return kNone;
      separator = *at;
      if (separator != ':' && separator != '-' && separator != '.') return kNone;
    }
    if (separator == '.') {
      taken |= U64{group >> 8} << 8 * count++;
    } else if (group > 0xff) {
      return kNone;
    }
    taken |= U64{group & 0xff} << 8 * count++;
    if (count == octets) return {taken, static_cast<std::size_t>(at - text.data())};
    if (at == end || *at != separator) return kNone;
    ++at;
  }
}

#if WIRL_HAS_SSSE3

namespace {

// Masks have a bit a character.

template <unsigned N>
constexpr U32 withoutLowest(U32 bits) noexcept {
  for (unsigned i = 0; i < N; ++i) bits &= bits - 1;
  return bits;
}

/// The first eight octets from the values of their digits.
WIRL_SSSE3 inline U64 octetsOf(__m128i digits) noexcept {
  const __m128i octets = _mm_maddubs_epi16(digits, _mm_set1_epi16(0x0110));
  U64 word;
  _mm_storel_epi64(reinterpret_cast<__m128i*>(&word), _mm_packus_epi16(octets, octets));
  return word;
}

}  // namespace

Taken<U64> takeHexGroupsSsse3(const char* text, std::size_t size, Extent extent) noexcept {
  // Where the groups of an address in full end.
  constexpr U32 kColonEnds = 1u << 2 | 1u << 5 | 1u << 8 | 1u << 11 | 1u << 14 | 1u << 17;
  constexpr U32 kDotEnds = 1u << 4 | 1u << 9 | 1u << 14;
  if (size < 5) return kNone;  // shorter than 0.0.0
  const __m128i characters = loadText16(text, size);
  const __m128i decimal = _mm_sub_epi8(characters, _mm_set1_epi8('0'));
  const __m128i letter = _mm_sub_epi8(_mm_or_si128(characters, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i isDecimal = _mm_cmpeq_epi8(_mm_min_epu8(decimal, _mm_set1_epi8(9)), decimal);
  const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(letter, _mm_set1_epi8(5)), letter);
  const __m128i values = _mm_or_si128(_mm_and_si128(isDecimal, decimal),
                                      _mm_and_si128(isLetter, _mm_add_epi8(letter, _mm_set1_epi8(10))));
  U32 digits = static_cast<U32>(_mm_movemask_epi8(_mm_or_si128(isDecimal, isLetter)));
  // Six groups of two digits end before character 17: two characters are looked at behind the window.
  U8 digit16 = kNoDigit;
  if (size > 16) {
    digit16 = hexValue(text[16]);
    digits |= static_cast<U32>(digit16 != kNoDigit) << 16;
    if (size > 17) digits |= static_cast<U32>(hexValue(text[17]) != kNoDigit) << 17;
  }

  const U32 others = ~digits;
  const unsigned first = static_cast<unsigned>(std::countr_zero(others));
  const char separator = text[first < size ? first : 0];  // a digit when there is none
  const U32 separators =
      static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8(separator))));
  const bool dots = separator == '.';
  if (!dots && separator != ':' && separator != '-') [[unlikely]] {
    // A first group that fills the window may still be one, with zeros in front.
    return first > 17 ? takeHexGroupsLoop({text, size}, 6).within(size, extent) : kNone;
  }

  const U32 withoutSeparators = dots ? withoutLowest<2>(others) : withoutLowest<5>(others);
  const U32 ends = others ^ withoutLowest<1>(withoutSeparators);
  const U32 foreign = (others ^ withoutSeparators) & ~separators;
  const unsigned end = static_cast<unsigned>(std::countr_zero(withoutSeparators));
  const bool goesOn = extent == Extent::whole && end != size;
  if (foreign == 0 && !goesOn) [[likely]] {
    if (ends == kColonEnds && !dots) [[likely]] {
      const __m128i low = _mm_setr_epi8(0, 1, 3, 4, 6, 7, 9, 10, 12, 13, 15, -1, -1, -1, -1, -1);
      return {octetsOf(_mm_shuffle_epi8(values, low)) | U64{digit16} << 40, 17};
    }
    if (ends == kDotEnds && dots) {
      const __m128i places = _mm_setr_epi8(0, 1, 2, 3, 5, 6, 7, 8, 10, 11, 12, 13, -1, -1, -1, -1);
      return {octetsOf(_mm_shuffle_epi8(values, places)), 14};
    }
  }

  // Within the window, a character that is neither digit nor separator, the text's end or an empty group is the
  // end of every hope.
  const U32 starts = (others ^ withoutSeparators) << 1 | 1;
  if (((foreign | (starts & others)) & 0xffff) != 0) return kNone;
  const U32 used = digits & ((1u << end) - 1);
  const U32 threeFrom = used & used >> 1 & used >> 2;
  const U32 tooManyFrom = dots ? threeFrom & threeFrom >> 2 : threeFrom;
  if (tooManyFrom != 0) {
    // More digits than a group has are right when zeros lead them, and never else.
    const U32 zeros = static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8('0'))));
    if ((tooManyFrom & starts & ~zeros & 0xffff) != 0) return kNone;
    return takeHexGroupsLoop({text, size}, 6).within(size, extent);
  }
  if (goesOn) return kNone;
  if (dots) return takeHexGroupsLoop({text, size}, 6);
  // Groups of one or two digits. Each character with the one before it, which counts nothing when it is a
  // separator, is an octet where a group ends.
  alignas(16) U8 pairs[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(pairs),
                  _mm_or_si128(values, _mm_slli_si128(_mm_slli_epi16(values, 4), 1)));
  U64 octets = 0;
  U32 left = others;
  for (unsigned i = 0; i < 6; ++i) {
    octets |= U64{pairs[std::countr_zero(left) - 1]} << 8 * i;
    left = withoutLowest<1>(left);
  }
  return {octets, end};
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
