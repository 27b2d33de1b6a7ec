// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Kiv/Types.h"

// Parsers that look at sixteen characters at once have a function of their own for it, marked WIRL_SSSE3 and
// called where `hasSsse3()`; everywhere else, and for texts out of the ordinary, a plain loop does the work.
#if defined(__x86_64__) || defined(__i386__)
#define WIRL_HAS_SSSE3 1
#define WIRL_SSSE3 __attribute__((target("ssse3")))
#include <tmmintrin.h>
#else
#define WIRL_HAS_SSSE3 0
#endif

namespace Wirl::detail {

/// Whether this machine has the instructions; one load and one test.
inline bool hasSsse3() noexcept {
#if WIRL_HAS_SSSE3
  return __builtin_cpu_supports("ssse3") != 0;
#else
  return false;
#endif
}

#if WIRL_HAS_SSSE3

// The address and the size of a text go apart here: GCC for 32-bit x86 would read a string_view in one load,
// which waits for the two stores that it came by.

/// A mask of all or nothing: compilers make a branch of a choice between numbers, but not of this.
constexpr Kiv::U32 onlyIf(bool condition) noexcept {
  return 0u - static_cast<Kiv::U32>(condition);
}

/// NULs to load in the place of a text that is too short.
extern const char kNuls[16];

/// `text`, or the middle of the NULs. Which texts are too short cannot be predicted: there is no branch here.
inline const char* orNuls(bool tooShort, const char* text) noexcept {
  const auto nuls = reinterpret_cast<std::uintptr_t>(kNuls + 8);
  const auto at = reinterpret_cast<std::uintptr_t>(text);
  return reinterpret_cast<const char*>(at ^ ((at ^ nuls) & (0 - static_cast<std::uintptr_t>(tooShort))));
}

/// A text of eight to sixteen characters, and zeros.
WIRL_SSSE3 inline __m128i loadText8to16(const char* at, std::size_t size) noexcept {
  // Two overlapping halves; the second without what the first has.
  const auto from = [](const char* place) { return reinterpret_cast<const __m128i*>(place); };
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(128 - 8 * size));
  return _mm_unpacklo_epi64(_mm_loadl_epi64(from(at)),
                            _mm_srl_epi64(_mm_loadl_epi64(from(at + size - 8)), shift));
}

/// The first sixteen characters of a text of at least four, zeros behind its end. Reads nothing outside.
WIRL_SSSE3 inline __m128i loadText16(const char* at, std::size_t size) noexcept {
  const auto load4 = [](const char* from) {
    int word;
    std::memcpy(&word, from, sizeof(word));
    return word;
  };
  if (size >= 16) return loadText8to16(at, 16);
  if (size >= 8) return loadText8to16(at, size);
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(8 * size - 32));
  return _mm_or_si128(_mm_cvtsi32_si128(load4(at)),
                      _mm_sll_epi64(_mm_cvtsi32_si128(load4(at + size - 4)), shift));
}

#endif

}  // namespace Wirl::detail
