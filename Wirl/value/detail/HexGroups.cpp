// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/HexGroups.h"

#include <bit>
#include <cstring>

#include "Wirl/value/detail/LittleEndian.h"

namespace Wirl::detail {

namespace {

using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

constexpr Taken kNone{0, 0};

/// Each octet's two digits, the first least significant.
struct HexTexts {
  std::array<Kiv::U16, 256> text{};

  constexpr HexTexts() {
    constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned octet = 0; octet < 256; ++octet) {
      text[octet] = static_cast<Kiv::U16>(kDigits[octet >> 4] | kDigits[octet & 15] << 8);
    }
  }
};
constexpr HexTexts kHex;

/// Three octets as they are printed, without a separator behind them: eight characters.
U64 threeOctets(const U8* octets) noexcept {
  return kHex.text[octets[0]] | U64{':'} << 16 | U64{kHex.text[octets[1]]} << 24 | U64{':'} << 40 |
         U64{kHex.text[octets[2]]} << 48;
}

}  // namespace

[[gnu::noinline]] Taken takeHexGroupsPlainly(std::string_view text) noexcept {
  return takeHexGroupsLoop(text, 6).within(text.size(), Extent::whole);
}

#if WIRL_HAS_SSSE3

namespace {

/// How groups are joined: single octets by colons or hyphens, pairs of octets by full stops. The value is the
/// number of digits that a group may have beyond two.
enum Form : U8 { kOctets = 0, kPairs = 2, kNoForm = 4 };

constexpr auto kFormOf = [] {
  std::array<U8, 256> forms{};
  forms.fill(kNoForm);
  forms[':'] = forms['-'] = kOctets;
  forms['.'] = kPairs;
  return forms;
}();

/// The ways to lay out six groups of one or two digits, or three of one to four: 64 each. A layout is known
/// by the mask of its separators and of everything from the text's end on, and found by a hash of that mask
/// that has no collisions (a collision does not compile).
struct Layouts {
  static constexpr U32 slot(U32 form, U32 mask) { return form << 7 | mask * 0xad94'21c1u >> 24; }

  /// Where the digits come from, but for the seventeenth character; then nothing.
  alignas(16) std::array<std::array<U8, 16>, 512> shuffle{};
  std::array<U32, 768> mask{};  // kNoForm has none

  constexpr Layouts() {
    for (U32 form = kOctets; form <= kPairs; form += kPairs) {
      const U32 groups = form == kOctets ? 6 : 3;
      const U32 places = 12 / groups;
      for (U32 layout = 0; layout < 64; ++layout) {
        const auto digits = [&](U32 group) {
          U32 rest = layout;
          for (; group > 0; --group) rest /= places;
          return rest % places + 1;
        };
        U32 size = groups - 1;
        for (U32 group = 0; group < groups; ++group) size += digits(group);
        if (size < 8) continue;
        std::array<U8, 16> from{};
        from.fill(0x80);
        U32 bits = ~0u << size;
        U32 at = 0;
        for (U32 group = 0; group < groups; ++group) {
          for (U32 i = places - digits(group); i < places; ++i, ++at) {
            if (at < 16) from[group * places + i] = static_cast<U8>(at);
          }
          if (group + 1 < groups) bits |= 1u << at;
          ++at;
        }
        if (mask[slot(form, bits)] != 0) throw "two layouts in one slot";
        mask[slot(form, bits)] = bits;
        shuffle[slot(form, bits)] = from;
      }
    }
  }
};
constexpr Layouts kLayouts;

WIRL_SSSE3 inline U32 whereIs(__m128i characters, char what) noexcept {
  return static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8(what))));
}

/// The values of hexadecimal digits; more than fifteen for every other character.
WIRL_SSSE3 inline __m128i hexValues(__m128i characters) noexcept {
  // 0xf0 and the value of a decimal digit, less for what is below; what is above wraps to less.
  const __m128i decimal =
      _mm_subs_epu8(_mm_add_epi8(characters, _mm_set1_epi8(static_cast<char>(0xff - '9'))), _mm_set1_epi8(6));
  const __m128i letter =
      _mm_sub_epi8(_mm_and_si128(characters, _mm_set1_epi8(static_cast<char>(0xdf))), _mm_set1_epi8('A'));
  return _mm_min_epu8(_mm_sub_epi8(decimal, _mm_set1_epi8(static_cast<char>(0xf0))),
                      _mm_adds_epu8(letter, _mm_set1_epi8(10)));
}

/// The bytes above fifteen.
WIRL_SSSE3 inline U32 noDigits(__m128i values) noexcept {
  return static_cast<U32>(_mm_movemask_epi8(_mm_adds_epu8(values, _mm_set1_epi8(0x80 - 16))));
}

/// Octets from pairs of digits; `last` is the digit that the sixteen places do not have.
WIRL_SSSE3 inline U64 octetsOf(__m128i places, U32 last) noexcept {
  const __m128i octets = _mm_maddubs_epi16(places, _mm_set1_epi16(0x0110));
  U64 word;
  _mm_storel_epi64(reinterpret_cast<__m128i*>(&word), _mm_packus_epi16(octets, octets));
  return word | U64{last} << 40;
}

