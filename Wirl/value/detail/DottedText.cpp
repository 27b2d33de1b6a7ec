// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/detail/DottedText.h"

#include <bit>
#include <cstring>

#include "Wirl/value/detail/LittleEndian.h"

namespace Wirl::detail {

namespace {

using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// The digits of each octet and a full stop, filled up to four characters with NULs. The first character is
/// the least significant.
struct OctetTexts {
  std::array<U32, 256> text{};
  std::array<U8, 256> length{};  // with the full stop

  constexpr OctetTexts() {
    for (U32 octet = 0; octet < 256; ++octet) {
      const auto add = [&](char c) { text[octet] |= static_cast<U32>(c) << 8 * length[octet]++; };
      if (octet >= 100) add(static_cast<char>('0' + octet / 100));
      if (octet >= 10) add(static_cast<char>('0' + octet / 10 % 10));
      add(static_cast<char>('0' + octet % 10));
      add('.');
    }
  }
};
constexpr OctetTexts kOctets;

constexpr Taken kNone{0, 0};

}  // namespace

[[gnu::noinline]] Taken takeDottedPlainly(std::string_view text, Extent extent) noexcept {
  return takeDottedLoop(text).within(text.size(), extent);
}

#if WIRL_HAS_SSSE3

namespace {

/// As 1.2.3.4: octets of one digit, all of a text of seven characters.
Taken takeFourDigits(const char* text) noexcept {
  U32 front;
  U32 back;
  std::memcpy(&front, text, 4);
  std::memcpy(&back, text + 3, 4);
  // After this each digit is 0 to 9 and each full stop 0. A carry out of one place may falsify the next, but
  // only if the text is refused anyway.
  const U64 values = (front | U64{back} << 24) ^ 0x0030'2e30'2e30'2e30;
  if (((values | (values + 0x0076'0076'0076'0076)) & 0x0080'ff80'ff80'ff80) != 0) return kNone;
  const U64 pairs = values | values >> 8;
  return {static_cast<U32>((pairs & 0xffff) | (pairs >> 16 & 0xffff'0000)), 7};
}

/// The 81 ways to lay out four octets of one to three digits. The set of places without a digit, of sixteen,
/// identifies a layout. A hash of that set without collisions finds it; a collision does not compile.
struct Layouts {
  static constexpr U32 slot(U32 others) { return others * 0xe3cf'fe0du >> 24; }
  /// Everything from the end of an address on.
  static constexpr U32 from(std::size_t end) { return 0xffffu << end; }

  /// Where the hundreds, tens and ones of each octet come from; then nothing.
  alignas(16) std::array<std::array<U8, 16>, 256> shuffle{};
  std::array<U16, 256> others{};
  std::array<U16, 256> hundreds{};  // places

  constexpr Layouts() {
    for (U32 layout = 0; layout < 81; ++layout) {
      std::array<U8, 16> places{};
      U32 mask = 0;
      U32 threes = 0;
      U8 at = 0;
      for (U32 i = 0, rest = layout; i < 4; ++i, rest /= 3) {
        const U32 digits = rest % 3 + 1;
        const U32 skipped = 3 - digits;
        for (U32 place = 0; place < 4; ++place) {
          places[4 * i + place] =
              place < skipped || place == 3 ? 0x80 : static_cast<U8>(at + place - skipped);
        }
        threes |= U32{digits == 3} << at;
        at = static_cast<U8>(at + digits);
        mask |= i < 3 ? 1u << at : from(at);
        ++at;
      }
      if (others[slot(mask)] != 0) throw "two layouts in one slot";
      others[slot(mask)] = static_cast<U16>(mask);
      hundreds[slot(mask)] = static_cast<U16>(threes);
      shuffle[slot(mask)] = places;
    }
  }
};
constexpr Layouts kLayouts;

}  // namespace

namespace {

WIRL_SSSE3 inline U32 maskOf(__m128i bytes) noexcept {
  return static_cast<U32>(_mm_movemask_epi8(bytes));
}

/// Characters as digits, 0 to 9, and which of them are none.
struct Digits {
  __m128i values;
  U32 others;

  WIRL_SSSE3 explicit Digits(__m128i characters) noexcept
      : values(_mm_xor_si128(characters, _mm_set1_epi8('0'))),
        others(maskOf(_mm_adds_epu8(values, _mm_set1_epi8(0x80 - 10)))) {}
  WIRL_SSSE3 U32 dots() const noexcept { return maskOf(_mm_cmpeq_epi8(values, _mm_set1_epi8('.' ^ '0'))); }
};

/// Reads an address. `others` are the places without a digit; they must equal `ends`.
WIRL_SSSE3 inline Taken takeLayout(const Digits& digits, U32 others, U32 ends, std::size_t end,
                                   std::string_view text, Extent extent) noexcept {
  const U32 slot = Layouts::slot(ends);
  const U32 aboveTwo = maskOf(_mm_cmpgt_epi8(digits.values, _mm_set1_epi8(2)));
  const U32 wrong = (others ^ ends) | (kLayouts.others[slot] ^ ends);
  if (static_cast<U16>(wrong | (aboveTwo & kLayouts.hundreds[slot])) == 0) [[likely]] {
    const __m128i places = _mm_shuffle_epi8(
        digits.values, _mm_load_si128(reinterpret_cast<const __m128i*>(&kLayouts.shuffle[slot])));
    const __m128i octets =
        _mm_madd_epi16(_mm_maddubs_epi16(places, _mm_set1_epi32(0x0001'0a64)), _mm_set1_epi16(1));
    const bool fits = maskOf(_mm_cmpgt_epi32(octets, _mm_set1_epi32(255))) == 0;
    const __m128i words = _mm_packs_epi32(octets, octets);
    return {static_cast<U32>(_mm_cvtsi128_si32(_mm_packus_epi16(words, words))), fits ? end : 0};
  }
  // Only an octet with leading zeros can still be valid: it may have more than three digits.
  const U32 zeros = maskOf(_mm_cmpeq_epi8(digits.values, _mm_setzero_si128()));
  const U32 digitsToo = ~others;
  // A zero and three more digits.
  if (((((zeros << 1 & digitsToo) << 1) & digitsToo) << 1 & digitsToo) == 0) [[likely]]
    return {ends, 0};  // of no octets, whatever stands there
  return takeDottedPlainly(text, extent);
}

}  // namespace

Taken takeDottedSsse3(const char* text, std::size_t size) noexcept {
  if (size == 7) return takeFourDigits(text);
  if (size > 15) return takeDottedPlainly({text, size}, Extent::whole);
  const Digits digits(loadText8to16(orNuls(size < 8, text), size));
  return takeLayout(digits, digits.others, digits.dots() | Layouts::from(size), size, {text, size},
                    Extent::whole);
}

Taken takeDottedFrontSsse3(const char* text, std::size_t size) noexcept {
  if (size < 7) return kNone;
  const Digits digits(loadText16(text, size));
  // The fourth character that is not a digit ends the address. Bit 16 stands for the text not looked at.
  U32 others = digits.others | 0x1'0000;
  for (unsigned i = 0; i < 3; ++i) others &= others - 1;
  const auto end = static_cast<std::size_t>(std::countr_zero(others));
  if (end > 15) return takeDottedPlainly({text, size}, Extent::front);
  const U32 behind = Layouts::from(end);
  return takeLayout(digits, digits.others | behind, digits.dots() | behind, end, {text, size}, Extent::front);
}

#endif

unsigned writeDotted(const DottedOctets& octets, char* out) noexcept {
  // Two octets with their full stops have at most eight characters, so build the text in two words. The last
  // full stop becomes the NUL.
  const auto two = [](U8 a, U8 b) { return kOctets.text[a] | U64{kOctets.text[b]} << 8 * kOctets.length[a]; };
  const unsigned length = static_cast<unsigned>(kOctets.length[octets[0]] + kOctets.length[octets[1]]);
  const unsigned length2 = static_cast<unsigned>(kOctets.length[octets[2]] + kOctets.length[octets[3]]);
  const U64 first = two(octets[0], octets[1]);
  const U64 second = two(octets[2], octets[3]) ^ U64 { '.' } << 8 * (length2 - 1);
  // The second store begins inside the first one and ends with the text: no octet behind it is touched.
  const unsigned start = length + length2 - 8;
  storeLittle64(out, first);
  storeLittle64(out + start, (first >> 4 * start >> 4 * start) | second << 8 * (8 - length2));
  return length + length2 - 1;
}

}  // namespace Wirl::detail
