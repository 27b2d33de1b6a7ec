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

/// Each octet's digits, a full stop and, up to four characters, NULs: the first character least significant.
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

Taken takeDottedLoop(std::string_view text) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  U32 octets = 0;
  for (unsigned i = 0; i < 4; ++i) {
    if (i > 0) {
      if (at == end || *at != '.') return kNone;
      ++at;
    }
    U32 octet = 0;
    const char* const start = at;
    for (; at != end && static_cast<U8>(*at - '0') <= 9; ++at) {
      octet = octet * 10 + static_cast<U32>(*at - '0');
      if (octet > 255) return kNone;
    }
    if (at == start) return kNone;
    octets |= octet << 8 * i;
  }
  return {octets, static_cast<std::size_t>(at - text.data())};
}

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
  // What is 0 to 9 for a digit in its place, 0 for a full stop; a sum behind a larger one may be wrong too.
  const U64 values = (front | U64{back} << 24) ^ 0x0030'2e30'2e30'2e30;
  if (((values | (values + 0x0076'0076'0076'0076)) & 0x0080'ff80'ff80'ff80) != 0) return kNone;
  const U64 pairs = values | values >> 8;
  return {static_cast<U32>((pairs & 0xffff) | (pairs >> 16 & 0xffff'0000)), 7};
}

/// The ways to lay out four octets of one to three digits: 81. A layout is known by the mask of where its
/// octets end, and found by a hash of that mask that has no collisions (a collision does not compile).
struct Layouts {
  static constexpr U32 slot(U32 ends) { return ends * 0xa9a2'122du >> 24; }

  /// Where the hundreds, tens and ones of each octet come from; then nothing.
  alignas(16) std::array<std::array<U8, 16>, 256> shuffle{};
  std::array<U16, 256> ends{};

  constexpr Layouts() {
    for (U32 layout = 0; layout < 81; ++layout) {
      std::array<U8, 16> from{};
      U32 mask = 0;
      U8 at = 0;
      for (U32 i = 0, rest = layout; i < 4; ++i, rest /= 3) {
        const U32 digits = rest % 3 + 1;
        for (U32 place = 0; place < 4; ++place) {
          const U32 skipped = 3 - digits;
          from[4 * i + place] = place < skipped || place == 3 ? 0x80 : static_cast<U8>(at + place - skipped);
        }
        at = static_cast<U8>(at + digits);
        mask |= 1u << at++;
      }
      if (ends[slot(mask)] != 0) throw "two layouts in one slot";
      ends[slot(mask)] = static_cast<U16>(mask);
      shuffle[slot(mask)] = from;
    }
  }
};
constexpr Layouts kLayouts;

}  // namespace

namespace {

/// An address of `end` characters, the first ones of `characters`; `dots` are those in it.
WIRL_SSSE3 inline Taken takeLayout(__m128i characters, std::size_t end, U32 dots, std::string_view text,
                                   Extent extent) noexcept {
  const U32 ends = dots | 1u << end;
  const U32 slot = Layouts::slot(ends);
  // Of a text that has no such layout this makes nothing of use, and does no harm: one branch decides.
  const __m128i places =
      _mm_shuffle_epi8(_mm_xor_si128(characters, _mm_set1_epi8('0')),
                       _mm_load_si128(reinterpret_cast<const __m128i*>(&kLayouts.shuffle[slot])));
  const __m128i octets =
      _mm_madd_epi16(_mm_maddubs_epi16(places, _mm_set1_epi32(0x0001'0a64)), _mm_set1_epi16(1));
  const __m128i noDigits = _mm_adds_epu8(places, _mm_set1_epi8(0x80 - 10));
  const __m128i tooLarge = _mm_cmpgt_epi32(octets, _mm_set1_epi32(255));
  const U32 wrong = static_cast<U32>(_mm_movemask_epi8(_mm_or_si128(noDigits, tooLarge)));
  if (((kLayouts.ends[slot] ^ ends) | wrong) == 0) [[likely]] {
    const __m128i words = _mm_packs_epi32(octets, octets);
    return {static_cast<U32>(_mm_cvtsi128_si32(_mm_packus_epi16(words, words))), end};
  }
  // An octet of more than three digits may still be one, with zeros in front; nothing else can.
  const U32 zeros = static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8('0'))));
  const U32 leading = zeros & (ends << 1 | 1);
  if ((leading << 3 & ~(ends | ends << 1 | ends << 2)) == 0) [[likely]]
    return kNone;
  return takeDottedPlainly(text, extent);
}

WIRL_SSSE3 inline U32 dotsOf(__m128i characters) noexcept {
  return static_cast<U32>(_mm_movemask_epi8(_mm_cmpeq_epi8(characters, _mm_set1_epi8('.'))));
}

}  // namespace

Taken takeDottedSsse3(const char* text, std::size_t size) noexcept {
  if (size == 7) return takeFourDigits(text);
  if (size > 15) return takeDottedPlainly({text, size}, Extent::whole);
  const __m128i characters = loadText8to16(orNuls(size < 8, text), size);
  return takeLayout(characters, size, dotsOf(characters), {text, size}, Extent::whole);
}

Taken takeDottedFrontSsse3(const char* text, std::size_t size) noexcept {
  if (size < 7) return kNone;
  const __m128i characters = loadText16(text, size);
  const __m128i digits =
      _mm_cmplt_epi8(_mm_add_epi8(characters, _mm_set1_epi8(static_cast<char>(0x80 - '0'))),
                     _mm_set1_epi8(static_cast<char>(0x80 + 10)));
  // The fourth character that is no digit ends the address; a set bit 16 stands for those not looked at.
  U32 others = ~static_cast<U32>(_mm_movemask_epi8(digits));
  for (unsigned i = 0; i < 3; ++i) others &= others - 1;
  const auto end = static_cast<std::size_t>(std::countr_zero(others));
  if (end > 15) return takeDottedPlainly({text, size}, Extent::front);
  return takeLayout(characters, end, dotsOf(characters) & ((1u << end) - 1), {text, size}, Extent::front);
}

#endif

unsigned writeDotted(const DottedOctets& octets, char* out) noexcept {
  // Two octets and their full stops are eight characters at most: the text is put together in two words. The
  // last full stop becomes the NUL.
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