/// A text of fewer than eight characters, or of more than eighteen. Three short groups joined by full stops
/// make the one, zeros in front the other.
[[gnu::noinline]] Taken takeUnusual(const char* text, std::size_t size) noexcept {
  if (size < 5 || (size < 8 && text[1] != '.' && text[2] != '.' && text[3] != '.')) return kNone;
  return takeHexGroupsPlainly({text, size});
}

}  // namespace

Taken takeHexGroupsSsse3(const char* text, std::size_t size) noexcept {
  // The size is known long before the characters: a branch on it that was foreseen wrongly costs little.
  if (size - 8 > 10) [[unlikely]]
    return takeUnusual(text, size);
  // Which form a text has, how long its groups are and what is wrong with it cannot be predicted: there is no
  // branch on any of it before it is known whether this is an address.
  const __m128i characters = loadText8to16(text, size < 16 ? size : 16);
  const __m128i values = hexValues(characters);
  const U32 others = noDigits(values);
  // No address ends with anything but a digit.
  const U32 last = hexValue(text[size - 1]);
  // The usual text has 17 characters, two digits an octet.
  constexpr U32 kSeparators = 0b0100'1001'0010'0100;
  const U32 second = kFormOf[static_cast<U8>(text[2])];
  const U32 same = whereIs(characters, text[2]);
  const auto unusual = static_cast<U32>(size) ^ 17;
  if (((same ^ kSeparators) | (others ^ kSeparators) | unusual | second | last >> 4) == 0) {
    const __m128i places =
        _mm_shuffle_epi8(values, _mm_setr_epi8(0, 1, 3, 4, 6, 7, 9, 10, 12, 13, 15, -1, -1, -1, -1, -1));
    return {octetsOf(places, last), 17};
  }
  const U32 beyond = ~0u << size;
  // The first character that is no digit, or the last one. The window does not have the seventeenth character
  // and the next, but no address of that size begins with sixteen digits.
  const U32 atLast = static_cast<U32>(static_cast<int>(beyond) >> 1);
  const char separator = text[std::countr_zero(others | atLast)];
  const U32 form = kFormOf[static_cast<U8>(separator)];
  const U32 mask = whereIs(characters, separator) | beyond;
  const U32 slot = Layouts::slot(form, mask);
  const U32 strange = (others & ~mask) | last >> 4;
  if (((kLayouts.mask[slot] ^ mask) | strange) == 0) {
    const __m128i places = _mm_shuffle_epi8(
        values, _mm_load_si128(reinterpret_cast<const __m128i*>(&kLayouts.shuffle[slot & 511])));
    return {octetsOf(places, last & onlyIf(size > 16)), size};
  }
  // A group of more digits than it should have may still be one, with zeros in front; nothing else can, and
  // not that with a strange character. Zeros that no end of a group follows closely are what to look for:
  // sixteen bits, above the shifted ones only when nothing is strange.
  const U32 ends = others | beyond;
  U32 near = ends >> 1 | ends >> 2;
  near |= near >> form;
  const U32 leading = whereIs(values, 0) & ~near;
  if (leading <= strange << 16) [[likely]]
    return {ends, 0};  // of no octets, whatever stands there
  return takeHexGroupsPlainly({text, size});
}

#endif

#if WIRL_HAS_SSSE3

/// All seventeen digits and colons in two stores.
WIRL_SSSE3 static unsigned writeEthSsse3(const EthOctets& octets, char* out) noexcept {
  int front;
  Kiv::U16 back;
  std::memcpy(&front, octets.data(), 4);
  std::memcpy(&back, octets.data() + 4, 2);
  const __m128i six = _mm_insert_epi16(_mm_cvtsi32_si128(front), back, 2);
  const __m128i nibble = _mm_set1_epi8(0x0f);
  const __m128i values =
      _mm_unpacklo_epi8(_mm_and_si128(_mm_srli_epi16(six, 4), nibble), _mm_and_si128(six, nibble));
  const __m128i digits = _mm_shuffle_epi8(
      _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'), values);
  const __m128i spread =
      _mm_shuffle_epi8(digits, _mm_setr_epi8(0, 1, -1, 2, 3, -1, 4, 5, -1, 6, 7, -1, 8, 9, -1, 10));
  const __m128i colons = _mm_setr_epi8(0, 0, ':', 0, 0, ':', 0, 0, ':', 0, 0, ':', 0, 0, ':', 0);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_or_si128(spread, colons));
  // The last digit in the low octet, and the NUL above it.
  const auto last = static_cast<Kiv::U16>(_mm_extract_epi16(digits, 5) >> 8);
  std::memcpy(out + 16, &last, 2);
  return 17;
}

#endif

unsigned writeHexGroups(const EthOctets& octets, char* out) noexcept {
#if WIRL_HAS_SSSE3
  if (hasSsse3()) [[likely]]
    return writeEthSsse3(octets, out);
#endif
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
